// Whole runs of the driver on small synthetic scenes.  What the command-line
// tests already show (four classes found, balanced depth, class limit 1, blind
// depth, supervised structure, fragments, reproducibility) is not repeated
// here; these are the rules the tool cannot reach or see.

#include "driver/DHC.h"

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

using driver_test::Scene;
using driver_test::baseSettings;
using driver_test::fourQuadrants;

// 20 x 20 background (class 1) with two separate squares of class 2.
Scene twoBlobs() {
    Scene s(20, 20, 1);
    for (int r = 0; r < 20; ++r)
        for (int c = 0; c < 20; ++c) {
            const bool blobA = r >= 2 && r < 8 && c >= 2 && c < 8;
            const bool blobB = r >= 12 && r < 18 && c >= 11 && c < 18;
            s.truth[r][c] = (blobA || blobB) ? 2 : 1;
        }
    s.paint({{20}, {90}}, 3);
    return s;
}

DHC_IN memoryInput(ROI<int, xy>* roi, DHC_SET* settings, ROI<int, xy>* gt = nullptr) {
    DHC_IN in;
    in.mode = settings->supervisedMode ? 1 : 0;
    in.roi = roi;
    in.gt = gt;
    in.settings = settings;
    return in;
}

// The four-quadrant scene with settings each test adjusts before run().
struct Quadrants : ::testing::Test {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi{scene.dataRoi()};
    std::unique_ptr<DHC_SET> s = baseSettings();

    DHC_IN input() { return memoryInput(roi.get(), s.get()); }
    DHC_OUT run() { return DHC::dhc(input()); }
};
using QuadrantsDeathTest = Quadrants;

// A supervised run whose split must fail: two ground-truth classes over
// identical pixels, so the second class can win no pixel.
struct FailingSupervisedRun {
    Scene scene{8, 8, 1};
    std::unique_ptr<ROI<int, xy>> roi, gt;
    std::unique_ptr<DHC_SET> settings = baseSettings();

    FailingSupervisedRun() {
        for (int r = 0; r < 8; ++r)
            for (int c = 0; c < 8; ++c) scene.truth[r][c] = c < 4 ? 1 : 2;
        scene.paint({{50}, {50}}, 0);
        roi.reset(scene.dataRoi());
        gt.reset(scene.truthRoi(roi.get()));
        settings->supervisedMode = true;
        settings->numberOfClasses = 2;
        settings->structureLevels = new int[2]{1, 1};
        settings->structurePaths = new int[2]{0, 1};
    }
    DHC_IN input() { return memoryInput(roi.get(), settings.get(), gt.get()); }
};

// Number of 8-connected pieces of the points carrying `label`.
int components(const ROI<int, xy>* roi, int label) {
    std::vector<std::vector<int>> grid(roi->height, std::vector<int>(roi->width, 0));
    for (int k = 0; k < roi->count; ++k) grid[roi->coords[k].x][roi->coords[k].y] = roi->data[k] == label;
    // Clears the piece holding (r, c); 1 if there was one.
    std::function<int(int, int)> fill = [&](int r, int c) {
        if (r < 0 || c < 0 || r >= roi->height || c >= roi->width || grid[r][c] != 1) return 0;
        grid[r][c] = 2;
        for (int dr = -1; dr <= 1; ++dr)
            for (int dc = -1; dc <= 1; ++dc) fill(r + dr, c + dc);
        return 1;
    };
    int count = 0;
    for (int r = 0; r < roi->height; ++r)
        for (int c = 0; c < roi->width; ++c) count += fill(r, c);
    return count;
}

}  // namespace

TEST_F(Quadrants, LeavesSmallerThanTheMinimumAreaAreNotSplit) {
    s->minSplitArea = 24 * 24 + 1;
    EXPECT_EQ(run().nClasses, 1);
}

TEST_F(Quadrants, BalancedTreeSplitsTiesInTerminalListOrder) {
    s->balancedTree = true;
    s->growDepth = 2;
    std::vector<std::pair<int, int>> calls;
    DHC::setProgress([&](int leaves, int label) { calls.emplace_back(leaves, label); });
    DHC_OUT out = run();
    DHC::setProgress(nullptr);
    // Labels by allocation order: root 2 -> test children 3, 4; then the test
    // splits of 3 (5, 6) and 4 (7, 8).  3 and 4 tie (one level left each):
    // 3, first in the terminal list, goes first.
    const std::vector<std::pair<int, int>> expected{{2, 2}, {3, 3}, {4, 4}};
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(out.nClasses, 4);
}

TEST_F(Quadrants, BlindSplitsFollowTheirScore) {
    s->blind = true;
    s->maxNumberOfClasses = 100;
    s->metric = 0;
    s->splitGainThreshold = 200;  // area >= 200 to split
    DHC_OUT byArea = run();
    int n = 0;
    std::unique_ptr<int[]> seq(byArea.dhc->extractSplitSequence(n));
    ASSERT_GE(n, 1);
    for (int i = 0; i < n; ++i) EXPECT_GE(byArea.dhc->tree->root->find(seq[i])->data->root->area, 200);

    // 1 / (depth + 1) >= 0.9: the root alone is split, and with variable
    // multiplicity into as many children as the mean-shift estimate announces.
    s->metric = 7;
    s->splitGainThreshold = 0.9;
    s->variableMultiplicity = true;
    std::ostringstream sink;
    std::ostream* previous = dhc::setOut(&sink);
    DHC_OUT byDepth = run();
    dhc::setOut(previous);
    const std::string text = sink.str();
    const size_t at = text.find(" subregions...\n"), in = text.rfind(" in ", at);
    ASSERT_TRUE(at != std::string::npos && in != std::string::npos) << text;
    EXPECT_EQ(byDepth.nClasses, std::stoi(text.substr(in + 4, at - in - 4)));
}

