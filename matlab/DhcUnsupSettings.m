classdef DhcUnsupSettings
  % DhcUnsupSettings  Unsupervised splitting (DhcSettings.unsupSet).
  %
  %   variableMultiplicity  (default 0; ini VariableMultiplicity) 1 = each
  %                         split estimates its number of children by mean
  %                         shift (engineSet) instead of using multiplicity.
  %   blind                 (default 0; ini Blind) 1 = blind splitting by
  %                         blindSet: leaves are taken breadth first, each
  %                         split once without test splits.
  %   balancedTree          (default 0; ini BalancedTree) 1 = grow the tree
  %                         level by level: every region large enough is
  %                         split until depth growDepth; gains and
  %                         maxNumberOfClasses are not consulted.
  %   growDepth             (default 0; ini GrowDepth) depth limit of
  %                         balancedTree (0 = gain-driven splitting).
  %   doubleSplit           (default 0; ini DoubleSplit) selects split mode 2,
  %                         which splits like mode 0.
  %   splitwiseDisconnect   (default 0; ini SplitwiseDisconnect) 1 = cut every
  %                         new region into its 8-connected pieces right after
  %                         its split (such runs are called with one output).
  %   multiplicity          (default 2; ini [POTTS_MODEL] Multiplicity)
  %                         children per split (at least 2).
  %   finalRefinement       (default 10; ini FinalRefinement) at most this many
  %                         rounds of the joint refinement of the final map:
  %                         EM over all leaves' Gaussians, then Potts ICM with
  %                         beta estimated on the map (0 = the leaves' map).
  %   classicSet            DhcClassicSettings: gain-driven stopping rules.
  %   blindSet              DhcBlindSettings: blind splitting.
  %
  %   See also DhcSettings, DhcClassicSettings, DhcBlindSettings.

  properties
    variableMultiplicity = 0;
    blind = 0;
    balancedTree = 0;
    growDepth = 0;
    doubleSplit = 0;
    splitwiseDisconnect = 0;
    multiplicity = 2;
    finalRefinement = 10;
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
