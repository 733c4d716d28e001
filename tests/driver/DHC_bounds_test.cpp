// Settings at the edge of (or beyond) what a run is meant to see: every run
// ends, and the label map keeps only labels that some workspace owns.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "driver/DHC.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

using driver_test::Scene;

// The engine's progress lines go to a string while a test runs.
struct Quiet {
    std::ostringstream sink;
    std::ostream* previous = dhc::setOut(&sink);
    ~Quiet() { dhc::setOut(previous); }
};

std::set<int> labelsUnder(const PottsWS* ws) {
    int n = 0;
    std::unique_ptr<int[]> found(ws->root->labels(n));
    return std::set<int>(found.get(), found.get() + n);
}

struct Bounds : ::testing::Test {
    Scene scene = driver_test::fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi{scene.dataRoi()};
    std::unique_ptr<DHC_SET> s = driver_test::baseSettings();
    Quiet quiet;

    DHC_OUT run() {
        DHC_IN in;
        in.mode = 0;
        in.roi = roi.get();
        in.settings = s.get();
        return DHC::dhc(in);
    }
    // Every label of the final map belongs to a leaf of the tree.
    static void expectOwnedLabels(const DHC_OUT& out) {
        std::set<int> leaves;
        for (TreeNode<PottsWS*>* leaf : out.dhc->tree->terminals) leaves.insert(leaf->label);
        for (int k = 0; k < out.labelRoi->count; ++k) ASSERT_EQ(leaves.count(out.labelRoi->data[k]), 1u);
    }
};

}  // namespace

// Mean shift labels the leaf's samples by mode before the area rule refuses
// the split; the leaf must show its own label again afterwards.
TEST_F(Bounds, VariableMultiplicityOnALeafBelowTheMinimumAreaLeavesItsLabel) {
    DHC d(roi.get(), s->maxLabels, true, nullptr, s.get());
    d.tree->current = d.tree->root;
    SplittingOptions opts;
    opts.minSplitArea = 24 * 24 + 1;
    d.split(opts);
    ASSERT_NE(quiet.sink.str().find("Modes found:"), std::string::npos) << "mean shift found one mode only";
    EXPECT_EQ(d.tree->root->nChildren, 0);
    EXPECT_EQ(d.tree->root->data->splitState, -1);
    EXPECT_EQ(labelsUnder(d.tree->root->data), std::set<int>{d.tree->root->label});
}

// A threshold at which theta - 1 equals theta (or compares false with it) once
// let leaves with nothing to split win the best score, and the loop chose them
// forever.  Below every split gain, such a threshold splits exactly as far as
// an ordinary very low one: until no leaf has an eligible test split.
TEST_F(Bounds, GainThresholdsWithoutAnythingBelowThemEndTheSplitting) {
    s->maxNumberOfClasses = 100;
    s->splitGainThreshold = -1e6;
    DHC_OUT low = run();
    ASSERT_GE(low.nClasses, 4);
    for (double theta : {-1e17, -std::numeric_limits<double>::infinity()}) {
        SCOPED_TRACE(theta);
        s->splitGainThreshold = theta;
        DHC_OUT out = run();
        EXPECT_EQ(out.nClasses, low.nClasses);
        ASSERT_EQ(out.labelRoi->count, low.labelRoi->count);
        EXPECT_TRUE(
            std::equal(out.labelRoi->data, out.labelRoi->data + out.labelRoi->count, low.labelRoi->data));
    }
    // No score reaches a NaN threshold's test; the run ends with what it has.
    s->splitGainThreshold = std::numeric_limits<double>::quiet_NaN();
    DHC_OUT nan = run();
    EXPECT_GE(nan.nClasses, 1);
    expectOwnedLabels(nan);
}

// A ground truth is read into the label map as labels; a negative one used to
// be written before the label table (heap corruption).  The core now stops
// through the fatal door with a message naming it.
TEST_F(Bounds, NegativeGroundTruthLabelIsFatalNotACorruption) {
    struct Thrown {
        int status;
        std::string message;
    };
    for (int r = 0; r < scene.rows; ++r)
        for (int c = 0; c < scene.cols; ++c)
            if (scene.truth[r][c] == 1) scene.truth[r][c] = -1;
    std::unique_ptr<ROI<int, xy>> gt(scene.truthRoi(roi.get()));
    s->supervisedMode = true;
    s->numberOfClasses = 4;
    s->structureLevels = new int[4]{1, 1, 1, 1};
    s->structurePaths = new int[4]{0, 1, 2, 3};
    DHC_IN in;
    in.mode = 1;
    in.roi = roi.get();
    in.gt = gt.get();
    in.settings = s.get();
    const dhc::FatalHandler previous =
        dhc::setFatalHandler([](int status, const std::string& message, dhc::FatalChannel) {
            throw Thrown{status, message};
        });
    Thrown caught{0, ""};
    try {
        DHC::dhc(in);
    } catch (const Thrown& e) {
        caught = e;
    }
    dhc::setFatalHandler(previous);
    EXPECT_EQ(caught.status, -1);
    EXPECT_NE(caught.message.find("negative label -1"), std::string::npos) << caught.message;
}

// Far more classes than pixels: the clustering runs out of pixels for its
// codewords, every split is refused, and the run ends with the root alone.
TEST_F(Bounds, MultiplicityAbovePixelCountEndsUnsplit) {
    s->multiplicity = 1000;
    s->minSplitArea = 0;
    DHC_OUT out = run();
    EXPECT_EQ(out.nClasses, 1);
    expectOwnedLabels(out);
}