TEST(DhcDisconnect, EveryLeafIsOneConnectedPiece) {
    // Each way of cutting regions into connected pieces ends with background,
    // blob A and blob B as three leaves.  In gain mode the class count is
    // weighted: the two blobs of one split count as one class, so a limit of
    // 2 still lets the root split.
    struct Case {
        const char* name;
        bool blind, fragmentation, initialLabels;
        int maxClasses;
        double threshold;
    };
    const Case cases[] = {
        {"gain mode, fragmentation requested too", false, true, false, 2, 1.0},
        {"blind, only the root (400 pixels) reaches the area", true, false, false, 100, 350},
        {"initial labels cut into pieces", false, false, true, 3, 1.0},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        Scene scene = twoBlobs();
        std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
        std::unique_ptr<ROI<int, xy>> init(scene.truthRoi(roi.get()));
        auto s = baseSettings();
        s->splitwiseDisconnect = true;
        s->blind = k.blind;
        s->fragmentation = k.fragmentation;
        s->maxNumberOfClasses = k.maxClasses;
        s->splitGainThreshold = k.threshold;
        DHC_IN in = memoryInput(roi.get(), s.get());
        if (k.initialLabels) in.initLabels = init.get();
        DHC_OUT out = DHC::dhc(in);
        EXPECT_EQ(out.fragRoi, nullptr);
        EXPECT_EQ(out.nClasses, 3);
        for (TreeNode<PottsWS*>* leaf : out.dhc->tree->terminals)
            EXPECT_EQ(components(out.labelRoi, leaf->label), 1) << "leaf " << leaf->label;
    }
}

TEST_F(QuadrantsDeathTest, UnknownMetricAndFailedSupervisedSplitEndTheProcess) {
    s->blind = true;
    s->metric = 9;
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(-20 & 0xff), "");
    FailingSupervisedRun failing;
    EXPECT_EXIT(
        {
            dhc::setOut(&std::cerr);  // so the message can be matched
            DHC::dhc(failing.input());
        },
        ::testing::ExitedWithCode(-2 & 0xff), "supSplitting!");
}

// A host whose fatal handler throws (the MEX module) gets the exception with
// everything the run had built already released (checked under valgrind).
TEST_F(Quadrants, ThrowingFatalHandlerUnwindsOutOfTheRun) {
    struct Thrown {
        int status;
    };
    const dhc::FatalHandler previous =
        dhc::setFatalHandler([](int status, const std::string&, dhc::FatalChannel) { throw Thrown{status}; });
    auto statusOf = [](const DHC_IN& in) {
        try {
            DHC::dhc(in);
        } catch (const Thrown& e) {
            return e.status;
        }
        return 0;
    };
    s->blind = true;
    s->metric = 42;
    EXPECT_EQ(statusOf(input()), -20);

    FailingSupervisedRun failing;
    std::ostringstream sink;
    std::ostream* previousOut = dhc::setOut(&sink);
    EXPECT_EQ(statusOf(failing.input()), -2);
    dhc::setOut(previousOut);
    dhc::setFatalHandler(previous);
    EXPECT_EQ(sink.str(), "supSplitting!\n");
}

// The label statistics are exact for every int32 value: the quadrants scaled
// into the 16-bit range (where 32-bit products wrap) and close to the int32
// limit give the partition of the unscaled scene.  Scaling all values leaves
// every split gain unchanged, so nothing else may differ.
TEST(DhcValueRange, ScaledScenesGiveTheSamePartition) {
    auto partition = [](int scale) {
        Scene scene = fourQuadrants();
        for (auto& band : scene.cube)
            for (auto& row : band)
                for (int& v : row) v *= scale;
        std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
        std::unique_ptr<DHC_SET> s = baseSettings();
        DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
        std::vector<int> labels(out.labelRoi->data, out.labelRoi->data + out.labelRoi->count);
        return std::make_pair(out.nClasses, labels);
    };
    const auto reference = partition(1);
    ASSERT_EQ(reference.first, 4);
    for (int scale : {500, 19000000}) {  // largest values 54,000 and 2,052,000,000
        const auto scaled = partition(scale);
        EXPECT_EQ(scaled.first, 4) << "scale " << scale;
        ASSERT_EQ(scaled.second.size(), reference.second.size());
        std::map<int, int> to, from;
        for (size_t k = 0; k < scaled.second.size(); ++k) {
            EXPECT_EQ(to.emplace(reference.second[k], scaled.second[k]).first->second, scaled.second[k]);
            EXPECT_EQ(from.emplace(scaled.second[k], reference.second[k]).first->second, reference.second[k]);
        }
    }
}
