function [cut, nClasses] = dhc_cut(seg, summary, reports, k, varargin)
  % DHC_CUT  Label map of a dhc run's tree of regions cut after K splits.
  %
  %   CUT = DHC_CUT(SEG, SUMMARY, REPORTS, K) rebuilds, from the outputs of
  %   [out, summary, reports] = dhc(problem, settings) with SEG =
  %   out.segmentation, the label map after the first K splits of
  %   summary.SplitOrder (the splits ranked by gain, a parent before its
  %   children; in a gain-driven run the order in which they were made).
  %   K = 0 gives the region of interest as one class, K = summary.NSplit
  %   the final map.  Every pixel carries the label its region has in the
  %   reports; pixels outside the region of interest stay 0.  This is band K
  %   of `dhc segment --levels`.
  %
  %   CUT = DHC_CUT(SEG, SUMMARY, REPORTS, 'classes', N) is the cut with N
  %   classes, as `dhc segment --cut N` writes it.  With more than two
  %   children per split not every N has a cut; the error names those there are.
  %
  %   [CUT, NCLASSES] = DHC_CUT(...) also gives the number of classes of the cut.
  %
  %   A supervised run labels SEG with the ground-truth labels matched to the
  %   leaves.  Each is taken back to the leaf of the same area; where several
  %   leaves have that area, DHC_CUT(..., 'image', IMG) with the segmented
  %   image picks the one whose mean (reports' mi) is nearest to the label's
  %   pixels, and without the image an error asks for it.  A run that cut its
  %   map into pieces (fragmentation, splitwiseDisconnect) has no reports to
  %   cut by.
  %
  %   Example:
  %     [out, summary, reports] = dhc(DhcProblem(img), DhcSettings());
  %     two = dhc_cut(out.segmentation, summary, reports, 'classes', 2);
  %
  %   See also dhc_example.
  if nargin < 4
    error('dhc:cut:usage', 'dhc_cut: usage: dhc_cut(seg, summary, reports, k) or (..., ''classes'', n)');
  end
  labels = [reports.label];
  nChildren = [reports.nChildren];
  order = summary.SplitOrder(:)';
  % Classes of every cut: each split replaces one region by its children.
  grows = arrayfun(@(s) nChildren(labels == s) - 1, order);
  counts = 1 + [0 cumsum(grows)];

  usage = 'dhc_cut: usage: dhc_cut(seg, summary, reports, k) or (..., ''classes'', n), then optionally ''image'', img';
  img = [];
  rest = varargin;
  if ischar(k)
    if ~strcmpi(k, 'classes') || isempty(rest) || ~isnumeric(rest{1}) || ~isscalar(rest{1})
      error('dhc:cut:usage', usage);
    end
    n = rest{1};
    rest = rest(2:end);
  end
  if numel(rest) == 2 && ischar(rest{1}) && strcmpi(rest{1}, 'image')
    img = rest{2};
  elseif ~isempty(rest)
    error('dhc:cut:usage', usage);
  end
  if ischar(k)
    k = find(counts == n, 1) - 1;
    if isempty(k)
      error('dhc:cut:noCut', 'dhc_cut: no cut of the tree has %g classes (the cuts have %s)', n, ...
            strjoin(arrayfun(@num2str, counts, 'UniformOutput', false), ', '));
    end
  elseif ~isnumeric(k) || ~isscalar(k) || k ~= fix(k) || k < 0 || k > numel(order)
    error('dhc:cut:badSplits', 'dhc_cut: K must be a whole number of splits from 0 to %d', numel(order));
  end
  nClasses = counts(k + 1);

  parent = zeros(size(labels));   % 0 for the root
  for i = find(nChildren > 0)
    for c = reports(i).children(:)'
      parent(labels == c) = labels(i);
    end
  end
  leaves = labels(nChildren == 0);

  % The label of each leaf's pixels in SEG: the leaf itself, or in a
  % supervised run the ground-truth label its pixels received.
  present = unique(seg(seg ~= 0))';
  if all(ismember(present, leaves))
    inSeg = leaves;
  else
    leafAreas = [reports(nChildren == 0).area];
    leafMeans = [reports(nChildren == 0).mi];   % bands x leaves
    inSeg = zeros(size(leaves));
    for v = present
      match = find(leafAreas == nnz(seg == v) & inSeg == 0);
      if isempty(match)
        error('dhc:cut:notLeaves', ['dhc_cut: the labels of SEG are not the leaves of the tree, and no leaf ' ...
               'has the area of label %d'], v);
      elseif numel(match) > 1 && isempty(img)
        error('dhc:cut:needImage', ['dhc_cut: label %d of SEG has the area of %d leaves; pass the image to ' ...
               'tell them apart: dhc_cut(..., ''image'', img)'], v, numel(match));
      elseif numel(match) > 1
        pixels = reshape(double(img), numel(seg), []);
        m = mean(pixels(seg(:) == v, :), 1)';
        [~, best] = min(sum((leafMeans(:, match) - m) .^ 2, 1));
        match = match(best);
      end
      inSeg(match) = v;
    end
  end

  done = order(1:k);
  cut = zeros(size(seg));
  for j = 1:numel(leaves)
    % From the leaf up to the root, then down again to the first region not split yet.
    chain = leaves(j);
    while parent(labels == chain(end)) ~= 0
      chain(end + 1) = parent(labels == chain(end));
    end
    chain = fliplr(chain);
    node = chain(find(~ismember(chain, done), 1));
    cut(seg == inSeg(j) & inSeg(j) ~= 0) = node;
  end
end
