// The splitting strategies called on a driver built by hand: a leaf in
// pieces split across them (splitOption 2), the blind scores, and blind
// splitting of one subtree.  Expectations come from the scenes' construction
// and from statistics computed here from the pixels, not from the driver.

#include "driver/DHC.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "data/LabelController.h"
#include "data/PaddedMap.h"
#include "data/ROI.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

using driver_test::Scene;
using driver_test::baseSettings;
using driver_test::fourQuadrants;
using Node = TreeNode<PottsWS*>;

// The label of every pixel of the map (the leaves as they are painted now),
// in the frame of the region of interest's box.
std::vector<std::vector<int>> paintedMap(DHC& d) {
    d.globalMapRefresh(false);
    std::unique_ptr<PaddedMap> pm(d.outputPMap(true, false, false, -1));
    std::vector<std::vector<int>> map(pm->rows);
    for (int r = 0; r < pm->rows; ++r) map[r].assign(pm->map[r], pm->map[r] + pm->cols);
    return map;
}

// Three separate pieces on a 20 x 20 frame, the rest outside the region of
// interest: squares A and B, each dark (20) on its left half and bright (90)
// on its right half, and a small dark strip C.
struct Pieces : ::testing::Test {
    Scene scene{20, 20, 1};
    std::unique_ptr<ROI<int, xy>> roi;
    std::unique_ptr<DHC_SET> s = baseSettings();

    static bool inA(int r, int c) { return r >= 2 && r < 10 && c >= 2 && c < 10; }
    static bool inB(int r, int c) { return r >= 11 && r < 19 && c >= 11 && c < 19; }
    static bool inC(int r, int c) { return r < 2 && c >= 15 && c < 19; }
    static bool dark(int r, int c) { return inC(r, c) || (inA(r, c) && c < 6) || (inB(r, c) && c < 15); }

    void SetUp() override {
        for (int r = 0; r < 20; ++r)
            for (int c = 0; c < 20; ++c) {
                scene.mask[r][c] = inA(r, c) || inB(r, c) || inC(r, c);
                scene.truth[r][c] = dark(r, c) ? 1 : 2;
            }
        scene.paint({{20}, {90}}, 3);
        roi.reset(scene.dataRoi());
        s->minSplitArea = 20;
        s->maxNumberOfClasses = 2;
    }

    SplittingOptions options() const {
        SplittingOptions o;
        o.splitOption = 2;
        o.minSplitArea = s->minSplitArea;
        o.splitGainThreshold = s->splitGainThreshold;
        o.maxNumberOfClasses = s->maxNumberOfClasses;
        return o;
    }
};

// Each large piece splits into its dark and bright half; the halves, and the
// small strip that is too small to split, join the class of the nearest mean:
// the leaf's two children are all dark pixels and all bright pixels.  What
// the pieces took from the label allocator is given back.
TEST_F(Pieces, ALeafInPiecesIsSplitAcrossThemByNearestMean) {
    DHC d(roi.get(), s->maxLabels, false, nullptr, s.get());
    d.start();
    d.splitting(options());
    d.removeTestSplits(false);
    ASSERT_EQ(d.tree->terminals.size(), 2u);
    const auto map = paintedMap(d);
    int darkLabel = 0, brightLabel = 0, area = 0;
    for (int r = 0; r < 20; ++r)
        for (int c = 0; c < 20; ++c) {
            if (!scene.mask[r][c]) continue;
            ++area;
            const int label = map[r - roi->minRow][c - roi->minCol];
            int& expected = dark(r, c) ? darkLabel : brightLabel;
            if (expected == 0) expected = label;
            ASSERT_EQ(label, expected) << "pixel " << r << ", " << c;
        }
    EXPECT_NE(darkLabel, brightLabel);
    int childArea = 0;
    for (Node* leaf : d.tree->terminals) childArea += leaf->data->root->area;
    EXPECT_EQ(childArea, area);
    // Labels: 1 frame, 2 root, then the pieces and their halves, then the two
    // children; the lowest free label is the first the pieces had taken.
    EXPECT_EQ(d.labels->pick(), 3);
}

