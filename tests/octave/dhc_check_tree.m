function dhc_check_tree(img, seg, summary, reports)
  % dhc_check_tree(img, seg, summary, reports)  Checks the three outputs of
  % one run against each other and against the image: field names, order and
  % shapes; the summary against the reports; every report's areas, paths,
  % children, offspring, mean and covariance against the label map.
  [R, C, B] = size(img);
  pixels = reshape(img, R * C, B);

  dhc_check(isequal(fieldnames(summary), {'NClass'; 'Classes'; 'NSplit'; 'SplitOrder'; 'OffspringMat'}), ...
            'summary field names and order');
  dhc_check(isequal(size(summary), [1 1]), 'summary is 1x1');
  names = {'label'; 'depth'; 'path'; 'nChildren'; 'children'; 'offspCard'; 'offspring'; 'split'; ...
           'isTerminal'; 'beta'; 'edges'; 'textureBased'; 'sgBasic'; 'sgTex'; 'sgSpec'; 'area'; ...
           'area_k'; 'TlkE'; 'bands'; 'mi'; 'sigma'};
  dhc_check(isequal(fieldnames(reports), names), 'report field names and order');
  N = numel(reports);
  dhc_check(isequal(size(reports), [N 1]) && N >= 1, 'reports are an N x 1 array');

  labels = [reports.label];
  dhc_check(numel(unique(labels)) == N, 'report labels are distinct');
  leaf = [reports.nChildren] == 0;

  % Summary against the reports.
  dhc_check(summary.NClass == nnz(leaf), 'NClass counts the reports without children');
  if summary.NClass > 0
    dhc_check(isequal(summary.Classes, labels(leaf)'), 'Classes: leaf labels in report order, a column');
  else
    dhc_check(isempty(summary.Classes), 'Classes empty without leaves');
  end
  dhc_check(summary.NSplit == nnz(~leaf), 'NSplit counts the split workspaces');
  if summary.NSplit >= 1
    dhc_check(isequal(size(summary.SplitOrder), [summary.NSplit 1]), 'SplitOrder is NSplit x 1');
    dhc_check(isequal(sort(summary.SplitOrder), sort(labels(~leaf))'), 'SplitOrder lists the split workspaces');
    root = reports([reports.depth] == 0);
    dhc_check(numel(root) == 1 && summary.SplitOrder(1) == root.label, 'the root is split first');
    dhc_check(isequal(size(summary.OffspringMat), [summary.NSplit summary.NClass]), 'OffspringMat is NSplit x NClass');
    for k = 1:summary.NSplit
      rep = reports(labels == summary.SplitOrder(k));
      row = summary.OffspringMat(k, :);
      dhc_check(isequal(row(1:rep.offspCard), rep.offspring'), 'OffspringMat row %d starts with the offspring', k);
      dhc_check(all(row(rep.offspCard + 1:end) == 0), 'OffspringMat row %d is zero padded', k);
      % A parent is split before its children.
      if rep.depth > 0
        parent = reports(arrayfun(@(q) any(q.children == rep.label), reports));
        dhc_check(any(summary.SplitOrder(1:k - 1) == parent.label), 'parent of %d split before it', rep.label);
      end
    end
  else
    dhc_check(isempty(summary.SplitOrder) && isempty(summary.OffspringMat), 'no split: empty order and matrix');
  end

  % The label map shows exactly the leaves.
  inRoi = seg > 0;
  dhc_check(isequal(unique(seg(inRoi)), sort(labels(leaf))'), 'the label map holds exactly the leaf labels');

  for i = 1:N
    r = reports(i);
    dhc_check(isscalar(r.label) && isscalar(r.depth) && isscalar(r.area) && isscalar(r.TlkE), 'scalars of %d', r.label);
    dhc_check(r.depth == numel(r.path), 'depth = length of path (%d)', r.label);
    if r.depth > 0
      dhc_check(isequal(size(r.path), [r.depth 1]), 'path is a column (%d)', r.label);
    else
      dhc_check(isempty(r.path), 'root path empty');
    end
    dhc_check(r.isTerminal == (r.nChildren == 0), 'isTerminal of %d', r.label);
    dhc_check(r.split == (r.nChildren > 0), 'split flag of %d', r.label);
    if r.nChildren == 0
      dhc_check(isempty(r.children) && isempty(r.area_k), 'leaf %d: children and area_k empty', r.label);
      dhc_check(r.offspCard == 0 && isempty(r.offspring), 'leaf %d: no offspring', r.label);
      under = r.label;
      dhc_check(r.beta == 0 && r.edges == 0 && r.sgBasic == 0 && r.sgTex == 0 && r.sgSpec == 0, ...
                'unsplit %d: split values stay 0', r.label);
    else
      dhc_check(isequal(size(r.children), [r.nChildren 1]), 'children of %d: a column', r.label);
      dhc_check(isequal(size(r.area_k), [r.nChildren 1]), 'area_k of %d: a column', r.label);
      dhc_check(isequal(size(r.offspring), [r.offspCard 1]), 'offspring of %d: a column', r.label);
      dhc_check(sum(r.area_k) == r.area, 'children areas of %d add up', r.label);
      dhc_check(r.edges > 0 && r.sgBasic >= 0, 'a kept split of %d has edges and a gain >= 0', r.label);
      for k = 1:r.nChildren
        ch = reports(labels == r.children(k));
        dhc_check(numel(ch) == 1, 'child %d of %d has a report', r.children(k), r.label);
        dhc_check(isequal(ch.path, [r.path; k - 1]), 'path of child %d', ch.label);
        dhc_check(ch.area == r.area_k(k), 'area_k(%d) of %d', k, r.label);
      end
      under = r.offspring';
      dhc_check(all(ismember(under, labels(leaf))), 'offspring of %d are leaves', r.label);
    end
    sel = ismember(seg(:), under);
    dhc_check(r.area == nnz(sel), 'area of %d = its pixels in the map', r.label);
    x = pixels(sel, :);
    mu = mean(x, 1)';
    S = (x' * x) / rows(x) - mu * mu';
    if sum(abs(S(:))) < 0.01, S(logical(eye(B))) = 1; end
    dhc_check(r.bands == B, 'bands of %d', r.label);
    dhc_check(isequal(size(r.mi), [B 1]) && max(abs(r.mi - mu)) < 1e-9 * max(1, max(abs(mu))), 'mean of %d', r.label);
    dhc_check(isequal(size(r.sigma), [B B]) && max(abs(r.sigma(:) - S(:))) < 1e-6 * max(1, max(abs(S(:)))), ...
              'covariance of %d', r.label);
    % With its own mean and covariance, half the summed squared Mahalanobis
    % distances of n points in d dimensions is n * d / 2; a workspace whose
    % energy was never refreshed (no split gain computed for it) keeps 0.
    dhc_check(r.TlkE == 0 || abs(r.TlkE - r.area * B / 2) < 1e-6 * r.area * B, 'likelihood energy of %d', r.label);
  end
end
