classdef DhcEngineSettings
  % DhcEngineSettings  Potts model and mean shift (DhcSettings.engineSet).
  %
  %   adaptive          adaptive estimation of the Potts interaction beta
  %   betaMin, betaMax  bounds of beta
  %   betaBound         bound used by the adaptive estimation
  %   rangeBandwidth    mean-shift range bandwidth
  %   spatialBandwidth  mean-shift spatial bandwidth
  %   autoAdjustkNN     mean-shift k-nearest-neighbour auto adjustment
  %   skipLast          mean shift: skip the last steps
  %   tolerance         mean-shift convergence tolerance
  %   kernelType        mean-shift kernel selector

  properties
    adaptive = 1;
    betaMin = 0;
    betaMax = 2;
    betaBound = 1;
    rangeBandwidth = 0;
    spatialBandwidth = 0;
    autoAdjustkNN = 0;
    skipLast = 0;
    tolerance = 0.001;
    kernelType = 0;
  end
end
