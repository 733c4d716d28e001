// What a run lets go of while it goes on: the region's values and initial
// labels once the root holds them (when the caller allows it), the pixels of
// every region whose split is final; and what it never copies: children get
// ranges of their parent's values.  The results must not change.

#include <gtest/gtest.h>

#include <algorithm>
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
    std::vector<double> means;      // every node's mean, tree order
    int inner = 0;                  // split nodes
    int innerWithPixels = 0;        // split nodes that still hold pixels
    int rootIndexed = 0;            // nodes with root indices (none is needed unsupervised)
    int leafValuesWrong = 0;        // leaf values that are not the scene's at their pixel
    std::vector<const int*> lists;  // distinct value lists the leaves hold
    bool roiValuesLeft = true;
    bool initialLabelsLeft = true;
};

void walk(TreeNode<PottsWS*>* node, const Scene& scene, Outcome& r) {
    PottsWS* ws = node->data;
    if (node->nChildren == 0) {
        for (int p = 0; p < ws->loadedCount; ++p)
            for (int b = 0; b < ws->bands; ++b)
                r.leafValuesWrong +=
                    ws->data[p * ws->bands + b] != scene.cube[b][ws->coords[p].x][ws->coords[p].y];
        const int* list = ws->sharedValues ? ws->sharedValues.get() : ws->data;
        if (std::find(r.lists.begin(), r.lists.end(), list) == r.lists.end()) r.lists.push_back(list);
    }
    for (int b = 0; b < ws->bands; ++b) r.means.push_back(ws->mi[b]);
    r.rootIndexed += ws->pixelIndex != nullptr;
    if (node->nChildren > 0) {
        ++r.inner;
        if (ws->data != nullptr || ws->coords != nullptr || ws->loadedCount != 0) ++r.innerWithPixels;
    }
    for (int c = 0; c < node->nChildren; ++c) walk(node->children[c], scene, r);
}

Outcome runOnce(bool release) {
    Scene scene(64, 64, 2);
    for (int r = 0; r < 64; ++r)
        for (int c = 0; c < 64; ++c) scene.truth[r][c] = 1 + (r >= 32 ? 2 : 0) + (c >= 32 ? 1 : 0);
    scene.paint({{10, 12}, {60, 45}, {110, 72}, {160, 108}}, 6);
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    // One initial region, as the front ends give when the user gives none.
    std::vector<int> ones(64, 1);
    std::vector<int*> onesRows(64, ones.data());
    std::unique_ptr<ROI<int, xy>> initial(roi->extractLabROI(onesRows.data(), 0, true));
    DHC_SET s;
    s.multiplicity = 2;
    s.betaMax = 1.5;
    s.splitGainThreshold = 0.01;
    s.maxNumberOfClasses = 4;
    s.minSplitArea = 8;
    DHC_IN in;
    in.roi = roi.get();
    in.settings = &s;
    in.initLabels = initial.get();
    in.releaseInputs = release;
    DHC_OUT out = DHC::dhc(in);
    Outcome r;
    if (out.labelRoi != nullptr)
        r.labels.assign(out.labelRoi->data, out.labelRoi->data + out.labelRoi->count);
    if (out.dhc != nullptr) walk(out.dhc->tree->root, scene, r);
    r.roiValuesLeft = roi->data != nullptr;
    r.initialLabelsLeft = initial->count > 0 && initial->data != nullptr && initial->coords != nullptr;
    return r;
}

}  // namespace

TEST(DHCMemory, SplitRegionsAndTheInputsAreLetGoWithoutChangingTheResult) {
    const Outcome kept = runOnce(false);
    const Outcome released = runOnce(true);
    EXPECT_TRUE(kept.roiValuesLeft);
    EXPECT_FALSE(released.roiValuesLeft);
    EXPECT_TRUE(kept.initialLabelsLeft);
    EXPECT_FALSE(released.initialLabelsLeft);
    ASSERT_EQ(released.inner, 3) << "four classes: three splits";
    EXPECT_EQ(released.innerWithPixels, 0);
    EXPECT_EQ(released.rootIndexed, 0);
    // The leaves' values are ranges of the one list the root held.
    for (const Outcome* o : {&kept, &released}) {
        EXPECT_EQ(o->leafValuesWrong, 0);
        EXPECT_EQ(o->lists.size(), 1u);
    }
    EXPECT_EQ(released.labels, kept.labels);
    EXPECT_EQ(released.means, kept.means);
    for (double m : released.means) EXPECT_TRUE(std::isfinite(m));
}
