#include "frontend/Segmentation.h"

#include <algorithm>
#include <set>

#include "driver/DHC.h"
#include "driver/DHC_IN.h"
#include "base/InputError.h"
#include "settings/DHC_SET.h"
#include "settings/Workers.h"

namespace dhc {
namespace {

// Whether pixel (r, c) is in the region of interest: its mask value is 1 or,
// without a mask, its initial label is positive (every pixel without either).
bool selected(int** mask, int** init, int r, int c) {
    return mask != nullptr ? mask[r][c] == 1 : init == nullptr || init[r][c] > 0;
}

int distinctNonZero(const LabelRoi& roi) {
    std::set<int> labels;
    for (int k = 0; k < roi.count; ++k)
        if (roi.data[k] != 0) labels.insert(roi.data[k]);
    return static_cast<int>(labels.size());
}

int lowestLabel(const LabelRoi& roi) {
    int lowest = 0;
    for (int k = 0; k < roi.count; ++k) lowest = std::min(lowest, roi.data[k]);
    return lowest;
}

// A rows x cols plane of one value, freed on scope exit.
struct FilledPlane {
    std::vector<int> cells;
    std::vector<int*> rowPointers;
    FilledPlane(int rows, int cols, int value)
        : cells(static_cast<size_t>(rows) * static_cast<size_t>(cols), value),
          rowPointers(static_cast<size_t>(rows)) {
        for (int r = 0; r < rows; ++r)
            rowPointers[static_cast<size_t>(r)] = &cells[static_cast<size_t>(r) * static_cast<size_t>(cols)];
    }
    int** get() { return rowPointers.data(); }
};

}  // namespace

void requireGroundTruth(bool supervised, bool given, const std::string& switchText, const std::string& howToGive) {
    if (supervised && !given)
        throw InputError(kExitInput, "supervised mode (" + switchText + ") needs a ground truth: " + howToGive,
                         "dhc:missingProperty");
}

PreparedRun prepareRun(int rows, int cols, int bands, int*** cube, int** mask, int** init, int** gt,
                       const DHC_SET& settings, const RunNames& names, int threads) {
    dhc::Workers team(threads);
    dhc::UseWorkers useTeam(team);
    const bool supervised = settings.supervisedMode;
    std::unique_ptr<FilledPlane> ownInit, ownMask;
    if (init == nullptr) {
        ownInit = std::make_unique<FilledPlane>(rows, cols, 1);
        init = ownInit->get();
    }
    const bool maskGiven = mask != nullptr;
    if (!maskGiven) {
        ownMask = std::make_unique<FilledPlane>(rows, cols, 0);
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) ownMask->get()[r][c] = selected(nullptr, init, r, c) ? 1 : 0;
        mask = ownMask->get();
    }

    PreparedRun run;
    run.roi.reset(buildRoi(rows, cols, bands, cube, mask, 1, true));
    if (run.roi->count == 0)
        throw InputError(kExitInput,
                         maskGiven ? "the region of interest is empty: no mask value is 1"
                                   : "the region of interest is empty: no pixel has a positive initial label",
                         "dhc:emptyRoi");
    checkAgainstRegion(settings, run.roi->count, names.settings);
    if (supervised) {
        run.gt.reset(run.roi->extractLabROI(gt, 0, true));
        // The label statistics index their tables by label from 0 up: a
        // negative label writes before them.
        const int lowest = lowestLabel(*run.gt);
        if (lowest < 0)
            throw InputError(kExitInput,
                             names.gt + " holds the negative label " + std::to_string(lowest) +
                                 " in the region of interest; class labels are positive, 0 marks "
                                 "unlabelled pixels",
                             "dhc:badGroundTruth");
        // The class models are indexed by the ground truth's classes: any
        // other count makes the core read past its models.
        const int classes = distinctNonZero(*run.gt);
        if (classes != settings.numberOfClasses)
            throw InputError(kExitInput,
                             names.gt + " holds " + std::to_string(classes) +
                                 (classes == 1 ? " class" : " classes") +
                                 " (distinct non-zero labels) in the region of interest, but " +
                                 names.classCount + " is " + std::to_string(settings.numberOfClasses),
                             "dhc:badGroundTruth");
    } else {
        run.initLabels.reset(run.roi->extractLabROI(init, 0, true));
    }
    return run;
}

DHC_OUT runSegmentation(const PreparedRun& run, DHC_SET& settings, int threads) {
    DHC_IN in;
    in.threads = threads;
    // The front ends do not read the region's values or the initial labels
    // after the run, and the root workspace holds its own copy of both.
    in.releaseInputs = true;
    in.mode = settings.supervisedMode ? 1 : 0;
    in.source = 0;
    in.roi = run.roi.get();
    in.settings = &settings;
    in.initLabels = run.initLabels.get();
    in.gt = run.gt.get();
    return DHC::dhc(in);
}

bool hasTreeOutput(const DHC_SET& settings) {
    return !settings.fragmentation && (settings.supervisedMode || !settings.splitwiseDisconnect);
}

bool hasFragmentOutput(const DHC_SET& settings) {
    return settings.fragmentation && !settings.splitwiseDisconnect;
}

std::vector<int> fullFrame(const LabelRoi& values, int rows, int cols) {
    std::vector<int> plane(static_cast<size_t>(rows) * static_cast<size_t>(cols), 0);
    for (int k = 0; k < values.count; ++k) {
        const size_t r = static_cast<size_t>(values.coords[k].x) + static_cast<size_t>(values.minRow);
        const size_t c = static_cast<size_t>(values.coords[k].y) + static_cast<size_t>(values.minCol);
        plane[r * static_cast<size_t>(cols) + c] = values.data[static_cast<size_t>(k) * values.bands];
    }
    return plane;
}

std::vector<int> maskWithoutNodata(int rows, int cols, int** mask, int** init,
                                   const std::vector<uint8_t>& valid) {
    const size_t width = static_cast<size_t>(cols);
    std::vector<int> out(static_cast<size_t>(rows) * width, 0);
    bool any = false;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const bool inside = selected(mask, init, r, c);
            const size_t k = static_cast<size_t>(r) * width + static_cast<size_t>(c);
            out[k] = inside && valid[k] ? 1 : 0;
            any = any || out[k] == 1;
        }
    if (!any)
        throw InputError(kExitInput, "the region of interest is empty once the nodata pixels are taken out");
    return out;
}

}  // namespace dhc
