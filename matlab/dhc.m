function varargout = dhc(varargin)
% dhc  Hierarchical segmentation of a multiband image (MEX module).
%
%   [out, summary, reports] = dhc(problem, settings)
%   out = dhc(problem, settings)     runs with fragmentation or
%                                    splitwiseDisconnect set
%
%   problem   DhcProblem (or a struct with the same fields): the R x C x B
%             image data, and optionally initSeg, roi, gt and threads (the
%             number of threads to use; the results do not depend on it).
%   settings  DhcSettings (or a struct tree with the same fields); the
%             defaults equal examples/default.ini.
%
%   out.segmentation  R x C class label of every pixel, 0 outside the
%                     region of interest.
%   out.fragmentation R x C 8-connected fragments of the classes when
%                     settings.fragmentation is set, else empty.
%   summary           NClass (number of leaves), Classes (their labels),
%                     NSplit, SplitOrder (the split regions, a parent before
%                     its children), OffspringMat (row k: the leaves under
%                     SplitOrder(k), padded with zeros).
%   reports           one element per region of the tree: label, depth,
%                     path, nChildren, children, offspCard, offspring, split,
%                     isTerminal, beta, edges, textureBased, sgBasic, sgTex,
%                     sgSpec, area, area_k, TlkE, bands, mi (mean), sigma
%                     (covariance).
%
%   Errors are MATLAB/Octave errors with an identifier (dhc:fatal:m20,
%   dhc:badProperty, dhc:sizeMismatch, ...); the session goes on after them.
%
%   This file holds the help text only: the work is done by the compiled
%   module (dhc.mex, dhc.mexa64, ...), which takes precedence over it.  Build
%   the module with dhc_build.
%
%   Example:
%     img = rand(64, 64, 3) * 100;
%     [out, summary] = dhc(DhcProblem(img), DhcSettings());
%     image(dhc_label_image(out.segmentation)); axis image;
%
%   See also dhc_build, DhcProblem, DhcSettings, dhc_palette,
%   dhc_label_image, dhc_example.

  error('dhc:notBuilt', ...
        'dhc: the MEX module is not built; run dhc_build in %s (or build it with CMake) and add its folder to the path', ...
        fileparts(mfilename('fullpath')));
end
