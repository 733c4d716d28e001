classdef DhcEngineSettings
  % DhcEngineSettings  Potts model and mean shift (DhcSettings.engineSet).
  %
  %   betaMin, betaMax  (defaults 0, 1.5; ini BetaMin, BetaMax) interval in
  %                     which beta, the weight of neighbour agreement in the
  %                     Potts prior, is estimated per split (equal values fix
  %                     beta).
  %   adaptive          (default 0; ini Adaptive) adaptive mode: marked
  %                     pixels use betaBound instead of the estimate.
  %   betaBound         (default 0; ini BetaBound) the beta of adaptive mode.
  %   rangeBandwidth    (default 0; ini RangeBandwidth) carried to the
  %                     engine; not used by the class-count estimate.
  %   spatialBandwidth  (default 0; ini SpatialBandwidth) carried to the
  %                     engine; not used by the class-count estimate.
  %   The mean-shift settings, used only with variableMultiplicity:
  %   autoAdjustkNN     (default 0; ini AutoAdjustKNN) >= 1: the number of
  %                     modes wanted; the neighbour count is adjusted until
  %                     mean shift finds that many.
  %   tolerance         (default 0.05; ini Tolerance) modes holding less than
  %                     this fraction of the sample are dropped.
  %   skipLast          (default 0.1; ini SkipLast) fraction of the sample
  %                     that may stay unassigned when mode seeding stops.
  %   kernelType        (default 0; ini KernelType) kernel selector (the
  %                     Gaussian weight is always used).
  %
  %   See also DhcSettings, DhcUnsupSettings.

  properties
    adaptive = 0;
    betaMin = 0;
    betaMax = 1.5;
    betaBound = 0;
    rangeBandwidth = 0;
    spatialBandwidth = 0;
    autoAdjustkNN = 0;
    skipLast = 0.1;
    tolerance = 0.05;
    kernelType = 0;
  end
end
