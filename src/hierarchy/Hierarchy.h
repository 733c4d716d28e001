#pragma once
// The tree of regions of one finished run as a product: every node with its
// report, the ranked split sequence, and the label map at any cut of it.
//
// A cut after k splits is the partition of the region of interest into the
// nodes left after splitting the root, then the first k - 1 nodes of the split
// sequence after it (the report's SplitOrder: greedily by split gain, a parent
// before its children).  In a gain-driven run that is the order in which the
// splits were made, so the cut after k splits is what a run stopped at that
// many classes gives; in balanced, blind and supervised runs it is still a
// nested sequence of partitions from the root to the final leaves.  Pixels of
// a cut carry the label of their node in that cut; 0 marks pixels outside the
// region of interest.
//
// Built from the driver's output only (reports, split sequence, the leaves'
// labels in the driver's map), so the MEX module, the tool and the Python
// package all cut the same way.

#include <stdexcept>
#include <string>
#include <unordered_map>
#include <memory>
#include <vector>

#include "driver/FinalModel.h"

struct DHC_OUT;
struct DHC_SET;

namespace dhc {

// A run whose tree cannot be cut (no tree, a map cut into pieces after the
// tree was grown).  The message is one line meant for the user.
class HierarchyError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// One region of the tree: its report and where it stands in the hierarchy.
struct RegionNode {
    int label = 0;
    int parent = -1;  // label of the parent; -1 for the root
    std::vector<int> children;
    std::vector<int> childAreas;  // in the order of children
    std::vector<int> path;        // child indices from the root
    int depth = 0;
    int area = 0;
    bool split = false;     // its workspace's split succeeded
    bool terminal = false;  // a leaf of the final tree
    int splitRank = 0;      // 1-based position in the split sequence; 0 when never split
    int finalLabel = 0;     // leaves: its label in the run's final map (supervised: the ground-truth label)
    std::vector<int> offspring;  // leaves below it, in report order
    double beta = 0.0;
    int edges = 0;
    bool textureBased = false;
    double splitGainMRF = 0.0;
    double mixtureSplitGainTFR = 0.0;
    double splitGainTFR = 0.0;
    double likelihoodEnergy = 0.0;
    int bands = 0;
    std::vector<double> mean;  // empty when the region has no statistics
    std::vector<std::vector<double>> covariance;
    double criterion = 0.0;  // the split's ICL or BIC (NaN when none)
    bool refused = false;    // leaves: a split was weighed and refused when the run stopped
    double refusedGain = 0.0;
    double refusedCriterion = 0.0;
};

class Hierarchy {
  public:
    // Reads the tree of a finished run.  Throws a HierarchyError when the run
    // has no tree, or when the final map is not the tree's leaves (after
    // Fragmentation or SplitwiseDisconnect the map is cut into pieces).
    static Hierarchy fromRun(const DHC_OUT& out, const DHC_SET& settings);

    // Every node, in the report order (the root first).
    const std::vector<RegionNode>& nodes() const { return nodes_; }
    // The node with this label; throws a HierarchyError when there is none.
    const RegionNode& node(int label) const;
    const RegionNode& root() const { return nodes_[root_]; }
    // Labels of the split nodes in ranked order.
    const std::vector<int>& splitOrder() const { return splitOrder_; }
    int splits() const { return static_cast<int>(splitOrder_.size()); }
    // Number of nodes in the cut after k splits (0 <= k <= splits()).
    int leavesAfter(int k) const;
    // The k whose cut has exactly `leaves` nodes, or -1 when no cut has.
    int splitsForLeaves(int leaves) const;

    // Label map of the cut after k splits, rows() x cols(), row-major.
    std::vector<int> cut(int k) const;
    // Every cut, band k after k splits: (splits() + 1) maps one after the other.
    std::vector<int> levels() const;
    // Rows [row, row + n) of the cut after k splits into out (n * cols()
    // values): the way to write the cuts one band, or one block, at a time.
    // Each value costs a search along its leaf's chain of ancestors, so a
    // band costs time in proportion to its pixels whatever the tree's shape.
    void cutRows(int k, int row, int n, int* out) const;
    // The same label per point of the region of interest (the run's point order).
    std::vector<int> cutPoints(int k) const;

    int rows() const { return rows_; }
    int cols() const { return cols_; }

    // The final classes and beta of the run (null when it has none).
    const FinalModel* finalModel() const { return finalModel_ ? &*finalModel_ : nullptr; }

  private:
    std::shared_ptr<const FinalModel> finalModel_;
    std::vector<RegionNode> nodes_;
    std::unordered_map<int, int> index_;  // label -> position in nodes_
    int root_ = 0;
    std::vector<int> splitOrder_;
    int rows_ = 0, cols_ = 0;
    std::vector<int> pointCell_;  // per ROI point: row * cols + col
    std::vector<int> pointLeaf_;  // per ROI point: index into leaves_
    std::vector<int> cellLeaf_;   // per cell of the frame: index into leaves_, -1 outside
    // Per node index, its split rank (0: never split) and its label: the cut's
    // inner loop reads these, not the nodes.
    std::vector<int> rank_, label_;
    std::vector<int> leaves_;     // node indices of the final leaves
    // Per leaf, the chain of node indices from the root down to it.
    std::vector<std::vector<int>> chains_;

    void checkSplits(int k) const;
    // Per leaf (same order as leaves_), the label of its node in the cut after k splits.
    std::vector<int> leafLabelsAt(int k) const;
    // The label of leaf l's node in the cut after k splits.
    int leafLabelAt(size_t l, int k) const;
};

// Numbers the classes of a label map 1..K in ascending order of their labels
// (0, outside the region of interest, stays 0) and returns the label each
// class had: the result's element k - 1 is the label that became k.  Region
// labels grow as the tree is split, so the classes come in the order their
// regions were made.
std::vector<int> relabelConsecutive(std::vector<int>& map);

// Shorthands for front ends that keep only the run's output.
std::vector<int> cutAt(const DHC_OUT& out, const DHC_SET& settings, int splits);
std::vector<int> levels(const DHC_OUT& out, const DHC_SET& settings);

}  // namespace dhc
