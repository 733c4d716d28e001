% dhc_model_load reads the tool's model as the tool does, dhc_apply labels as
% `dhc apply` does (with and without a mask), and bad models and calls are
% refused with an error, the session surviving.

tool = getenv('DHC_TOOL');
file = @(name) fullfile(getenv('DHC_TEST_TMP'), ['model_' name]);

[img, truth] = dhc_quadrants(30, 34, 3);
dhc_write_hraw(file('img.hraw'), img);
sets = ' --set UNSUPERVISED_MODE_CONF.SplitGainThreshold=0 --set UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=4 --set UNSUPERVISED_MODE_CONF.MinRegionArea=4';
status = system([tool ' segment ' file('img.hraw') ' -o ' file('seg.hraw') ' -q --model ' file('m.json') sets]);
dhc_check(status == 0, 'dhc segment --model failed');

model = dhc_model_load(file('m.json'));
dhc_check(model.bands == size(img, 3), 'bands %d', model.bands);
k = numel(model.labels);
dhc_check(k == 4 && isequal(size(model.means), [k size(img, 3)]), 'leaves');
dhc_check(isequal(size(model.covariances), [size(img, 3) size(img, 3) k]), 'covariances');
dhc_check(issorted(model.labels) && isempty(model.scale) && isempty(model.nodata), 'labels, scale, nodata');
for i = 1:k
  c = model.covariances(:, :, i);
  dhc_check(isequal(c, c') && all(eig(c) > 0), 'covariance %d', i);
end

% The same labels as the tool, with every thread count.
status = system([tool ' apply ' file('img.hraw') ' --model ' file('m.json') ' -o ' file('a.hraw') ' -q']);
dhc_check(status == 0, 'dhc apply failed');
expected = dhc_read_hraw(file('a.hraw'));
dhc_check(isequal(dhc_apply(img, model), expected), 'dhc_apply differs from dhc apply');
dhc_check(isequal(dhc_apply(img, file('m.json'), [], 2), expected), 'dhc_apply by path, 2 threads');

roi = ones(size(truth));
roi(5:12, 7:20) = 0;
roi(20, :) = 2;
dhc_write_hraw(file('roi.hraw'), roi);
system([tool ' apply ' file('img.hraw') ' --model ' file('m.json') ' -o ' file('am.hraw') ' -q --mask ' file('roi.hraw')]);
masked = dhc_apply(img, model, roi);
dhc_check(isequal(masked, dhc_read_hraw(file('am.hraw'))) && all(masked(roi ~= 1) == 0), 'masked labels');

% Bad models (which ones the model reader's tests say): an error naming the
% model, and the session goes on.
f = fopen(file('bad.json'), 'w');
fwrite(f, strrep(fileread(file('m.json')), '"formatVersion": 1', '"formatVersion": 7'));
fclose(f);
dhc_expect_error('dhc:badModel', 'newer', 1, @dhc_model_load, file('bad.json'));
dhc_expect_error('dhc:badModel', 'bands', 1, @dhc_apply, img(:, :, 1:2), model);
dhc_expect_error('dhc:sizeMismatch', 'mask', 1, @dhc_apply, img, model, ones(3));
dhc_expect_error('dhc:badInput', 'cannot open model', 1, @dhc_model_load, file('missing.json'));
dhc_check(isequal(dhc_apply(img, model), expected), 'a call after the errors');