// No piece is large enough to split: the leaf stays whole, is marked as not
// splittable, and shows its own label again.
TEST_F(Pieces, PiecesTooSmallToSplitLeaveTheLeafWhole) {
    s->minSplitArea = 65;  // the squares have 64 pixels, the leaf 136
    DHC d(roi.get(), s->maxLabels, false, nullptr, s.get());
    d.start();
    d.tree->current = d.tree->root;
    d.split(options());
    EXPECT_EQ(d.tree->root->nChildren, 0);
    EXPECT_EQ(d.tree->root->data->splitState, -1);
    const auto map = paintedMap(d);
    for (int r = 0; r < 20; ++r)
        for (int c = 0; c < 20; ++c)
            if (scene.mask[r][c]) {
                ASSERT_EQ(map[r - roi->minRow][c - roi->minCol], d.tree->root->label);
            }
    EXPECT_EQ(d.labels->pick(), 3);
}

// A connected leaf has no pieces: splitOption 2 splits it as a plain split does.
TEST(PiecesOfAConnectedLeaf, AreTheLeafItself) {
    auto tentative = [](int option) {
        Scene scene = fourQuadrants();
        std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
        std::unique_ptr<DHC_SET> s = baseSettings();
        DHC d(roi.get(), s->maxLabels, false, nullptr, s.get());
        d.start();
        d.tree->current = d.tree->root;
        SplittingOptions o;
        o.splitOption = option;
        o.minSplitArea = s->minSplitArea;
        d.split(o);
        std::vector<std::pair<int, int>> children;
        for (int c = 0; c < d.tree->root->nChildren; ++c)
            children.emplace_back(d.tree->root->children[c]->label, d.tree->root->children[c]->data->root->area);
        return children;
    };
    const auto plain = tentative(0);
    EXPECT_EQ(plain.size(), 2u);
    EXPECT_EQ(tentative(2), plain);
}

// Blind scores recomputed from the pixels of each region of the grown tree:
// every split region reaches the threshold, and every leaf that was never
// tried stays below it.
struct BlindScores : ::testing::Test {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi{scene.dataRoi()};
    std::unique_ptr<DHC_SET> s = baseSettings();

    struct Stats {
        double area = 0, distortion = 0, envelope = 0, depth = 0;
    };

    // Region statistics from the scene, for the pixels under each node.
    std::vector<std::pair<Node*, Stats>> statsOf(DHC& d) {
        const auto map = paintedMap(d);
        std::vector<std::pair<Node*, Stats>> out;
        for (Node* node : d.tree->nodeList) {
            std::vector<int> leaves;
            std::function<void(Node*)> collect = [&](Node* n) {
                if (n->nChildren == 0) leaves.push_back(n->label);
                for (int c = 0; c < n->nChildren; ++c) collect(n->children[c]);
            };
            collect(node);
            std::vector<std::pair<int, int>> pixels;
            for (int r = 0; r < scene.rows; ++r)
                for (int c = 0; c < scene.cols; ++c)
                    for (int l : leaves)
                        if (map[r][c] == l) pixels.emplace_back(r, c);
            Stats st;
            st.area = static_cast<double>(pixels.size());
            st.depth = node->depth;
            int r0 = scene.rows, r1 = -1, c0 = scene.cols, c1 = -1;
            for (int b = 0; b < scene.bands; ++b) {
                double mean = 0;
                for (auto [r, c] : pixels) mean += scene.cube[b][r][c];
                mean /= st.area;
                for (auto [r, c] : pixels) st.distortion += (scene.cube[b][r][c] - mean) * (scene.cube[b][r][c] - mean);
            }
            for (auto [r, c] : pixels) {
                r0 = std::min(r0, r), r1 = std::max(r1, r), c0 = std::min(c0, c), c1 = std::max(c1, c);
            }
            st.envelope = static_cast<double>(r1 - r0 + 1) * (c1 - c0 + 1);
            out.emplace_back(node, st);
        }
        return out;
    }
};

