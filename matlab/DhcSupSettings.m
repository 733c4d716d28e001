classdef DhcSupSettings
  % DhcSupSettings  Supervised class structure (DhcSettings.supSet), read only
  % when DhcSettings.supervisedMode is set.
  %
  %   numberOfClasses  number of classes (leaves of the class structure)
  %   structureLevels  per class, the length of its path (vector)
  %   structurePaths   all class paths concatenated (vector): the child
  %                    indices from the root down to the class
  %
  %   Example: three classes, two under the first child of the root:
  %     numberOfClasses = 3; structureLevels = [2 2 1];
  %     structurePaths = [0 0  0 1  1];

  properties
    numberOfClasses = 0;
    structureLevels = [];
    structurePaths = [];
  end
end
