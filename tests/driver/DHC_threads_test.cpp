// A run gives the same result whatever number of threads it is given: the
// scene is large enough for the loops to be cut among the threads.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "driver/DHC.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

using driver_test::Scene;

// 192 x 192, four noisy classes in bands that overlap: many Lloyd and ICM passes.
Scene bigQuadrants() {
    Scene s(192, 192, 3);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c) s.truth[r][c] = 1 + (r >= 80 ? 2 : 0) + ((c + r / 4) >= 100 ? 1 : 0);
    s.paint({{100, 120, 90}, {160, 125, 95}, {100, 60, 140}, {175, 30, 170}}, 25);
    return s;
}

// 384 x 384, two classes deep in noise: the region is large enough for its
// ICM sweeps to be cut between two threads, and the sweeps change many
// labels, some of them next to pixels of the speculating half.
Scene noisyHalves() {
    Scene s(384, 384, 3);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c) s.truth[r][c] = (c + r / 3) >= 250 ? 2 : 1;
    s.paint({{100, 120, 90}, {150, 160, 130}}, 60);
    return s;
}

// A flat block (one value: its split is refused) beside two noisy classes,
// flat on the left or on the right, so that the refused split comes first or
// last among the leaves split side by side.
Scene flatBeside(bool flatLeft) {
    Scene s(160, 240, 2);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c) {
            const bool left = c < 120;
            s.truth[r][c] = left == flatLeft ? 1 : (r < 80 ? 2 : 3);
        }
    s.paint({{500, 500}, {100, 140}, {160, 110}}, 20);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c)
            if (s.truth[r][c] == 1)
                for (int b = 0; b < s.bands; ++b) s.cube[b][r][c] = 500;
    return s;
}

struct Outcome {
    std::vector<int> labels;
    std::vector<double> figures;  // beta, gain and mean of every node, tree order
};

void collect(TreeNode<PottsWS*>* node, std::vector<double>& out) {
    PottsWS* ws = node->data;
    out.push_back(ws->beta);
    out.push_back(ws->splitGain);
    out.push_back(ws->splitState);
    for (int b = 0; b < ws->bands; ++b) out.push_back(ws->mi[b]);
    for (int c = 0; c < node->nChildren; ++c) collect(node->children[c], out);
}

Outcome runWith(Scene scene, int multiplicity, int threads, double betaMin = 0.0, double betaMax = 1.5) {
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    DHC_SET s;
    s.multiplicity = multiplicity;
    s.betaMin = betaMin;
    s.betaMax = betaMax;
    s.splitGainThreshold = 0.01;
    s.maxNumberOfClasses = 5;
    s.minSplitArea = 8;
    DHC_IN in;
    in.roi = roi.get();
    in.settings = &s;
    in.threads = threads;
    DHC_OUT out = DHC::dhc(in);
    Outcome o;
    EXPECT_NE(out.labelRoi, nullptr);
    if (out.labelRoi != nullptr)
        o.labels.assign(out.labelRoi->data, out.labelRoi->data + out.labelRoi->count);
    if (out.dhc != nullptr) collect(out.dhc->tree->root, o.figures);
    return o;
}

}  // namespace

TEST(DHCThreads, OneTwoAndThreeThreadsGiveTheSameTree) {
    for (int multiplicity : {2, 3}) {
        const Outcome one = runWith(bigQuadrants(), multiplicity, 1);
        ASSERT_GT(one.figures.size(), 7u)
            << "the scene must split: state " << one.figures[2] << " gain " << one.figures[1];
        for (int threads : {2, 3}) {
            const Outcome many = runWith(bigQuadrants(), multiplicity, threads);
            EXPECT_EQ(many.labels, one.labels) << multiplicity << " children, " << threads << " threads";
            // Bitwise: the figures come from sums taken in the same order.
            ASSERT_EQ(many.figures.size(), one.figures.size());
            for (size_t i = 0; i < one.figures.size(); ++i)
                EXPECT_EQ(std::memcmp(&many.figures[i], &one.figures[i], sizeof(double)), 0)
                    << "figure " << i << ": " << many.figures[i] << " vs " << one.figures[i];
        }
    }
}

TEST(DHCThreads, ARefusedSplitAmongLeavesSplitSideBySideLeavesTheSameTree) {
    for (bool flatLeft : {true, false}) {
        const Outcome one = runWith(flatBeside(flatLeft), 2, 1);
        const Outcome two = runWith(flatBeside(flatLeft), 2, 2);
        ASSERT_GT(one.figures.size(), 2 * 5u) << "the scene must split";
        EXPECT_EQ(two.labels, one.labels);
        ASSERT_EQ(two.figures.size(), one.figures.size());
        for (size_t i = 0; i < one.figures.size(); ++i)
            EXPECT_EQ(std::memcmp(&two.figures[i], &one.figures[i], sizeof(double)), 0) << "figure " << i;
    }
}

TEST(DHCThreads, SweepsOfALargeRegionCutBetweenTwoThreadsLeaveTheSameTree) {
    for (double beta : {0.4, 1.0}) {
        const Outcome one = runWith(noisyHalves(), 2, 1, beta, beta);
        const Outcome two = runWith(noisyHalves(), 2, 2, beta, beta);
        ASSERT_GT(one.figures.size(), 2 * 5u) << "the scene must split";
        EXPECT_EQ(two.labels, one.labels) << beta;
        ASSERT_EQ(two.figures.size(), one.figures.size());
        for (size_t i = 0; i < one.figures.size(); ++i)
            EXPECT_EQ(std::memcmp(&two.figures[i], &one.figures[i], sizeof(double)), 0) << "figure " << i;
    }
}
