% dhc: hierarchical segmentation of multiband images (MATLAB/Octave toolbox)
%
% Segmenting
%   dhc                 - the MEX module: [out, summary, reports] = dhc(problem, settings)
%   DhcProblem          - the image and its maps (initSeg, roi, gt)
%
% Settings (defaults equal examples/default.ini)
%   DhcSettings         - the settings of one run
%   DhcUnsupSettings    - unsupervised splitting (settings.unsupSet)
%   DhcClassicSettings  - gain-driven splitting (settings.unsupSet.classicSet)
%   DhcBlindSettings    - blind splitting (settings.unsupSet.blindSet)
%   DhcSupSettings      - supervised class structure (settings.supSet)
%   DhcEngineSettings   - Potts model and mean shift (settings.engineSet)
%
% The tree of regions
%   dhc_cut             - the label map after any number of splits (any scale of one run)
%
% Models: learn once, label anywhere
%   dhc_model_load      - read a model written by `dhc segment --model`
%   dhc_apply           - label an image with a model
%
% Pictures
%   dhc_palette         - the colours of the tool's label pictures
%   dhc_label_image     - a label map as the tool's RGB picture
%
% Building and examples
%   dhc_build           - compile the MEX module from inside MATLAB or Octave
%   dhc_example         - segments a synthetic image and shows the results
