classdef DhcBlindSettings
  % DhcBlindSettings  Blind splitting (DhcUnsupSettings.blindSet), used when
  % DhcUnsupSettings.blind is set: leaves are taken breadth first, each split
  % once without test splits, when their score reaches
  % classicSet.splitGainThreshold.
  %
  %   metric               (default 0; ini Metric) the blind score of a leaf:
  %                        0 area, 1 distortion (sum of squared deviations
  %                        from the region's mean), 2 distortion / area,
  %                        3 distortion x ln area, 4 (distortion / area) x
  %                        ln area, 5 bounding-box area, 6 pixel count,
  %                        7 1 / (depth + 1), 8 as 7 for regions of at least
  %                        classicSet.minSplitArea pixels.  Any other value
  %                        is a fatal error (identifier dhc:fatal:m20).
  %   distorsionThreshold  (default 0; ini DistortionThreshold) carried with
  %                        the blind options; no effect on the current
  %                        strategies.
  %   active               (default 0) informative only: the limits below are
  %                        in force exactly when one of them is non-zero.
  %   depth                (default 0; ini BlindSplitDepthMax) blind limits:
  %                        when depth, area or MSE is non-zero they replace
  %                        metric, and a leaf is split while its depth <=
  %                        depth (0 = any depth)...
  %   area                 (default 0; ini BlindSplitAreaMin) ...its area >=
  %                        area (0 = any area)...
  %   MSE                  (default 0; ini BlindSplitMSEMin) ...and its mean
  %                        squared deviation >= MSE (0 = any).
  %
  %   See also DhcUnsupSettings, DhcSettings.

  properties
    metric = 0;
    distorsionThreshold = 0;
    active = 0;
    depth = 0;
    MSE = 0;
    area = 0;
  end
end
