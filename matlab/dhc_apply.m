function labels = dhc_apply(img, model, roi, threads)
  % DHC_APPLY  Label an image with a dhc model.
  %
  %   LABELS = DHC_APPLY(IMG, MODEL) labels the rows x cols x bands integer
  %   image IMG with MODEL (from dhc_model_load, or a model file's path):
  %   each pixel's most likely leaf, then a fixed number of synchronous ICM
  %   sweeps with the model's beta, as `dhc apply` and dhc.apply in Python
  %   label it (the same image gives the same labels).  LABELS is rows x
  %   cols, the leaves' labels.
  %
  %   LABELS = DHC_APPLY(IMG, MODEL, ROI) labels only the pixels whose ROI
  %   value is 1; the others get 0.  DHC_APPLY(IMG, MODEL, ROI, THREADS) uses
  %   THREADS threads (0, the default: one per core; the labels are the same
  %   for every number).  A model learnt on floating-point values needs the
  %   values scaled by model.scale and rounded first.
  %
  %   See also dhc_model_load, dhc.
  if nargin < 2 || nargin > 4
    error('dhc:usage', 'dhc_apply: usage: labels = dhc_apply(img, model, roi, threads)');
  end
  if ischar(model)
    model = dhc_model_load(model);
  end
  if ~isstruct(model) || ~isfield(model, 'json')
    error('dhc:usage', 'dhc_apply: MODEL must come from dhc_model_load (or be a model file''s path)');
  end
  if nargin < 3
    roi = [];
  end
  if nargin < 4
    threads = [];
  end
  if ~isnumeric(img) && ~islogical(img)
    error('dhc:badArgument', 'dhc_apply: IMG must be a numeric array');
  end
  labels = dhc('apply', double(img), model.json, double(roi), double(threads));
end
