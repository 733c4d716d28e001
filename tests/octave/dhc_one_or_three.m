function out = dhc_one_or_three(problem, settings)
  % out = dhc_one_or_three(problem, settings)  Calls dhc with the output count
  % the settings allow and returns the first output.
  tree = ~settings.fragmentation && (settings.supervisedMode || ~settings.unsupSet.splitwiseDisconnect);
  if tree
    [out, ~, ~] = dhc(problem, settings);
  else
    out = dhc(problem, settings);
  end
end
