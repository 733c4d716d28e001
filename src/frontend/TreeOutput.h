#pragma once
// The tree a run leaves behind, as the front ends hand it out: one report per
// region and the split summary (the MATLAB/Octave "summary" output, the Python
// package's Result.classes, split_order and offspring).

#include <vector>

class DHC;
struct WSReport;

namespace dhc {

// The reports of every node of a run's tree, in the tree's node-list order;
// owns the reports.
class RegionReports {
  public:
    explicit RegionReports(DHC& driver);
    ~RegionReports();
    RegionReports(const RegionReports&) = delete;
    RegionReports& operator=(const RegionReports&) = delete;

    int size() const { return n_; }
    const WSReport& operator[](int i) const { return *reports_[i]; }

  private:
    WSReport** reports_ = nullptr;
    int n_ = 0;
};

// Leaves and splits of the tree.
struct SplitSummary {
    std::vector<int> classes;     // labels of the leaves, in report order
    std::vector<int> splitOrder;  // labels of the split regions, in the driver's split sequence
    // splits x classes, row-major: row k lists the leaves below split k,
    // left-aligned, zero-padded.
    std::vector<int> offspring;
};

SplitSummary summarizeSplits(DHC& driver, const RegionReports& reports);

}  // namespace dhc
