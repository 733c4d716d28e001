function s = dhc_test_settings()
  % s = dhc_test_settings()  Gain-driven settings of the tests, independent of
  % the shipped defaults: two children per split, at most four classes.
  s = DhcSettings();
  s.supervisedMode = 0;
  s.fragmentation = 0;
  s.unsupSet.variableMultiplicity = 0;
  s.unsupSet.blind = 0;
  s.unsupSet.balancedTree = 0;
  s.unsupSet.growDepth = 0;
  s.unsupSet.doubleSplit = 0;
  s.unsupSet.splitwiseDisconnect = 0;
  s.unsupSet.multiplicity = 2;
  s.unsupSet.classicSet.splitGainThreshold = 0;
  s.unsupSet.classicSet.maxNumberOfClasses = 4;
  s.unsupSet.classicSet.minSplitArea = 4;
  s.unsupSet.blindSet.metric = 0;
  s.unsupSet.blindSet.depth = 0;
  s.unsupSet.blindSet.MSE = 0;
  s.unsupSet.blindSet.area = 0;
end
