classdef DhcSettings
  % DhcSettings  Settings of one dhc run: the second argument of dhc.
  %
  %   s = DhcSettings()   defaults equal to examples/default.ini
  %
  %   supervisedMode  (default 0; ini SupervisedMode) 0 = unsupervised;
  %                   1 = supervised along the class structure of supSet,
  %                   class models from the problem's ground truth (call dhc
  %                   with 3 outputs)
  %   fragmentation   (default 0; ini Fragmentation) 1 = after the run, cut
  %                   every class into 8-connected fragments (the
  %                   "fragmentation" field); such runs are called with one
  %                   output only
  %   unsupSet        DhcUnsupSettings: unsupervised splitting
  %   supSet          DhcSupSettings: supervised class structure
  %   engineSet       DhcEngineSettings: Potts model and mean shift
  %
  %   Sub-objects are values: change them in place, e.g.
  %     s.unsupSet.classicSet.maxNumberOfClasses = 4;
  %   A plain struct tree with the same field names is accepted too.
  %
  %   See also DhcProblem, dhc.

  properties
    supervisedMode = 0;
    fragmentation = 0;
    unsupSet
    supSet
    engineSet
  end

  methods
    function obj = DhcSettings()
      obj.unsupSet = DhcUnsupSettings();
      obj.supSet = DhcSupSettings();
      obj.engineSet = DhcEngineSettings();
    end
  end
end
