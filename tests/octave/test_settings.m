% dhcConfig, through a probe module that returns the settings record it makes:
% the defaults equal examples/default.ini; flags read value ~= 0, integers
% truncate toward zero, other numbers are copied; the blind limits override
% "active"; a supervised class structure is read and checked.

ini = fullfile(getenv('DHC_SOURCE_DIR'), 'examples', 'default.ini');
defaults = dhc_config_probe(DhcSettings());
fromIni = dhc_config_probe(ini);
names = fieldnames(fromIni);
differ = names(cellfun(@(n) ~isequal(defaults.(n), fromIni.(n)), names));
dhc_check(isempty(differ), 'DhcSettings() and default.ini differ in %s', strjoin(differ', ', '));

% Property, value given, record field, value expected.  Values differ from the
% defaults and from each other where they can, so a mixed-up field shows.
conversions = {
  'fragmentation', 2, 'fragmentation', 1
  'unsupSet.variableMultiplicity', -0.5, 'variableMultiplicity', 1
  'unsupSet.balancedTree', true, 'balancedTree', 1
  'unsupSet.growDepth', 3.7, 'growDepth', 3
  'unsupSet.multiplicity', -2.9, 'multiplicity', -2
  'unsupSet.classicSet.splitGainThreshold', 0.125, 'splitGainThreshold', 0.125
  'unsupSet.classicSet.maxNumberOfClasses', 3.9, 'maxNumberOfClasses', 3
  'unsupSet.classicSet.minSplitArea', 12.5, 'minSplitArea', 12.5
  'unsupSet.blindSet.metric', 4.99, 'metric', 4
  'unsupSet.blindSet.distorsionThreshold', 0.75, 'distorsionThreshold', 0.75
  'unsupSet.blindSet.active', 1, 'blindActive', 0   % no limit set
  'engineSet.adaptive', 1, 'adaptive', 1
  'engineSet.betaMin', 0.25, 'betaMin', 0.25
  'engineSet.betaMax', 1.25, 'betaMax', 1.25
  'engineSet.betaBound', 2.5, 'betaBound', 2.5
  'engineSet.rangeBandwidth', 7.5, 'rangeBandwidth', 7.5
  'engineSet.spatialBandwidth', 3.25, 'spatialBandwidth', 3.25
  'engineSet.autoAdjustkNN', -1.5, 'autoAdjustkNN', -1
  'engineSet.skipLast', 0.2, 'skipLast', 0.2
  'engineSet.tolerance', 1e-4, 'tolerance', 1e-4
  'engineSet.kernelType', int8(1), 'kernelType', 1
};
s = DhcSettings();
expected = defaults;
for k = 1:rows(conversions)
  path = strsplit(conversions{k, 1}, '.');
  s = setfield(s, path{:}, conversions{k, 2});
  expected.(conversions{k, 3}) = conversions{k, 4};
end
r = dhc_config_probe(s);
differ = names(cellfun(@(n) ~isequal(r.(n), expected.(n)), names));
dhc_check(isempty(differ), 'converted values differ in %s', strjoin(differ', ', '));

% Any blind limit makes the limits active although "active" is 0.
limits = {'depth', 'blindDepth'; 'MSE', 'blindMSE'; 'area', 'blindArea'};
for k = 1:rows(limits)
  t = s;
  t.unsupSet.blindSet.active = 0;
  t.unsupSet.blindSet.(limits{k, 1}) = 5;
  r = dhc_config_probe(t);
  dhc_check(r.blindActive == 1 && r.(limits{k, 2}) == 5, 'active = 0 with %s = 5', limits{k, 1});
end

% Supervised: the structure is read from rows or columns, truncated as well.
t = s;
t.supervisedMode = 1;
t.supSet.numberOfClasses = 3.5;
t.supSet.structureLevels = [2; 2; 1];
t.supSet.structurePaths = [0.9 0 0 1.5 1];
r = dhc_config_probe(t);
dhc_check(r.supervisedMode == 1 && r.numberOfClasses == 3, 'supervised class count');
dhc_check(isequal(r.structureLevels, [2 2 1]) && isequal(r.structurePaths, [0 0 0 1 1]), 'structure arrays');
% A structure that would make the driver read past its arrays is refused.
t.supSet.structurePaths = [0 1 1 0];
dhc_expect_error('dhc:badStructure', 'numberOfClasses non-negative entries', 1, @dhc_config_probe, t);
t.supSet.structureLevels = [2 2];
dhc_expect_error('dhc:badStructure', 'numberOfClasses non-negative entries', 1, @dhc_config_probe, t);

% Plain structs work in place of the objects; a missing property is named.
warning('off', 'Octave:classdef-to-struct');
u = struct(s);
u.engineSet = struct(s.engineSet);
dhc_check(isequal(dhc_config_probe(u), dhc_config_probe(s)), 'structs read as objects');
u.engineSet = rmfield(u.engineSet, 'tolerance');
dhc_expect_error('dhc:missingProperty', '"tolerance"', 1, @dhc_config_probe, u);

printf('test_settings: passed\n');
