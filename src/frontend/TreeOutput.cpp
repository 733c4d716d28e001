#include "frontend/TreeOutput.h"

#include <memory>

#include "driver/DHC.h"
#include "workspace/WSReport.h"

namespace dhc {

RegionReports::RegionReports(DHC& driver) {
    reports_ = driver.reportAllWSs(n_);
}

RegionReports::~RegionReports() {
    for (int i = 0; i < n_; ++i) delete reports_[i];
    delete[] reports_;
}

SplitSummary summarizeSplits(DHC& driver, const RegionReports& reports) {
    SplitSummary s;
    for (int i = 0; i < reports.size(); ++i)
        if (reports[i].nChildren == 0) s.classes.push_back(reports[i].WSLab);
    const size_t nClasses = s.classes.size();

    int nSplit = 0;
    const std::unique_ptr<int[]> order(driver.extractSplitSequence(nSplit));
    s.splitOrder.assign(order.get(), order.get() + (nSplit > 0 ? nSplit : 0));
    s.offspring.assign(s.splitOrder.size() * nClasses, 0);
    for (size_t k = 0; k < s.splitOrder.size(); ++k)
        for (int i = 0; i < reports.size(); ++i) {
            const WSReport& rep = reports[i];
            if (rep.WSLab != s.splitOrder[k]) continue;
            for (size_t j = 0; j < static_cast<size_t>(rep.nOffspring) && j < nClasses; ++j)
                s.offspring[k * nClasses + j] = rep.offspring[j];
            break;
        }
    return s;
}

}  // namespace dhc
