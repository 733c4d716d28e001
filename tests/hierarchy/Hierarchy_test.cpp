// Cuts of the tree of whole driver runs on a small synthetic scene: every
// strategy gives nested partitions from the root to the final map, each label
// of a cut covering exactly the area its node reports.

#include "hierarchy/Hierarchy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "driver/DHC.h"
#include "hierarchy/HierarchyRuns.h"
#include "settings/DHC_SET.h"

namespace {

using namespace hierarchy_test;

// Whether two maps are the same partition: labels correspond one to one, 0 to 0.
bool samePartition(const std::vector<int>& a, const std::vector<int>& b) {
    std::map<int, int> ab, ba;
    for (size_t i = 0; i < a.size(); ++i) {
        if ((a[i] == 0) != (b[i] == 0)) return false;
        if (ab.emplace(a[i], b[i]).first->second != b[i]) return false;
        if (ba.emplace(b[i], a[i]).first->second != a[i]) return false;
    }
    return true;
}

std::map<int, int> areas(const std::vector<int>& map) {
    std::map<int, int> count;
    for (int v : map)
        if (v != 0) ++count[v];
    return count;
}

// What every run's cuts must satisfy: band 0 is the root over the region of
// interest, each band refines the one before by replacing exactly the node
// split at that step by its children, every label covers its node's area,
// and the last band is the final map's partition.
void expectNestedCuts(const dhc::Hierarchy& h, const DHC_OUT& out) {
    const std::vector<int> final = finalMap(out);
    std::vector<int> previous;
    for (int k = 0; k <= h.splits(); ++k) {
        SCOPED_TRACE("cut after " + std::to_string(k) + " splits");
        const std::vector<int> band = h.cut(k);
        ASSERT_EQ(band.size(), final.size());
        // Read a few rows at a time, as the writers read it, it is the same map.
        std::vector<int> blocks(band.size(), -1);
        for (int row = 0; row < h.rows(); row += 3)
            h.cutRows(k, row, std::min(3, h.rows() - row), blocks.data() + static_cast<size_t>(row) * h.cols());
        EXPECT_EQ(blocks, band);
        const std::map<int, int> count = areas(band);
        EXPECT_EQ(static_cast<int>(count.size()), h.leavesAfter(k));
        for (const auto& [label, area] : count) EXPECT_EQ(area, h.node(label).area) << "label " << label;
        for (size_t i = 0; i < band.size(); ++i) ASSERT_EQ(band[i] == 0, final[i] == 0);
        if (k == 0) {
            ASSERT_EQ(count.size(), 1u);
            EXPECT_EQ(count.begin()->first, h.root().label);
        } else {
            // Pixels change label exactly where the node split at step k was,
            // and they move to one of its children.
            const dhc::RegionNode& split = h.node(h.splitOrder()[k - 1]);
            const std::set<int> children(split.children.begin(), split.children.end());
            for (size_t i = 0; i < band.size(); ++i) {
                if (previous[i] == split.label)
                    ASSERT_EQ(children.count(band[i]), 1u) << "pixel " << i;
                else
                    ASSERT_EQ(band[i], previous[i]) << "pixel " << i;
            }
        }
        previous = band;
    }
    EXPECT_TRUE(samePartition(previous, final));
    for (size_t i = 0; i < final.size(); ++i)
        if (final[i] != 0) {
            ASSERT_EQ(h.node(previous[i]).finalLabel, final[i]) << "pixel " << i;
        }
}

TEST(HierarchyCuts, BinaryGainDrivenCutsAreTheRunsStoppedEarlier) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(2, 6);
    SceneRun full = run(scene, *s);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(full.out, *s);
    ASSERT_EQ(h.splits(), 5);
    expectNestedCuts(h, full.out);
    EXPECT_EQ(h.cut(h.splits()), finalMap(full.out));  // unsupervised: the very labels
    for (int j = 0; j <= h.splits(); ++j) {
        SCOPED_TRACE("stopped at " + std::to_string(j + 1) + " classes");
        EXPECT_EQ(h.leavesAfter(j), j + 1);
        EXPECT_EQ(h.splitsForLeaves(j + 1), j);
        std::unique_ptr<DHC_SET> shorter = gainSettings(2, j + 1);
        SceneRun early = run(scene, *shorter);
        EXPECT_TRUE(samePartition(h.cut(j), finalMap(early.out)));
    }
    EXPECT_EQ(h.splitsForLeaves(7), -1);
    EXPECT_THROW(h.cut(6), dhc::HierarchyError);
    EXPECT_THROW(h.cut(-1), dhc::HierarchyError);
    // The point form is the map read at the points.
    const std::vector<int> points = h.cutPoints(2), map = h.cut(2);
    const ROI<int, xy>& p = *full.out.labelRoi;
    for (int k = 0; k < p.count; ++k)
        ASSERT_EQ(points[k], map[(p.coords[k].x + p.minRow) * p.imageCols + p.coords[k].y + p.minCol]);
    // The stack is every band in order.
    const std::vector<int> stack = h.levels();
    ASSERT_EQ(stack.size(), map.size() * 6);
    EXPECT_TRUE(std::equal(map.begin(), map.end(), stack.begin() + 2 * map.size()));
}

