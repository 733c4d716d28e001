#pragma once
// One segmentation run as every front end makes it (the command-line tool, the
// MEX module, the Python package): the region of interest built from the image
// and its optional mask, initial segmentation and ground truth, the checks the
// core relies on, the run itself, and its results as full-frame maps.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "data/ROI.h"
#include "data/xy.h"
#include "driver/DHC_OUT.h"
#include "frontend/SettingsCheck.h"

struct DHC_SET;

namespace dhc {

using LabelRoi = ROI<int, xy>;

// How messages name the inputs, so that each front end speaks its own terms.
struct RunNames {
    std::string gt = "ground truth";             // e.g. "ground truth \"g.hraw\"", "\"gt\""
    std::string classCount = "NumberOfClasses";  // the setting the class count is compared with
    SettingNames settings = iniName;             // how the settings are named
};

// The regions of interest of one run.  Once it exists the caller may free the
// full-frame inputs it was built from: the core holds copies.
struct PreparedRun {
    std::unique_ptr<LabelRoi> roi;         // image values over the region of interest, shuffled
    std::unique_ptr<LabelRoi> initLabels;  // unsupervised: initial label of every point
    std::unique_ptr<LabelRoi> gt;          // supervised: ground-truth label of every point
};

// A supervised run needs a ground truth: refused without one (InputError,
// "dhc:missingProperty"), in the front end's terms: "supervised mode
// (SupervisedMode=1) needs a ground truth: --gt GT.hraw", where switchText is
// how the front end turns supervised mode on and howToGive how it takes a
// ground truth.
void requireGroundTruth(bool supervised, bool given, const std::string& switchText, const std::string& howToGive);

// Builds the regions of interest exactly as the MATLAB/Octave gateway always
// has: without init every pixel starts with label 1; without mask the region is
// the set of pixels whose initial label is positive; with mask it is the set of
// pixels whose mask value is 1.  cube is [band][row][col]; mask, init and gt are
// rows x cols row-pointer planes, null when not given (not owned).  Throws an
// InputError (kExitInput) for an empty region ("dhc:emptyRoi"), a ground truth
// the core cannot use ("dhc:badGroundTruth": negative labels, another number
// of classes) or settings the region cannot satisfy (checkAgainstRegion).
// The shuffle of the region of interest uses up to `threads` threads (0: one
// per core), with the same order for every number.
PreparedRun prepareRun(int rows, int cols, int bands, int*** cube, int** mask, int** init, int** gt,
                       const DHC_SET& settings, const RunNames& names = RunNames(), int threads = 0);

// Runs the driver on a prepared run (progress lines through DHC::setProgress)
// with up to `threads` threads (0: one per core; checkThreads).
DHC_OUT runSegmentation(const PreparedRun& run, DHC_SET& settings, int threads = 0);

// Whether a run with these settings has a tree to report (no cutting into
// pieces) and a fragment map to give.
bool hasTreeOutput(const DHC_SET& settings);
bool hasFragmentOutput(const DHC_SET& settings);

// The full-frame map of one value per ROI point, 0 elsewhere, row-major: point
// k lies at (x + minRow, y + minCol).
std::vector<int> fullFrame(const LabelRoi& values, int rows, int cols);

// The mask of a run whose image has nodata pixels (valid[k] == 0, row-major):
// the region prepareRun would build from mask and init (either may be null),
// without those pixels, as a row-major rows x cols plane of 0 and 1.  Throws
// an InputError (kExitInput) when no pixel is left.
std::vector<int> maskWithoutNodata(int rows, int cols, int** mask, int** init,
                                   const std::vector<uint8_t>& valid);

}  // namespace dhc
