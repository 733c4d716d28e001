classdef DhcClassicSettings
  % DhcClassicSettings  Gain-driven splitting (DhcUnsupSettings.classicSet).
  %
  %   splitGainThreshold  a split is kept only with at least this gain
  %   maxNumberOfClasses  stop when this many classes exist (truncated to an
  %                       integer)
  %   minSplitArea        regions smaller than this (pixels) are not split

  properties
    splitGainThreshold = 0.2;
    maxNumberOfClasses = 8;
    minSplitArea = 64;
  end
end