TEST(HierarchyCuts, RelabellingNumbersTheClassesInAscendingOrder) {
    std::vector<int> map = {0, 13, 3, 3, 7, 0, 13, 42};
    const std::vector<int> classes = dhc::relabelConsecutive(map);
    EXPECT_EQ(map, (std::vector<int>{0, 3, 1, 1, 2, 0, 3, 4}));
    EXPECT_EQ(classes, (std::vector<int>{3, 7, 13, 42}));
    std::vector<int> outside = {0, 0};
    EXPECT_TRUE(dhc::relabelConsecutive(outside).empty());
    EXPECT_EQ(outside, (std::vector<int>{0, 0}));

    // On a run: the same partition, and class k is the k-th smallest label of the cut.
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(2, 8);
    SceneRun r = run(scene, *s);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *s);
    const std::vector<int> cut = h.cut(h.splits());
    std::vector<int> relabelled = cut;
    const std::vector<int> labels = dhc::relabelConsecutive(relabelled);
    EXPECT_EQ(static_cast<int>(labels.size()), h.leavesAfter(h.splits()));
    EXPECT_TRUE(std::is_sorted(labels.begin(), labels.end()));
    for (size_t i = 0; i < cut.size(); ++i)
        ASSERT_EQ(cut[i], relabelled[i] == 0 ? 0 : labels[static_cast<size_t>(relabelled[i] - 1)]);
    EXPECT_THROW(h.cutRows(0, h.rows() - 1, 2, relabelled.data()), dhc::HierarchyError);
}

TEST(HierarchyCuts, OtherStrategiesGiveNestedCutsEndingInTheFinalMap) {
    struct Case {
        const char* name;
        void (*adjust)(DHC_SET&);
        int minLeavesStep;  // leaves added by one split at least
    };
    const Case cases[] = {
        {"multiplicity 3", [](DHC_SET& s) { s.multiplicity = 3; }, 2},
        {"balanced", [](DHC_SET& s) { s.balancedTree = true, s.growDepth = 2; }, 1},
        {"blind by area", [](DHC_SET& s) { s.blind = true, s.metric = 0, s.splitGainThreshold = 100; }, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Scene scene = sixBlocks();
        std::unique_ptr<DHC_SET> s = gainSettings(2, 8);
        c.adjust(*s);
        SceneRun r = run(scene, *s);
        const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *s);
        ASSERT_GE(h.splits(), 2);
        for (int k = 1; k <= h.splits(); ++k)
            EXPECT_GE(h.leavesAfter(k) - h.leavesAfter(k - 1), c.minLeavesStep);
        expectNestedCuts(h, r.out);
        EXPECT_EQ(h.cut(h.splits()), finalMap(r.out));
    }
}

TEST(HierarchyCuts, SupervisedLeavesKeepTheirGroundTruthLabels) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(2, 6);
    s->supervisedMode = true;
    s->numberOfClasses = 6;
    // Top row classes under one node, bottom row under another.
    s->structureLevels = new int[6]{2, 2, 2, 2, 2, 2};
    s->structurePaths = new int[12]{0, 0, 0, 1, 0, 2, 1, 0, 1, 1, 1, 2};
    SceneRun r = run(scene, *s);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *s);
    ASSERT_EQ(h.leavesAfter(h.splits()), 6);
    expectNestedCuts(h, r.out);
    std::set<int> finals;
    for (const dhc::RegionNode& n : h.nodes())
        if (n.terminal) finals.insert(n.finalLabel);
    EXPECT_EQ(finals, (std::set<int>{1, 2, 3, 4, 5, 6}));
    // After the first split: top row against bottom row.
    const std::vector<int> halves = h.cut(1);
    EXPECT_EQ(areas(halves).size(), 2u);
    EXPECT_NE(halves[5 * 30 + 5], halves[20 * 30 + 5]);
    EXPECT_EQ(halves[5 * 30 + 5], halves[5 * 30 + 25]);
}

TEST(HierarchyCuts, RefusedWhereTheMapIsCutIntoPieces) {
    for (int which = 0; which < 2; ++which) {
        Scene scene = sixBlocks();
        std::unique_ptr<DHC_SET> s = gainSettings(2, 4);
        (which == 0 ? s->fragmentation : s->splitwiseDisconnect) = true;
        SceneRun r = run(scene, *s);
        try {
            dhc::Hierarchy::fromRun(r.out, *s);
            ADD_FAILURE() << "no refusal";
        } catch (const dhc::HierarchyError& e) {
            EXPECT_NE(std::string(e.what()).find(which == 0 ? "Fragmentation=1" : "SplitwiseDisconnect=1"),
                      std::string::npos);
        }
    }
    DHC_OUT empty;
    DHC_SET plain;
    EXPECT_THROW(dhc::Hierarchy::fromRun(empty, plain), dhc::HierarchyError);
}

}  // namespace
