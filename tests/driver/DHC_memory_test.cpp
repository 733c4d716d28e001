// What a run lets go of while it goes on: the region's values once the root
// holds them (when the caller allows it), the pixels of every region whose
// split is final.  The results must not change.

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "driver/DHC.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

using driver_test::Scene;

struct Outcome {
    std::vector<int> labels;
    std::vector<double> means;  // every node's mean, tree order
    int inner = 0;              // split nodes
    int innerWithPixels = 0;    // split nodes that still hold pixels
    int rootIndexed = 0;        // nodes with root indices (none is needed unsupervised)
    bool roiValuesLeft = true;
};

void walk(TreeNode<PottsWS*>* node, Outcome& r) {
    PottsWS* ws = node->data;
    for (int b = 0; b < ws->bands; ++b) r.means.push_back(ws->mi[b]);
    r.rootIndexed += ws->pixelIndex != nullptr;
    if (node->nChildren > 0) {
        ++r.inner;
        if (ws->data != nullptr || ws->coords != nullptr || ws->loadedCount != 0) ++r.innerWithPixels;
    }
    for (int c = 0; c < node->nChildren; ++c) walk(node->children[c], r);
}

Outcome runOnce(bool release) {
    Scene scene(64, 64, 2);
    for (int r = 0; r < 64; ++r)
        for (int c = 0; c < 64; ++c) scene.truth[r][c] = 1 + (r >= 32 ? 2 : 0) + (c >= 32 ? 1 : 0);
    scene.paint({{10, 12}, {60, 45}, {110, 72}, {160, 108}}, 6);
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    DHC_SET s;
    s.multiplicity = 2;
    s.betaMax = 1.5;
    s.splitGainThreshold = 0.01;
    s.maxNumberOfClasses = 4;
    s.minSplitArea = 8;
    DHC_IN in;
    in.roi = roi.get();
    in.settings = &s;
    in.releaseRoiValues = release;
    DHC_OUT out = DHC::dhc(in);
    Outcome r;
    if (out.labelRoi != nullptr)
        r.labels.assign(out.labelRoi->data, out.labelRoi->data + out.labelRoi->count);
    if (out.dhc != nullptr) walk(out.dhc->tree->root, r);
    r.roiValuesLeft = roi->data != nullptr;
    return r;
}

}  // namespace

TEST(DHCMemory, SplitRegionsAndTheRegionValuesAreLetGoWithoutChangingTheResult) {
    const Outcome kept = runOnce(false);
    const Outcome released = runOnce(true);
    EXPECT_TRUE(kept.roiValuesLeft);
    EXPECT_FALSE(released.roiValuesLeft);
    ASSERT_EQ(released.inner, 3) << "four classes: three splits";
    EXPECT_EQ(released.innerWithPixels, 0);
    EXPECT_EQ(released.rootIndexed, 0);
    EXPECT_EQ(released.labels, kept.labels);
    EXPECT_EQ(released.means, kept.means);
    for (double m : released.means) EXPECT_TRUE(std::isfinite(m));
}
