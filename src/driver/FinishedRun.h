#pragma once
// What a finished run offers the products built on its tree (cuts, the tree
// as JSON, pictures, models): the report of every region, the ranked split
// sequence, the leaf label the driver painted under every point of the region
// of interest, the final model and why the splitting stopped.
//
// A read-only view onto a DHC_OUT, which owns the run and must outlive it.
// The products never need the driver's tree, workspaces or label planes.

#include <memory>
#include <string>
#include <vector>

#include "data/xy.h"

template <typename T, typename C>
struct ROI;
struct DHC_OUT;
struct WSReport;

namespace dhc {

struct FinalModel;

class FinishedRun {
  public:
    explicit FinishedRun(const DHC_OUT& out) : out_(out) {}

    // The run left its driver and a label per point of the region of
    // interest: everything below may be asked.
    bool hasTree() const;

    // One new report per region of the tree, in the tree's node-list order
    // (the root first), completed with what only the tree knows.
    std::vector<std::unique_ptr<WSReport>> reports() const;
    // Labels of the split regions, greedily by split gain with a parent
    // before its children; empty when nothing was split.
    std::vector<int> splitSequence() const;
    int rootLabel() const;

    // The points of the region of interest (the run's point order, coordinates
    // in its box) with their final labels.
    const ROI<int, xy>& points() const;
    // The label of the leaf whose region holds point k of points().
    int leafLabelAt(int k) const;

    // The final classes and beta of an unsupervised run; null otherwise.
    const FinalModel* finalModel() const;
    // One line on why the splitting ended; empty when it was not recorded.
    const std::string& stopReason() const;

  private:
    const DHC_OUT& out_;
};

}  // namespace dhc
