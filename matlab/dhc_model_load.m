function model = dhc_model_load(path)
  % DHC_MODEL_LOAD  Read a dhc model (written by `dhc segment --model`).
  %
  %   MODEL = DHC_MODEL_LOAD(PATH) reads and checks the model file PATH, as
  %   `dhc apply` does: a malformed model, a newer format, numbers that are
  %   not finite or a covariance that is not positive definite raise an
  %   error (identifier dhc:badModel) naming the problem.  MODEL has the
  %   fields
  %     formatVersion, bands, beta  the format, the band count, the Potts beta
  %     radius       how far (pixels) a label of dhc_apply can see
  %     labels       K x 1, the leaves' labels, ascending
  %     means        K x bands, the leaves' means
  %     covariances  bands x bands x K, the leaves' covariances
  %     scale        the factor of floating-point values ([] for integers)
  %     nodata       the nodata value that replaced the file's ([] for none)
  %     json         the model's text (what dhc_apply uses)
  %
  %   Example:
  %     model = dhc_model_load('model.json');
  %     labels = dhc_apply(img, model);
  %
  %   See also dhc_apply.
  if nargin ~= 1 || ~ischar(path)
    error('dhc:usage', 'dhc_model_load: usage: model = dhc_model_load(path)');
  end
  model = dhc('model_load', path);
end
