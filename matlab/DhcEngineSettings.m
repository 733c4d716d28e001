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
