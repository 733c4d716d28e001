#include "hierarchy/Hierarchy.h"

#include <algorithm>
#include <memory>

#include "data/ROI.h"
#include "driver/FinishedRun.h"
#include "hierarchy/RegionFields.h"
#include "settings/DHC_SET.h"
#include "workspace/WSReport.h"

namespace dhc {

Hierarchy Hierarchy::fromRun(const DHC_OUT& out, const DHC_SET& settings) {
    const FinishedRun run(out);
    if (!run.hasTree()) throw HierarchyError("the run has no tree of regions");
    if (settings.fragmentation || settings.splitwiseDisconnect)
        throw HierarchyError(
            "the tree of regions does not describe the final map after Fragmentation=1 or "
            "SplitwiseDisconnect=1");

    Hierarchy h;
    for (const auto& r : run.reports()) {
        h.index_[r->WSLab] = static_cast<int>(h.nodes_.size());
        h.nodes_.push_back(regionNode(*r));
    }
    h.splitOrder_ = run.splitSequence();
    for (size_t i = 0; i < h.splitOrder_.size(); ++i)
        h.nodes_[h.index_.at(h.splitOrder_[i])].splitRank = static_cast<int>(i) + 1;
    h.root_ = h.index_.at(run.rootLabel());
    for (RegionNode& parent : h.nodes_)
        for (int c : parent.children) h.nodes_[h.index_.at(c)].parent = parent.label;

    // Leaves and the chain of nodes above each.
    std::unordered_map<int, int> leafOf;  // node index -> position in leaves_
    for (size_t i = 0; i < h.nodes_.size(); ++i) {
        if (!h.nodes_[i].terminal) continue;
        leafOf[static_cast<int>(i)] = static_cast<int>(h.leaves_.size());
        h.leaves_.push_back(static_cast<int>(i));
        std::vector<int> chain;
        for (int v = static_cast<int>(i);;) {
            chain.push_back(v);
            if (h.nodes_[v].parent < 0) break;
            v = h.index_.at(h.nodes_[v].parent);
        }
        std::reverse(chain.begin(), chain.end());
        h.chains_.push_back(std::move(chain));
    }

    // Every point's leaf, read where the driver painted the leaves.
    const ROI<int, xy>& points = run.points();
    const FinalModel* finalModel = run.finalModel();
    const bool refined = finalModel != nullptr && finalModel->refined;
    if (finalModel != nullptr) h.finalModel_ = std::make_shared<const FinalModel>(*finalModel);
    h.rows_ = points.imageRows;
    h.cols_ = points.imageCols;
    h.pointCell_.resize(static_cast<size_t>(points.count));
    h.pointLeaf_.resize(static_cast<size_t>(points.count));
    std::vector<int> counted(h.leaves_.size(), 0);
    std::vector<int> finalLabel(h.leaves_.size(), 0);
    std::vector<char> seen(h.leaves_.size(), 0);
    const auto mismatch = [] {
        return HierarchyError("the tree of regions does not describe the final label map");
    };
    for (int k = 0; k < points.count; ++k) {
        const xy p = points.coords[k];
        h.pointCell_[k] = (p.x + points.minRow) * h.cols_ + p.y + points.minCol;
        const auto node = h.index_.find(run.leafLabelAt(k));
        if (node == h.index_.end()) throw mismatch();
        const auto leaf = leafOf.find(node->second);
        if (leaf == leafOf.end()) throw mismatch();
        const int l = leaf->second;
        h.pointLeaf_[k] = l;
        ++counted[l];
        // A refined final map moves pixels between the leaves' classes: the
        // tree describes the map before the refinement, whose labels are the
        // leaves' own.
        const int value = refined ? h.nodes_[node->second].label : points.data[static_cast<size_t>(k) * points.bands];
        if (seen[l] && finalLabel[l] != value) throw mismatch();
        seen[l] = 1;
        finalLabel[l] = value;
    }
    for (const RegionNode& n : h.nodes_) {
        h.rank_.push_back(n.splitRank);
        h.label_.push_back(n.label);
    }
    h.cellLeaf_.assign(static_cast<size_t>(h.rows_) * static_cast<size_t>(h.cols_), -1);
    for (size_t k = 0; k < h.pointCell_.size(); ++k) h.cellLeaf_[h.pointCell_[k]] = h.pointLeaf_[k];
    for (size_t l = 0; l < h.leaves_.size(); ++l) {
        RegionNode& leaf = h.nodes_[h.leaves_[l]];
        if (counted[l] != leaf.area) throw mismatch();
        leaf.finalLabel = finalLabel[l];
    }
    return h;
}

const RegionNode& Hierarchy::node(int label) const {
    const auto it = index_.find(label);
    if (it == index_.end()) throw HierarchyError("no region of the tree has label " + std::to_string(label));
    return nodes_[it->second];
}

int Hierarchy::leavesAfter(int k) const {
    checkSplits(k);
    int leaves = 1;
    for (int i = 0; i < k; ++i) leaves += static_cast<int>(node(splitOrder_[i]).children.size()) - 1;
    return leaves;
}

int Hierarchy::splitsForLeaves(int leaves) const {
    int count = 1;
    for (int k = 0;; ++k) {
        if (count == leaves) return k;
        if (k == splits()) return -1;
        count += static_cast<int>(node(splitOrder_[k]).children.size()) - 1;
    }
}

void Hierarchy::checkSplits(int k) const {
    if (k < 0 || k > splits())
        throw HierarchyError("no cut after " + std::to_string(k) + " splits: the tree has " +
                             std::to_string(splits()) + (splits() == 1 ? " split" : " splits"));
}

int Hierarchy::leafLabelAt(size_t l, int k) const {
    // Ranks grow down every chain (a parent is split before its children), so
    // the node of the cut is the first one on the chain not among the first k
    // splits: found by bisection, the chain being as long as the tree is deep.
    const std::vector<int>& chain = chains_[l];
    const auto splitBy = [&](int node) {
        const int rank = rank_[static_cast<size_t>(node)];
        return rank != 0 && rank <= k;
    };
    size_t lo = 0, hi = chain.size() - 1;  // the answer lies in [lo, hi]
    while (lo < hi) {
        const size_t mid = lo + (hi - lo) / 2;
        if (splitBy(chain[mid]))
            lo = mid + 1;
        else
            hi = mid;
    }
    return label_[static_cast<size_t>(chain[lo])];
}

std::vector<int> Hierarchy::leafLabelsAt(int k) const {
    checkSplits(k);
    std::vector<int> labels(leaves_.size());
    for (size_t l = 0; l < leaves_.size(); ++l) labels[l] = leafLabelAt(l, k);
    return labels;
}

std::vector<int> Hierarchy::cutPoints(int k) const {
    const std::vector<int> leafLabel = leafLabelsAt(k);
    std::vector<int> out(pointLeaf_.size());
    for (size_t p = 0; p < pointLeaf_.size(); ++p) out[p] = leafLabel[pointLeaf_[p]];
    return out;
}

std::vector<int> Hierarchy::cut(int k) const {
    std::vector<int> map(static_cast<size_t>(rows_) * cols_, 0);
    cutRows(k, 0, rows_, map.data());
    return map;
}

void Hierarchy::cutRows(int k, int row, int n, int* out) const {
    checkSplits(k);
    if (row < 0 || n < 0 || row + n > rows_)
        throw HierarchyError("rows " + std::to_string(row) + " to " + std::to_string(row + n) +
                             " are outside the map's " + std::to_string(rows_) + " rows");
    const size_t first = static_cast<size_t>(row) * static_cast<size_t>(cols_);
    const size_t count = static_cast<size_t>(n) * static_cast<size_t>(cols_);
    // Neighbouring pixels mostly share a leaf: its label is looked up once.
    int lastLeaf = -1, lastLabel = 0;
    for (size_t i = 0; i < count; ++i) {
        const int leaf = cellLeaf_[first + i];
        if (leaf < 0) {
            out[i] = 0;
            continue;
        }
        if (leaf != lastLeaf) {
            lastLeaf = leaf;
            lastLabel = leafLabelAt(static_cast<size_t>(leaf), k);
        }
        out[i] = lastLabel;
    }
}

std::vector<int> Hierarchy::levels() const {
    const size_t plane = static_cast<size_t>(rows_) * cols_;
    std::vector<int> stack(plane * static_cast<size_t>(splits() + 1));
    for (int k = 0; k <= splits(); ++k) cutRows(k, 0, rows_, stack.data() + plane * static_cast<size_t>(k));
    return stack;
}

std::vector<int> relabelConsecutive(std::vector<int>& map) {
    std::vector<int> labels;
    for (int v : map)
        if (v != 0) labels.push_back(v);
    std::sort(labels.begin(), labels.end());
    labels.erase(std::unique(labels.begin(), labels.end()), labels.end());
    std::unordered_map<int, int> number;
    for (size_t i = 0; i < labels.size(); ++i) number[labels[i]] = static_cast<int>(i) + 1;
    int lastFrom = 0, lastTo = 0;
    for (int& v : map) {
        if (v == 0) continue;
        if (v != lastFrom) {
            lastFrom = v;
            lastTo = number.at(v);
        }
        v = lastTo;
    }
    return labels;
}

std::vector<int> cutAt(const DHC_OUT& out, const DHC_SET& settings, int splits) {
    return Hierarchy::fromRun(out, settings).cut(splits);
}

std::vector<int> levels(const DHC_OUT& out, const DHC_SET& settings) {
    return Hierarchy::fromRun(out, settings).levels();
}

}  // namespace dhc
