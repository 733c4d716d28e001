classdef DhcSettings
  % DhcSettings  Settings of one dhc run: the second argument of dhc.
  %
  %   s = DhcSettings()   defaults equal to examples/default.ini
  %
  %   supervisedMode  true: split along the class structure of supSet, seeded
  %                   from the problem's ground truth (call dhc with 3 outputs)
  %   fragmentation   true: also return connected fragments ("fragmentation"
  %                   field); such runs are called with one output only
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
