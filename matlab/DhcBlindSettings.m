classdef DhcBlindSettings
  % DhcBlindSettings  Blind splitting (DhcUnsupSettings.blindSet).
  %
  %   metric               score of a leaf: 0 area, 1 distortion,
  %                        2 distortion/area, 3 distortion*log(area),
  %                        4 (distortion/area)*log(area), 5 envelope area,
  %                        6 point count, 7 1/(depth+1), 8 1/(depth+1) when the
  %                        area reaches classicSet.minSplitArea.  Any other
  %                        value is a fatal error (identifier dhc:fatal:m20).
  %   distorsionThreshold  carried into the splitting options
  %   active               informative only: the limits below are in force
  %                        exactly when one of them is non-zero
  %   depth                maximum depth of a split leaf (0: no limit)
  %   MSE                  minimum mean squared error to split (0: no limit)
  %   area                 minimum area to split (0: no limit)

  properties
    metric = 0;
    distorsionThreshold = 0;
    active = 0;
    depth = 0;
    MSE = 0;
    area = 0;
  end
end