TEST_F(BlindScores, EveryMetricSplitsExactlyTheRegionsThatReachTheThreshold) {
    struct Case {
        const char* name;
        int metric;
        double threshold;
        std::function<double(const Stats&)> score;
        double minArea = 8, blindDepth = 0, blindMSE = 0, blindArea = 0;
    };
    const double quadrant = 12 * 12;
    const Case cases[] = {
        {"distortion", 1, 50000, [](const Stats& t) { return t.distortion; }},
        {"distortion per pixel", 2, 100, [](const Stats& t) { return t.distortion / t.area; }},
        {"distortion times log area", 3, 300000, [](const Stats& t) { return t.distortion * std::log(t.area); }},
        {"distortion per pixel times log area", 4, 500,
         [](const Stats& t) { return t.distortion / t.area * std::log(t.area); }},
        {"envelope", 5, 2 * quadrant, [](const Stats& t) { return t.envelope; }},
        {"point count", 6, 2 * quadrant, [](const Stats& t) { return t.area; }},
        {"depth above the minimum area", 8, 0.4,
         [&](const Stats& t) { return t.area >= 2 * quadrant ? 1.0 / (t.depth + 1) : -1.0; }, 2 * quadrant},
        {"limits: depth", 0, 0.5, [](const Stats& t) { return t.depth <= 1 ? 1.5 : -0.5; }, 8, 1},
        {"limits: area", 0, 0.5, [&](const Stats& t) { return t.area < quadrant ? -0.5 : 1.5; }, 8, 0, 0, quadrant},
        {"limits: error per pixel", 0, 0.5, [](const Stats& t) { return t.distortion / t.area >= 100 ? 1.5 : -0.5; },
         8, 0, 100},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        DHC d(roi.get(), s->maxLabels, false, nullptr, s.get());
        d.start();
        SplittingOptions o;
        o.metric = k.metric;
        o.splitGainThreshold = k.threshold;
        o.minSplitArea = k.minArea;
        o.maxNumberOfClasses = 100;
        o.blindDepth = k.blindDepth;
        o.blindMSE = k.blindMSE;
        o.blindArea = k.blindArea;
        o.blindActive = k.blindDepth != 0 || k.blindMSE != 0 || k.blindArea != 0;
        d.blindSplitting(o);
        int splits = 0;
        for (const auto& [node, st] : statsOf(d)) {
            const double score = k.score(st);
            if (node->nChildren > 0) {
                ++splits;
                EXPECT_GE(score, k.threshold) << "split region " << node->label;
            } else if (node->data->splitState == 0) {
                EXPECT_LT(score, k.threshold) << "unsplit region " << node->label;
            }
        }
        EXPECT_GE(splits, 1);
        EXPECT_EQ(d.stopReason.rfind("no split kept", 0), 0u) << d.stopReason;
    }
}

// Blind splitting of one subtree: only the region at its start is split, the
// split is mirrored into the main tree, and the class limit that the whole
// tree has reached does not keep it from starting (the local tree's own
// count then ends it after one split).
TEST_F(BlindScores, ALocalTreeSplitsOnlyBelowItsStartAndMirrorsIntoTheMainTree) {
    DHC d(roi.get(), s->maxLabels, false, nullptr, s.get());
    d.start();
    SplittingOptions o;
    o.metric = 7;  // 1 / (depth + 1)
    o.splitGainThreshold = 0.9;
    o.maxNumberOfClasses = 100;
    d.blindSplitting(o);
    ASSERT_EQ(d.tree->root->nChildren, 2);
    Node* start = d.tree->root->children[0];
    Node* other = d.tree->root->children[1];

    o.localTree = true;
    o.startLabel = start->label;
    o.maxNumberOfClasses = 1;
    o.metric = 0;  // area
    o.splitGainThreshold = 100;
    o.splitwiseDisconnect = true;
    d.blindSplitting(o);
    ASSERT_EQ(start->nChildren, 2);
    EXPECT_EQ(other->nChildren, 0);
    EXPECT_EQ(d.tree->terminals.size(), 3u);
    for (int c = 0; c < start->nChildren; ++c) {
        EXPECT_EQ(d.tree->root->find(start->children[c]->label), start->children[c]);
        EXPECT_EQ(start->children[c]->nChildren, 0);
    }

    const size_t before = d.tree->nodeList.size();
    o.startLabel = 999999;  // no such region: nothing happens
    d.blindSplitting(o);
    EXPECT_EQ(d.tree->nodeList.size(), before);
}

// Resetting the tree gives every label below the root back and leaves the
// root as the only leaf, painted with its label.
TEST_F(BlindScores, ResettingTheTreeGivesItsLabelsBack) {
    DHC d(roi.get(), s->maxLabels, false, nullptr, s.get());
    d.start();
    SplittingOptions o;
    o.metric = 0;
    o.splitGainThreshold = 100;
    o.maxNumberOfClasses = 100;
    d.blindSplitting(o);
    ASSERT_GT(d.tree->nodeList.size(), 3u);
    int fresh = 0;
    std::unique_ptr<PottsMapRegion*[]> regions(d.getNewlyCreated(fresh));
    EXPECT_EQ(static_cast<size_t>(fresh), d.tree->terminals.size());
    d.start();
    EXPECT_EQ(d.tree->nodeList.size(), 1u);
    EXPECT_EQ(d.tree->terminals.size(), 1u);
    for (const auto& row : paintedMap(d))
        for (int v : row) ASSERT_EQ(v, d.tree->root->label);
    EXPECT_EQ(d.labels->pick(), 3);
}

}  // namespace
