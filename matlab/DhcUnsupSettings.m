classdef DhcUnsupSettings
  % DhcUnsupSettings  Unsupervised splitting (DhcSettings.unsupSet).
  %
  %   variableMultiplicity  each split estimates its number of children by
  %                         mean shift instead of using multiplicity
  %   blind                 split breadth first by blindSet.metric instead of
  %                         by split gain
  %   balancedTree          grow the tree level by level down to growDepth
  %   growDepth             depth limit of balanced trees
  %   doubleSplit           cut a leaf into connected pieces before splitting
  %   splitwiseDisconnect   cut every new child into connected regions
  %                         (such runs are called with one output only)
  %   multiplicity          children per split
  %   classicSet            DhcClassicSettings: gain-driven stopping rules
  %   blindSet              DhcBlindSettings: blind splitting

  properties
    variableMultiplicity = 0;
    blind = 0;
    balancedTree = 0;
    growDepth = 0;
    doubleSplit = 0;
    splitwiseDisconnect = 0;
    multiplicity = 2;
    classicSet
    blindSet
  end

  methods
    function obj = DhcUnsupSettings()
      obj.classicSet = DhcClassicSettings();
      obj.blindSet = DhcBlindSettings();
    end
  end
end
