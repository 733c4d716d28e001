#include "driver/FinishedRun.h"

#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "driver/DHC.h"
#include "driver/DHC_OUT.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"
#include "workspace/WSReport.h"

namespace dhc {

bool FinishedRun::hasTree() const {
    return out_.dhc != nullptr && out_.dhc->tree != nullptr && out_.labelRoi != nullptr;
}

std::vector<std::unique_ptr<WSReport>> FinishedRun::reports() const {
    int n = 0;
    std::unique_ptr<WSReport*[]> raw(out_.dhc->reportAllWSs(n));
    std::vector<std::unique_ptr<WSReport>> reports;
    reports.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) reports.emplace_back(raw[i]);
    return reports;
}

std::vector<int> FinishedRun::splitSequence() const {
    int n = 0;
    std::unique_ptr<int[]> sequence(out_.dhc->extractSplitSequence(n));
    return std::vector<int>(sequence.get(), sequence.get() + n);
}

int FinishedRun::rootLabel() const {
    return out_.dhc->tree->root->label;
}

const ROI<int, xy>& FinishedRun::points() const {
    return *out_.labelRoi;
}

int FinishedRun::leafLabelAt(int k) const {
    // The leaves are painted on the root region's map, whose frame is the box
    // of the region of interest.
    const PottsMapRegion* region = out_.dhc->tree->root->data->root;
    const xy p = out_.labelRoi->coords[k];
    return region->map[p.x + region->pad][p.y + region->pad];
}

const FinalModel* FinishedRun::finalModel() const {
    return out_.dhc->finalModel.get();
}

const std::string& FinishedRun::stopReason() const {
    return out_.dhc->stopReason;
}

}  // namespace dhc
