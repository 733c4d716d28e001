function s = dhc_test_settings()
  % s = dhc_test_settings()  The shipped defaults (two children per split)
  % with every gain-driven split kept, at most four classes and small regions
  % allowed, so the small test images split into their quadrants.
  s = DhcSettings();
  s.unsupSet.classicSet.splitGainThreshold = 0;
  s.unsupSet.classicSet.maxNumberOfClasses = 4;
  s.unsupSet.classicSet.minSplitArea = 4;
end
