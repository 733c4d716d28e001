% A fatal condition of the core (an unknown blind metric, status -20) is
% raised as an error whose identifier carries the status; the session goes
% on and later calls work.  The "active" switch of blindSet is overridden by
% the limits themselves.

img = dhc_quadrants(12, 12, 2);
s = dhc_test_settings();
s.unsupSet.blind = 1;
s.unsupSet.blindSet.metric = 99;

if dhc_literal_build()
  % The literal build ends the host process with the status: -20 is 236.
  [status, output] = dhc_child_octave(['s = dhc_test_settings(); s.unsupSet.blind = 1; ' ...
                                       's.unsupSet.blindSet.metric = 99; ' ...
                                       '[a, b, c] = dhc(DhcProblem(dhc_quadrants(12, 12, 2)), s);']);
  dhc_check(status == 236, 'the process ends with status 236, got %d: %s', status, output);
  printf('test_fatal: passed (literal exit)\n');
  return;
end

% No blind limit is set, so "active" = 1 has no effect: the metric is used.
s.unsupSet.blindSet.active = 1;
for k = 1:3
  e = dhc_expect_error(@() dhc_three(DhcProblem(img), s), 'dhc:fatal:m20');
  dhc_check(~isempty(strfind(e.message, '-20')), 'the message names the status: %s', e.message);
end

% The session keeps running, and the next call succeeds.
s.unsupSet.blindSet.metric = 0;
[out, summary, reports] = dhc_three(DhcProblem(img), s);
dhc_check(all(out.segmentation(:) > 0) && summary.NClass >= 2, 'a call after the fatal condition');
dhc_check_tree(img, out.segmentation, summary, reports);

% A depth limit makes the limits active although "active" = 0: the metric is
% then never consulted, and only the root and its children are split.
s.unsupSet.blindSet.metric = 99;
s.unsupSet.blindSet.active = 0;
s.unsupSet.blindSet.depth = 1;
s.unsupSet.classicSet.maxNumberOfClasses = 100;
[out, summary, reports] = dhc_three(DhcProblem(img), s);
dhc_check(max([reports.depth]) <= 2, 'depth limit 1: leaves at depth 2 at most');
dhc_check(all([reports([reports.nChildren] > 0).depth] <= 1), 'only the root and its children are split');
dhc_check_tree(img, out.segmentation, summary, reports);

printf('test_fatal: passed\n');
