classdef DhcSupSettings
  % DhcSupSettings  Supervised class structure (DhcSettings.supSet), read only
  % when DhcSettings.supervisedMode is set.
  %
  %   numberOfClasses  (default 0; ini NumberOfClasses) supervised: number of
  %                    classes, equal to the number of distinct non-zero
  %                    labels of the ground truth.
  %   structureLevels  (default []; ini StructureLevels) supervised: per
  %                    class, the length of its path (vector).
  %   structurePaths   (default []; ini StructurePaths) supervised: all class
  %                    paths concatenated (vector), each the child indices
  %                    from the root down to the class.
  %
  %   Example: three classes, two under the first child of the root:
  %     numberOfClasses = 3; structureLevels = [2 2 1];
  %     structurePaths = [0 0  0 1  1];
  %
  %   See also DhcSettings, DhcProblem.

  properties
    numberOfClasses = 0;
    structureLevels = [];
    structurePaths = [];
  end
end
