% dhcConfig: the settings object's property tree becomes the settings record
% with bools as value ~= 0, ints truncated toward zero, doubles copied; the
% "active" property is overridden by the blind limits; the class structure is
% read in supervised runs only.

s = DhcSettings();
s.supervisedMode = 0;
s.fragmentation = 2;                          % bool: non-zero
s.unsupSet.variableMultiplicity = -0.5;       % bool: non-zero
s.unsupSet.blind = 0;
s.unsupSet.balancedTree = 1;
s.unsupSet.growDepth = 3.7;                   % int: 3
s.unsupSet.doubleSplit = 0;
s.unsupSet.splitwiseDisconnect = 1;
s.unsupSet.multiplicity = -2.9;               % int: -2
s.unsupSet.classicSet.splitGainThreshold = 0.125;
s.unsupSet.classicSet.maxNumberOfClasses = 3.9;   % int: 3
s.unsupSet.classicSet.minSplitArea = 12.5;
s.unsupSet.blindSet.metric = 4.99;            % int: 4
s.unsupSet.blindSet.distorsionThreshold = 0.75;
s.unsupSet.blindSet.active = 1;
s.unsupSet.blindSet.depth = 0;
s.unsupSet.blindSet.MSE = 0;
s.unsupSet.blindSet.area = 0;
s.supSet.numberOfClasses = 2;
s.supSet.structureLevels = [1 1];
s.supSet.structurePaths = [0 1];
s.engineSet.adaptive = 0;
s.engineSet.betaMin = 0.25;
s.engineSet.betaMax = 1.5;
s.engineSet.betaBound = 2.5;
s.engineSet.rangeBandwidth = 7.5;
s.engineSet.spatialBandwidth = 3.25;
s.engineSet.autoAdjustkNN = -1.5;             % int: -1
s.engineSet.skipLast = 0.2;
s.engineSet.tolerance = 1e-4;
s.engineSet.kernelType = 1.9;                 % int: 1

r = dhc_config_probe(s);
expected = struct('maxLabels', 1000000, 'supervisedMode', 0, 'variableMultiplicity', 1, ...
  'splitGainThreshold', 0.125, 'maxNumberOfClasses', 3, 'minSplitArea', 12.5, 'blind', 0, 'metric', 4, ...
  'distorsionThreshold', 0.75, 'balancedTree', 1, 'growDepth', 3, 'doubleSplit', 0, 'fragmentation', 1, ...
  'splitwiseDisconnect', 1, 'blindActive', 0, 'blindDepth', 0, 'blindMSE', 0, 'blindArea', 0, ...
  'numberOfClasses', 0, 'structureLevels', [], 'structurePaths', [], 'multiplicity', -2, 'adaptive', 0, ...
  'betaMin', 0.25, 'betaMax', 1.5, 'betaBound', 2.5, 'rangeBandwidth', 7.5, 'spatialBandwidth', 3.25, ...
  'autoAdjustkNN', -1, 'skipLast', 0.2, 'tolerance', 1e-4, 'kernelType', 1);
names = fieldnames(expected);
for i = 1:numel(names)
  dhc_check(isequal(r.(names{i}), expected.(names{i})), '%s = %g, expected %g', names{i}, ...
            r.(names{i}), expected.(names{i}));
end

% "active" is overridden both ways by the limits.
for limit = {'depth', 'MSE', 'area'}
  t = s;
  t.unsupSet.blindSet.active = 0;
  t.unsupSet.blindSet.(limit{1}) = 5;
  r = dhc_config_probe(t);
  dhc_check(r.blindActive == 1, 'active = 0 with %s = 5 gives blindActive', limit{1});
end
r = dhc_config_probe(t);
dhc_check(r.blindDepth == 0 && r.blindMSE == 0 && r.blindArea == 5, 'blind limits copied');

% Supervised: the structure is read (rows or columns), and its arrays too.
t = s;
t.supervisedMode = 1;
t.supSet.numberOfClasses = 3.5;
t.supSet.structureLevels = [2; 2; 1];
t.supSet.structurePaths = [0 0 0 1 1];
r = dhc_config_probe(t);
dhc_check(r.supervisedMode == 1 && r.numberOfClasses == 3, 'supervised class count');
dhc_check(isequal(r.structureLevels, [2 2 1]) && isequal(r.structurePaths, [0 0 0 1 1]), 'structure arrays');
% Values of the structure are truncated toward zero as well.
t.supSet.structurePaths = [0.9 0 0 1.5 1];
r = dhc_config_probe(t);
dhc_check(isequal(r.structurePaths, [0 0 0 1 1]), 'structure paths truncated');
% Unsupervised runs never look at supSet's values.
t = s;
t.supSet.structureLevels = 'not read';
t.supSet.numberOfClasses = [];
r = dhc_config_probe(t);
dhc_check(r.numberOfClasses == 0 && isempty(r.structureLevels), 'supSet ignored in unsupervised runs');

% Logical and integer property values are read as numbers.
t = s;
t.unsupSet.classicSet.maxNumberOfClasses = int8(7);
t.unsupSet.blind = true;
r = dhc_config_probe(t);
dhc_check(r.maxNumberOfClasses == 7 && r.blind == 1, 'integer and logical values');

% Plain structs work in place of every object of the tree.
warning('off', 'Octave:classdef-to-struct');
u = struct(s);
u.unsupSet = struct(s.unsupSet);
u.unsupSet.classicSet = struct(s.unsupSet.classicSet);
u.unsupSet.blindSet = struct(s.unsupSet.blindSet);
u.supSet = struct(s.supSet);
u.engineSet = struct(s.engineSet);
dhc_check(isequal(dhc_config_probe(u), dhc_config_probe(s)), 'structs read as objects');
% A missing property is named in the error.
u.engineSet = rmfield(u.engineSet, 'tolerance');
dhc_expect_error(@() dhc_config_probe(u), 'dhc:missingProperty', '"tolerance"');
u.unsupSet = rmfield(u.unsupSet, 'blindSet');
dhc_expect_error(@() dhc_config_probe(u), 'dhc:missingProperty', '"blindSet"');

% A structure that would make the driver read past its arrays is refused.
t = s;
t.supervisedMode = 1;
t.supSet.numberOfClasses = 3;
t.supSet.structureLevels = [1 1];
dhc_expect_error(@() dhc_config_probe(t), 'dhc:badStructure');
t.supSet.structureLevels = [1 1 2];
t.supSet.structurePaths = [0 1 2];
dhc_expect_error(@() dhc_config_probe(t), 'dhc:badStructure');

printf('test_settings: passed\n');
