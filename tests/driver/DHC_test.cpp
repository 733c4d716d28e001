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
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/TestSupport.h"
#include "data/ImageFile.h"
#include "data/LabelController.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

using driver_test::Scene;

// 24 x 24, four quadrant classes well apart along both bands.
Scene fourQuadrants() {
    Scene s(24, 24, 2);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c) s.truth[r][c] = 1 + (r >= 12 ? 2 : 0) + (c >= 12 ? 1 : 0);
    s.paint({{10, 12}, {40, 45}, {70, 72}, {100, 108}}, 3);
    return s;
}

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

std::unique_ptr<DHC_SET> baseSettings() {
    std::unique_ptr<DHC_SET> s(new DHC_SET());
    s->multiplicity = 2;
    s->betaMin = 0.0;
    s->betaMax = 1.5;
    s->splitGainThreshold = 0.01;
    s->maxNumberOfClasses = 4;
    s->minSplitArea = 8;
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
    std::function<void(int, int)> fill = [&](int r, int c) {
        if (r < 0 || c < 0 || r >= roi->height || c >= roi->width || grid[r][c] != 1) return;
        grid[r][c] = 2;
        for (int dr = -1; dr <= 1; ++dr)
            for (int dc = -1; dc <= 1; ++dc) fill(r + dr, c + dc);
    };
    int count = 0;
    for (int r = 0; r < roi->height; ++r)
        for (int c = 0; c < roi->width; ++c)
            if (grid[r][c] == 1) {
                ++count;
                fill(r, c);
            }
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

TEST_F(Quadrants, BlindAreaMetricLeavesSmallRegionsAlone) {
    s->blind = true;
    s->metric = 0;
    s->splitGainThreshold = 200;  // area >= 200 to split
    s->maxNumberOfClasses = 100;
    DHC_OUT out = run();
    int n = 0;
    std::unique_ptr<int[]> seq(out.dhc->extractSplitSequence(n));
    ASSERT_GE(n, 1);
    for (int i = 0; i < n; ++i) EXPECT_GE(out.dhc->tree->root->find(seq[i])->data->root->area, 200);
}

TEST_F(Quadrants, BlindVariableMultiplicityAnnouncesTheEstimatedClassCount) {
    s->blind = true;
    s->metric = 7;                // 1 / (depth + 1)
    s->splitGainThreshold = 0.9;  // the root only
    s->maxNumberOfClasses = 100;
    s->variableMultiplicity = true;
    std::ostringstream sink;
    std::ostream* previous = dhc::setOut(&sink);
    DHC_OUT out = run();
    dhc::setOut(previous);
    const std::string text = sink.str();
    const size_t at = text.find(" subregions...\n");
    const size_t in = text.rfind(" in ", at);
    ASSERT_TRUE(at != std::string::npos && in != std::string::npos) << text;
    // The root alone is split, into as many children as announced.
    EXPECT_EQ(out.nClasses, std::stoi(text.substr(in + 4, at - in - 4)));
}

TEST(DhcSplitOption, PiecesAreSplitAloneAndRegroupedByNearestMean) {
    // Two separate 6 x 8 squares (the mask leaves out columns 8 to 11), each
    // dark on its left half and bright on its right half.
    Scene scene(6, 20, 1);
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 20; ++c) {
            scene.truth[r][c] = (c % 12) < 4 ? 1 : 2;
            scene.mask[r][c] = (c < 8 || c >= 12) ? 1 : 0;
        }
    scene.paint({{20}, {90}}, 3);
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    DHC d(roi.get(), 1000, false, nullptr, s.get());
    SplittingOptions o;
    o.splitOption = 2;
    o.minSplitArea = 4;
    d.tree->current = d.tree->root;
    d.split(o);
    // Labels: root 2; pieces 3, 4; their children 5, 6 and 7, 8; the leaf's
    // children 9, 10.  Everything but the leaf's children is given back.
    TreeNode<PottsWS*>* root = d.tree->root;
    ASSERT_EQ(root->nChildren, 2);
    EXPECT_EQ(root->children[0]->label, 9);
    EXPECT_EQ(root->children[1]->label, 10);
    EXPECT_EQ(d.labels->pick(), 3);
    // Each child gathers one half of both squares: 2 x 24 pixels of one brightness.
    std::set<int> brightness;
    for (int c = 0; c < 2; ++c) {
        PottsWS* child = root->children[c]->data;
        EXPECT_EQ(child->root->area, 48);
        const int near = child->mi[0] < 55 ? 20 : 90;
        EXPECT_NEAR(child->mi[0], near, 2.0);
        brightness.insert(near);
    }
    EXPECT_EQ(brightness.size(), 2u);
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

TEST_F(Quadrants, OutputRecordIsMoveOnlyAndAnUnknownModeRunsNothing) {
    static_assert(!std::is_copy_constructible<DHC_OUT>::value, "DHC_OUT must not be copied");
    s->fragmentation = true;
    DHC_OUT first = run();
    first.rows = 1;
    first.labelMap = new int* [1] { new int[3]() };
    DHC* driver = first.dhc;
    DHC_OUT second(std::move(first));
    EXPECT_TRUE(first.dhc == nullptr && first.labelRoi == nullptr && first.labelMap == nullptr);
    DHC_OUT third;
    third = std::move(second);  // each owned pointer is freed once (checked under valgrind)
    EXPECT_TRUE(third.dhc == driver && third.fragRoi != nullptr && third.labelMap != nullptr &&
                third.rows == 1);

    DHC_IN none = input();
    none.mode = 5;
    DHC_OUT empty = DHC::dhc(none);
    EXPECT_TRUE(empty.dhc == nullptr && empty.rows == -1 && empty.labelRoi == nullptr);
}

TEST_F(Quadrants, FileSourceRunWritesTheCompactedLabelMap) {
    std::vector<std::vector<int*>> bandRows(scene.bands, std::vector<int*>(scene.rows));
    std::vector<int**> planes(scene.bands);
    for (int b = 0; b < scene.bands; ++b) {
        for (int r = 0; r < scene.rows; ++r) bandRows[b][r] = scene.cube[b][r].data();
        planes[b] = bandRows[b].data();
    }
    DHC_IN in;
    in.source = 1;
    in.settings = s.get();
    in.dataFile = dhc::test::tmpPath("dhc_file_source.hraw");
    in.outputFile = dhc::test::tmpPath("dhc_file_source_out.hraw");
    ImageFile<int>::writeHRawInt32(in.dataFile, planes.data(), scene.bands, scene.rows, scene.cols);
    DHC_OUT out = DHC::dhc(in);
    ASSERT_NE(out.labelRoi, nullptr);
    EXPECT_EQ(out.nClasses, 4);
    // The file holds the labels renumbered 1, 2, ... in raster order of first
    // appearance; the label ROI of a file run lists the pixels in raster order.
    int bands = 0, rows = 0, cols = 0;
    int*** cube = ImageFile<int>::readHRawInt32(in.outputFile, bands, rows, cols);
    ASSERT_TRUE(bands == 1 && rows == scene.rows && cols == scene.cols);
    ASSERT_EQ(out.labelRoi->count, rows * cols);
    std::map<int, int> renumber;
    for (int k = 0; k < out.labelRoi->count; ++k) {
        const int v = out.labelRoi->data[k];
        renumber.emplace(v, static_cast<int>(renumber.size()) + 1);
        EXPECT_EQ(cube[0][k / cols][k % cols], renumber[v]) << "pixel " << k;
    }
    ImageFile<int>::deleteCube(cube, bands, rows);
}
