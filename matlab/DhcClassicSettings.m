classdef DhcClassicSettings
  % DhcClassicSettings  Gain-driven splitting (DhcUnsupSettings.classicSet).
  %
  %   splitGainThreshold  (default 0.2; ini SplitGainThreshold) a split is
  %                       made only if its gain reaches this: the decrease of
  %                       the Gaussian negative log-likelihood per pixel and
  %                       band, less beta per neighbouring pixel pair it
  %                       separates.  Splitting one noisy homogeneous class of
  %                       a 4-band image gains about 0.13, separating distinct
  %                       classes clearly more; with fewer bands within-class
  %                       splits gain more (about 0.5 / bands), so raise it
  %                       for such images.
  %   maxNumberOfClasses  (default 15; ini MaxNumberOfClasses) stop when this
  %                       many classes (leaves) exist; 1 gives one class.
  %                       Truncated to an integer.
  %   minSplitArea        (default 64; ini MinRegionArea) regions of fewer
  %                       pixels are not split, and a split whose child would
  %                       be smaller is not made.
  %   stopCriterion       (default 1; ini StopCriterion) 0 = a split is made
  %                       when its gain reaches splitGainThreshold; 1 = when
  %                       its ICL is positive, 2 = when its BIC is positive
  %                       (splitGainThreshold unused; a refused region is
  %                       weighed once more with its children's best splits).
  %
  %   See also DhcUnsupSettings, DhcSettings.

  properties
    splitGainThreshold = 0.2;
    maxNumberOfClasses = 15;
    minSplitArea = 64;
    stopCriterion = 1;
  end
end
