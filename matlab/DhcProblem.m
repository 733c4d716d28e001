classdef DhcProblem
  % DhcProblem  The image and maps of one dhc run: the first argument of dhc.
  %
  %   p = DhcProblem(data)
  %   p = DhcProblem(data, initSeg, roi, gt)
  %
  %   data     R x C x B image (B bands; an R x C array is one band).  Values
  %            are used as integers, truncated toward zero.
  %   initSeg  R x C initial segmentation (unsupervised runs), or [] for one
  %            initial region.  Pixels labelled 0 or below are left out of the
  %            region of interest when roi is [].
  %   roi      R x C mask: pixels equal to 1 are segmented, or [] to use
  %            initSeg > 0 (the whole frame when initSeg is [] as well).
  %   gt       R x C ground truth, read in supervised runs only.
  %   threads  threads the run may use: 0 (the default) for one per core.
  %            The results are the same for every number.
  %
  %   Any numeric or logical type is accepted and stored as double.  A plain
  %   struct with the fields data, initSeg, roi and gt (and optionally
  %   threads) works as well.
  %
  %   See also DhcSettings, dhc.

  properties
    data = [];
    initSeg = [];
    roi = [];
    gt = [];
    threads = 0;
  end

  methods
    function obj = DhcProblem(data, initSeg, roi, gt)
      if nargin >= 1, obj.data = data; end
      if nargin >= 2, obj.initSeg = initSeg; end
      if nargin >= 3, obj.roi = roi; end
      if nargin >= 4, obj.gt = gt; end
    end

    function obj = set.data(obj, v)
      obj.data = dhc_as_double(v, 'data');
    end
    function obj = set.initSeg(obj, v)
      obj.initSeg = dhc_as_double(v, 'initSeg');
    end
    function obj = set.roi(obj, v)
      obj.roi = dhc_as_double(v, 'roi');
    end
    function obj = set.gt(obj, v)
      obj.gt = dhc_as_double(v, 'gt');
    end
  end
end

function v = dhc_as_double(v, name)
  if ~(isnumeric(v) || islogical(v)) || ~isreal(v)
    error('dhc:badProperty', '%s must be a real numeric or logical array', name);
  end
  v = double(v);
end
