function r = dhc_toolbox_runs()
  % r = dhc_toolbox_runs()  The outputs of the dhc module first on the path
  % for a handful of runs (default, initial segmentation, supervised,
  % fragmentation, three children per split), so that two builds of the
  % module can be compared.
  [img, truth] = dhc_quadrants(30, 34, 3);
  init = 1 + (truth > 2);
  sup = DhcSettings();
  sup.supervisedMode = 1;
  sup.supSet.numberOfClasses = 4;
  sup.supSet.structureLevels = [2 2 2 2];
  sup.supSet.structurePaths = [0 0 0 1 1 0 1 1];
  frag = DhcSettings();
  frag.fragmentation = 1;
  three = DhcSettings();
  three.unsupSet.multiplicity = 3;
  three.unsupSet.classicSet.minSplitArea = 8;
  r = struct();
  [r.plain.out, r.plain.summary, r.plain.reports] = dhc(DhcProblem(img), DhcSettings());
  [r.init.out, r.init.summary, r.init.reports] = dhc(DhcProblem(img, init), DhcSettings());
  [r.sup.out, r.sup.summary, r.sup.reports] = dhc(DhcProblem(img, [], [], truth), sup);
  r.frag.out = dhc(DhcProblem(img), frag);
  [r.three.out, r.three.summary, r.three.reports] = dhc(DhcProblem(img), three);
end
