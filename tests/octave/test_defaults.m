% The classdef defaults are the shipped defaults: DhcSettings() gives the same
% settings record as examples/default.ini read by the ini reader.

ini = fullfile(getenv('DHC_SOURCE_DIR'), 'examples', 'default.ini');
dhc_check(exist(ini, 'file') == 2, 'missing %s', ini);
fromObject = dhc_config_probe(DhcSettings());
fromIni = dhc_config_probe(ini);
names = fieldnames(fromIni);
for i = 1:numel(names)
  dhc_check(isequal(fromObject.(names{i}), fromIni.(names{i})), '%s: DhcSettings %s, default.ini %s', ...
            names{i}, mat2str(fromObject.(names{i})), mat2str(fromIni.(names{i})));
end
% The informative "active" switch agrees with the limits it stands for.
b = DhcSettings().unsupSet.blindSet;
dhc_check(b.active == (b.depth ~= 0 || b.MSE ~= 0 || b.area ~= 0), 'blindSet.active matches the limits');

% The objects are independent values: changing one leaves fresh ones alone.
s = DhcSettings();
s.unsupSet.classicSet.maxNumberOfClasses = 99;
dhc_check(DhcSettings().unsupSet.classicSet.maxNumberOfClasses == fromIni.maxNumberOfClasses, 'fresh defaults');

printf('test_defaults: passed\n');
