function dhc_check_tree(img, seg, summary, reports)
  % dhc_check_tree(img, seg, summary, reports)  Checks the three outputs of one
  % run against each other and against the image: field names, order and
  % shapes, the summary against the reports, and every report's links, areas,
  % mean, covariance and energy against the pixels its label map region holds.
  fields = {'label'; 'depth'; 'path'; 'nChildren'; 'children'; 'offspCard'; 'offspring'; 'split'; ...
            'isTerminal'; 'beta'; 'edges'; 'textureBased'; 'sgBasic'; 'sgTex'; 'sgSpec'; 'area'; ...
            'area_k'; 'TlkE'; 'bands'; 'mi'; 'sigma'};
  dhc_check(isequal(fieldnames(summary), {'NClass'; 'Classes'; 'NSplit'; 'SplitOrder'; 'OffspringMat'}) && ...
            isscalar(summary) && isequal(fieldnames(reports), fields) && iscolumn(reports), 'output layout');
  % A column of n values; a vector a region does not have stays empty.
  col = @(v, n) isequal(size(v), [n 1]) || (n == 0 && isempty(v));
  labels = [reports.label];
  leaf = [reports.nChildren] == 0;
  nSplit = nnz(~leaf);
  dhc_check(numel(unique(labels)) == numel(reports), 'distinct report labels');
  dhc_check(summary.NClass == nnz(leaf) && isequal(summary.Classes, labels(leaf)'), 'Classes: the leaves');
  dhc_check(summary.NSplit == nSplit && col(summary.SplitOrder, nSplit) && ...
            isequal(sort(summary.SplitOrder), sort(labels(~leaf))'), 'SplitOrder: the split regions');
  dhc_check(isequal(size(summary.OffspringMat), [nSplit summary.NClass] * (nSplit > 0)), 'OffspringMat size');
  for k = 1:nSplit
    r = reports(labels == summary.SplitOrder(k));
    dhc_check(isequal(summary.OffspringMat(k, :), [r.offspring' zeros(1, summary.NClass - r.offspCard)]), ...
              'OffspringMat row %d: the offspring, then zeros', k);
    parent = labels(arrayfun(@(q) any(q.children == r.label), reports));
    dhc_check((k == 1 && r.depth == 0) || any(summary.SplitOrder(1:k - 1) == parent), ...
              'split %d: the root first, a parent before its children', k);
  end
  dhc_check(isequal(unique(seg(seg > 0)), sort(labels(leaf))'), 'the label map holds the leaf labels');

  [R, C, B] = size(img);
  pixels = reshape(img, R * C, B);
  for r = reports'
    n = r.nChildren;
    % Children come from a computed split or, for the root, from initial regions.
    dhc_check(col(r.path, r.depth) && col(r.children, n) && col(r.area_k, n) && ...
              col(r.offspring, r.offspCard), 'vectors of %d', r.label);
    dhc_check(r.isTerminal == (n == 0) && (r.split == (n > 0) || r.depth == 0), 'flags of %d', r.label);
    if n == 0
      under = r.label;
      dhc_check(r.offspCard == 0 && ~any([r.beta r.edges r.sgBasic r.sgTex r.sgSpec]), 'leaf %d', r.label);
    else
      under = r.offspring;
      kids = reports(arrayfun(@(c) find(labels == c), r.children));
      dhc_check(isequal([kids.area]', r.area_k) && sum(r.area_k) == r.area, 'children areas of %d', r.label);
      dhc_check(isequal([kids.path], [repmat(r.path, 1, n); 0:n - 1]), 'children paths of %d', r.label);
      dhc_check(all(ismember(under, labels(leaf))), 'offspring of %d are leaves', r.label);
      dhc_check((r.edges > 0) == r.split, 'a computed split of %d has edges', r.label);
    end
    x = pixels(ismember(seg(:), under), :);
    mu = mean(x, 1)';
    S = x' * x / rows(x) - mu * mu';
    if sum(abs(S(:))) < 0.01, S(logical(eye(B))) = 1; end   % flat: the unit covariance
    dhc_check(r.area == rows(x) && r.bands == B, 'area and bands of %d', r.label);
    dhc_check(col(r.mi, B) && norm(r.mi - mu) <= 1e-9 * max(1, norm(mu)), 'mean of %d', r.label);
    dhc_check(isequal(size(r.sigma), [B B]) && norm(r.sigma - S, 'fro') <= 1e-6 * max(1, norm(S, 'fro')), ...
              'covariance of %d', r.label);
    % Half the summed squared Mahalanobis distances of n points in d dimensions
    % to their own mean and covariance is n * d / 2; 0 when never computed.
    dhc_check(r.TlkE == 0 || abs(r.TlkE - r.area * B / 2) < 1e-6 * r.area * B, 'energy of %d', r.label);
  end
end
