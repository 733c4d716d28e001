function dhc_write_ini(file, s)
  % dhc_write_ini(file, s)  Writes the settings object s as an ini file that
  % the command-line tool reads into the same settings record.
  f = fopen(file, 'w');
  dhc_check(f >= 0, 'cannot write %s', file);
  u = s.unsupSet;
  c = u.classicSet;
  b = u.blindSet;
  e = s.engineSet;
  fprintf(f, '[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=%d\n\n', s.supervisedMode);
  fprintf(f, '[UNSUPERVISED_MODE_CONF]\n');
  fprintf(f, 'VariableMultiplicity=%d\nSplitGainThreshold=%.17g\nMaxNumberOfClasses=%d\n', ...
          u.variableMultiplicity, c.splitGainThreshold, fix(c.maxNumberOfClasses));
  fprintf(f, 'Fragmentation=%d\nDoubleSplit=%d\nBalancedTree=%d\nGrowDepth=%d\nMinRegionArea=%.17g\n', ...
          s.fragmentation, u.doubleSplit, u.balancedTree, fix(u.growDepth), c.minSplitArea);
  fprintf(f, 'Blind=%d\nMetric=%d\nDistortionThreshold=%.17g\nSplitwiseDisconnect=%d\n', ...
          u.blind, fix(b.metric), b.distorsionThreshold, u.splitwiseDisconnect);
  fprintf(f, 'BlindSplitDepthMax=%.17g\nBlindSplitAreaMin=%.17g\nBlindSplitMSEMin=%.17g\n\n', ...
          b.depth, b.area, b.MSE);
  fprintf(f, '[SUPERVISED_MODE_CONF]\nNumberOfClasses=%d\n', fix(s.supSet.numberOfClasses));
  if s.supervisedMode && s.supSet.numberOfClasses > 0
    fprintf(f, 'StructureLevels={%s}\n', strjoin(arrayfun(@num2str, fix(s.supSet.structureLevels), ...
                                                          'UniformOutput', false), ' '));
    fprintf(f, 'StructurePaths={%s}\n', strjoin(arrayfun(@num2str, fix(s.supSet.structurePaths), ...
                                                         'UniformOutput', false), ' '));
  end
  fprintf(f, '\n[POTTS_MODEL]\nAdaptive=%d\nBetaBound=%.17g\nBetaMax=%.17g\nBetaMin=%.17g\n', ...
          e.adaptive, e.betaBound, e.betaMax, e.betaMin);
  fprintf(f, 'Multiplicity=%d\nRangeBandwidth=%.17g\nSpatialBandwidth=%.17g\n\n', ...
          fix(u.multiplicity), e.rangeBandwidth, e.spatialBandwidth);
  fprintf(f, '[MEANSHIFT]\nAutoAdjustKNN=%d\nSkipLast=%.17g\nTolerance=%.17g\nKernelType=%d\n', ...
          fix(e.autoAdjustkNN), e.skipLast, e.tolerance, fix(e.kernelType));
  fclose(f);
end
