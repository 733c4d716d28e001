// The driver end to end on small synthetic scenes: what a run produces
// (classes, tree shape, fragments, reports), its tie rules and its fatal exits.

#include "driver/DHC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "data/ImageFile.h"
#include "data/LabelController.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"
#include "workspace/WSReport.h"

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

DHC_IN memoryInput(ROI<int, xy>* roi, DHC_SET* settings) {
    DHC_IN in;
    in.mode = settings->supervisedMode ? 1 : 0;
    in.source = 0;
    in.roi = roi;
    in.settings = settings;
    return in;
}

std::vector<int> values(const ROI<int, xy>* roi) {
    return std::vector<int>(roi->data, roi->data + roi->count);
}

// Largest fraction of points on which `got` equals `want` under some
// one-to-one renaming of got's labels (exhaustive over the truth labels).
double bestAgreement(const std::vector<int>& got, const std::vector<int>& want) {
    std::vector<int> gl(got), wl(want);
    std::sort(gl.begin(), gl.end());
    gl.erase(std::unique(gl.begin(), gl.end()), gl.end());
    std::sort(wl.begin(), wl.end());
    wl.erase(std::unique(wl.begin(), wl.end()), wl.end());
    while (wl.size() < gl.size()) wl.push_back(-1000 - static_cast<int>(wl.size()));
    size_t best = 0;
    do {
        std::map<int, int> rename;
        for (size_t i = 0; i < gl.size(); ++i) rename[gl[i]] = wl[i];
        size_t hits = 0;
        for (size_t k = 0; k < got.size(); ++k) hits += rename[got[k]] == want[k];
        best = std::max(best, hits);
    } while (std::next_permutation(wl.begin(), wl.end()));
    return static_cast<double>(best) / static_cast<double>(got.size());
}

std::set<int> distinct(const std::vector<int>& v) {
    return std::set<int>(v.begin(), v.end());
}

std::string slurp(const std::string& path) {
    std::ifstream is(path, std::ios::binary);
    std::ostringstream ss;
    ss << is.rdbuf();
    return ss.str();
}

std::string tmpPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    return std::string(dir != nullptr ? dir : "/tmp") + "/" + name;
}

}  // namespace

// ---------------------------------------------------------------------------
// Gain-driven and balanced splitting

TEST(DhcUnsupervised, FourClassSceneIsSegmentedIntoItsClasses) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    std::unique_ptr<ROI<int, xy>> truth(scene.truthRoi(roi.get()));
    auto s = baseSettings();
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    ASSERT_NE(out.dhc, nullptr);
    ASSERT_NE(out.labelRoi, nullptr);
    EXPECT_EQ(out.fragRoi, nullptr);
    EXPECT_EQ(out.nClasses, 4);
    EXPECT_EQ(out.labelRoi->count, roi->count);
    EXPECT_EQ(out.labelRoi->height, roi->height);
    EXPECT_EQ(out.labelRoi->width, roi->width);
    EXPECT_GE(bestAgreement(values(out.labelRoi), values(truth.get())), 0.99);
    // The labels of the result are exactly the leaves' labels.
    std::set<int> leaves;
    for (TreeNode<PottsWS*>* leaf : out.dhc->tree->terminals) leaves.insert(leaf->label);
    EXPECT_EQ(distinct(values(out.labelRoi)), leaves);
}

TEST(DhcUnsupervised, OneClassAllowedMeansNoSplit) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->maxNumberOfClasses = 1;
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    EXPECT_EQ(out.nClasses, 1);
    // Label 1 frames the map; the root takes the second label handed out.
    EXPECT_EQ(distinct(values(out.labelRoi)), std::set<int>{2});
    int n = -1;
    std::unique_ptr<int[]> seq(out.dhc->extractSplitSequence(n));
    EXPECT_EQ(n, 0);
    WSReport** reports = out.dhc->reportAllWSs(n);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(reports[0]->WSLab, 2);
    EXPECT_EQ(reports[0]->nChildren, 0);
    EXPECT_TRUE(reports[0]->terminal);
    EXPECT_EQ(reports[0]->nOffspring, 0);
    EXPECT_EQ(reports[0]->offspring, nullptr);
    EXPECT_EQ(reports[0]->area, 24 * 24);
    delete reports[0];
    delete[] reports;
}

TEST(DhcUnsupervised, LeavesSmallerThanTheMinimumAreaAreNotSplit) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->minSplitArea = 24 * 24 + 1;
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    EXPECT_EQ(out.nClasses, 1);
}

TEST(DhcUnsupervised, BalancedTreeStopsAtTheDepthLimitAndSplitsTiesInListOrder) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->balancedTree = true;
    s->growDepth = 2;
    s->maxNumberOfClasses = 1;  // not consulted in balanced mode
    std::vector<std::pair<int, int>> calls;
    DHC::setProgress([&](int leaves, int label) { calls.emplace_back(leaves, label); });
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    DHC::setProgress(nullptr);
    EXPECT_LE(out.nClasses, 4);
    for (TreeNode<PottsWS*>* leaf : out.dhc->tree->terminals) EXPECT_LE(leaf->depth, 2);
    // Labels by allocation order: root 2 -> test children 3, 4; then the test
    // splits of 3 (5, 6) and 4 (7, 8).  3 and 4 tie (one level left each):
    // 3, first in the terminal list, goes first.
    const std::vector<std::pair<int, int>> expected{{2, 2}, {3, 3}, {4, 4}};
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(distinct(values(out.labelRoi)), (std::set<int>{5, 6, 7, 8}));
}

TEST(DhcUnsupervised, InitialLabelsSeedTheTree) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    // Initial segmentation: left half 7, right half 9.
    std::vector<std::vector<int>> halves(scene.rows, std::vector<int>(scene.cols));
    std::vector<int*> rowPtr(scene.rows);
    for (int r = 0; r < scene.rows; ++r) {
        for (int c = 0; c < scene.cols; ++c) halves[r][c] = c < 12 ? 7 : 9;
        rowPtr[r] = halves[r].data();
    }
    std::unique_ptr<ROI<int, xy>> init(roi->extractLabROI(rowPtr.data(), 0, true));
    auto s = baseSettings();
    s->maxNumberOfClasses = 2;
    DHC_IN in = memoryInput(roi.get(), s.get());
    in.initLabels = init.get();
    DHC_OUT out = DHC::dhc(in);
    // The two initial classes become the root's children with fresh labels
    // 3 and 4 (ascending initial value order); two classes are already enough.
    ASSERT_EQ(out.dhc->tree->root->nChildren, 2);
    EXPECT_EQ(out.nClasses, 2);
    for (int k = 0; k < out.labelRoi->count; ++k)
        EXPECT_EQ(out.labelRoi->data[k], init->data[k] == 7 ? 3 : 4);
}

// ---------------------------------------------------------------------------
// Blind splitting

TEST(DhcBlind, DepthLimitSplitsOnlyTheRootAndItsChildren) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->blind = true;
    s->maxNumberOfClasses = 100;
    s->blindDepth = 1;
    s->updateBlindActive();
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    int n = 0;
    std::unique_ptr<int[]> seq(out.dhc->extractSplitSequence(n));
    ASSERT_GE(n, 1);
    for (int i = 0; i < n; ++i) EXPECT_LE(out.dhc->tree->root->find(seq[i])->depth, 1);
    EXPECT_LE(out.nClasses, 4);
    EXPECT_GE(out.nClasses, 2);
}

TEST(DhcBlind, AreaMetricLeavesSmallRegionsAlone) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->blind = true;
    s->metric = 0;
    s->splitGainThreshold = 200;  // area >= 200 to split
    s->maxNumberOfClasses = 100;
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    int n = 0;
    std::unique_ptr<int[]> seq(out.dhc->extractSplitSequence(n));
    ASSERT_GE(n, 1);
    for (int i = 0; i < n; ++i) EXPECT_GE(out.dhc->tree->root->find(seq[i])->data->root->area, 200);
}

TEST(DhcBlindDeathTest, UnknownMetricEndsTheProcessWithMinus20) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->blind = true;
    s->metric = 9;
    EXPECT_EXIT(DHC::dhc(memoryInput(roi.get(), s.get())), ::testing::ExitedWithCode(-20 & 0xff), "");
}

// ---------------------------------------------------------------------------
// Supervised mode

namespace {
void fourClassStructure(DHC_SET* s) {
    s->supervisedMode = true;
    s->numberOfClasses = 4;
    s->structureLevels = new int[4]{2, 2, 2, 2};
    s->structurePaths = new int[8]{0, 0, 0, 1, 1, 0, 1, 1};
}
}  // namespace

TEST(DhcSupervised, TwoLevelStructureReproducesTheGroundTruth) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    std::unique_ptr<ROI<int, xy>> gt(scene.truthRoi(roi.get()));
    auto s = baseSettings();
    fourClassStructure(s.get());
    DHC_IN in = memoryInput(roi.get(), s.get());
    in.gt = gt.get();
    DHC_OUT out = DHC::dhc(in);
    EXPECT_EQ(out.nClasses, 4);
    // Root split in two, each child in two: the structure's shape.
    ASSERT_EQ(out.dhc->tree->root->nChildren, 2);
    EXPECT_EQ(out.dhc->tree->root->children[0]->nChildren, 2);
    EXPECT_EQ(out.dhc->tree->root->children[1]->nChildren, 2);
    size_t agree = 0;
    for (int k = 0; k < gt->count; ++k) agree += out.labelRoi->data[k] == gt->data[k];
    EXPECT_GE(static_cast<double>(agree) / gt->count, 0.99);
}

TEST(DhcSupervisedDeathTest, AFailedSupervisedSplitEndsTheProcessWithMinus2) {
    // Two ground-truth classes over identical pixels: the second class can win
    // no pixel, so the split fails.
    Scene scene(8, 8, 1);
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) scene.truth[r][c] = c < 4 ? 1 : 2;
    scene.paint({{50}, {50}}, 0);
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    std::unique_ptr<ROI<int, xy>> gt(scene.truthRoi(roi.get()));
    auto s = baseSettings();
    s->supervisedMode = true;
    s->numberOfClasses = 2;
    s->structureLevels = new int[2]{1, 1};
    s->structurePaths = new int[2]{0, 1};
    DHC_IN in = memoryInput(roi.get(), s.get());
    in.gt = gt.get();
    EXPECT_EXIT(
        {
            dhc::setOut(&std::cerr);  // so the message can be matched
            DHC::dhc(in);
        },
        ::testing::ExitedWithCode(-2 & 0xff), "supSplitting!");
}

// ---------------------------------------------------------------------------
// Fragmentation

namespace {
// Background class 1 with two separate squares of class 2.
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

// A gain threshold that the class split clears easily and a split of
// uniform noise does not.
std::unique_ptr<DHC_SET> blobSettings() {
    auto s = baseSettings();
    s->maxNumberOfClasses = 2;
    s->splitGainThreshold = 1.0;
    return s;
}

// Number of 8-connected components of the points carrying `label`.
int components(const ROI<int, xy>* roi, int label) {
    std::vector<std::vector<int>> grid(roi->height, std::vector<int>(roi->width, -1));
    for (int k = 0; k < roi->count; ++k) grid[roi->coords[k].x][roi->coords[k].y] = roi->data[k];
    std::vector<std::vector<bool>> seen(roi->height, std::vector<bool>(roi->width, false));
    int count = 0;
    for (int r = 0; r < roi->height; ++r)
        for (int c = 0; c < roi->width; ++c) {
            if (grid[r][c] != label || seen[r][c]) continue;
            ++count;
            std::vector<std::pair<int, int>> stack{{r, c}};
            seen[r][c] = true;
            while (!stack.empty()) {
                auto [y, x] = stack.back();
                stack.pop_back();
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int yy = y + dy, xx = x + dx;
                        if (yy < 0 || xx < 0 || yy >= roi->height || xx >= roi->width) continue;
                        if (grid[yy][xx] != label || seen[yy][xx]) continue;
                        seen[yy][xx] = true;
                        stack.emplace_back(yy, xx);
                    }
            }
        }
    return count;
}
}  // namespace

TEST(DhcFragmentation, FragmentsAreConnectedPiecesOfTheClasses) {
    Scene scene = twoBlobs();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    std::unique_ptr<ROI<int, xy>> truth(scene.truthRoi(roi.get()));
    auto s = blobSettings();
    s->fragmentation = true;
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    ASSERT_NE(out.fragRoi, nullptr);
    EXPECT_EQ(out.nClasses, 2);
    EXPECT_GE(bestAgreement(values(out.labelRoi), values(truth.get())), 0.99);
    std::map<int, std::set<int>> classesOfFragment;
    for (int k = 0; k < out.fragRoi->count; ++k)
        classesOfFragment[out.fragRoi->data[k]].insert(out.labelRoi->data[k]);
    // Background plus two blobs.
    EXPECT_EQ(classesOfFragment.size(), 3u);
    for (const auto& [fragment, classes] : classesOfFragment) {
        EXPECT_EQ(classes.size(), 1u) << "fragment " << fragment << " straddles classes";
        EXPECT_EQ(components(out.fragRoi, fragment), 1) << "fragment " << fragment;
    }
}

TEST(DhcFragmentation, SplitwiseDisconnectionProducesNoFragmentRoi) {
    Scene scene = twoBlobs();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = blobSettings();
    s->fragmentation = true;
    s->splitwiseDisconnect = true;
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    EXPECT_EQ(out.fragRoi, nullptr);
    // The class count is weighted: the two blobs together count as one class,
    // yet each is a leaf of its own.
    EXPECT_EQ(out.nClasses, 3);
    for (TreeNode<PottsWS*>* leaf : out.dhc->tree->terminals)
        EXPECT_EQ(components(out.labelRoi, leaf->label), 1);
}

// ---------------------------------------------------------------------------
// Reproducibility and the output record

TEST(DhcOutput, TheSameRunTwiceGivesIdenticalResultsAndReports) {
    Scene scene = fourQuadrants();
    std::string reports[2];
    std::vector<int> labels[2];
    for (int run = 0; run < 2; ++run) {
        std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
        auto s = baseSettings();
        DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
        labels[run] = values(out.labelRoi);
        const std::string path = tmpPath("dhc_repeat_" + std::to_string(run) + ".txt");
        out.dhc->printReport(path, true, true);
        reports[run] = slurp(path);
    }
    EXPECT_EQ(labels[0], labels[1]);
    EXPECT_FALSE(reports[0].empty());
    EXPECT_EQ(reports[0], reports[1]);
}

TEST(DhcOutput, OutputRecordIsMoveOnlyAndReleasesEverything) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->fragmentation = true;
    DHC_OUT first = DHC::dhc(memoryInput(roi.get(), s.get()));
    first.rows = 2;
    first.labelMap = new int* [2] { new int[3](), new int[3]() };
    DHC* driver = first.dhc;
    DHC_OUT second(std::move(first));
    EXPECT_EQ(first.dhc, nullptr);
    EXPECT_EQ(first.labelRoi, nullptr);
    EXPECT_EQ(first.labelMap, nullptr);
    EXPECT_EQ(second.dhc, driver);
    DHC_OUT third;
    third = std::move(second);
    EXPECT_EQ(third.dhc, driver);
    EXPECT_NE(third.fragRoi, nullptr);
    EXPECT_EQ(third.rows, 2);
    static_assert(!std::is_copy_constructible<DHC_OUT>::value, "DHC_OUT must not be copied");
    // A mode other than 0 or 1 runs nothing.
    DHC_IN none = memoryInput(roi.get(), s.get());
    none.mode = 5;
    DHC_OUT empty = DHC::dhc(none);
    EXPECT_EQ(empty.dhc, nullptr);
    EXPECT_EQ(empty.rows, -1);
    EXPECT_EQ(empty.labelRoi, nullptr);
}

TEST(DhcOutput, FileSourceRunWritesTheCompactedLabelMap) {
    Scene scene = fourQuadrants();
    std::vector<std::vector<int*>> bandRows(scene.bands, std::vector<int*>(scene.rows));
    std::vector<int**> planes(scene.bands);
    for (int b = 0; b < scene.bands; ++b) {
        for (int r = 0; r < scene.rows; ++r) bandRows[b][r] = scene.cube[b][r].data();
        planes[b] = bandRows[b].data();
    }
    const std::string dataPath = tmpPath("dhc_file_source.hraw");
    const std::string mapPath = tmpPath("dhc_file_source_out.hraw");
    ImageFile<int>::writeHRawInt32(dataPath, planes.data(), scene.bands, scene.rows, scene.cols);
    auto s = baseSettings();
    DHC_IN in;
    in.mode = 0;
    in.source = 1;
    in.settings = s.get();
    in.dataFile = dataPath;
    in.outputFile = mapPath;
    DHC_OUT out = DHC::dhc(in);
    ASSERT_NE(out.labelRoi, nullptr);
    ASSERT_EQ(out.labelRoi->count, scene.rows * scene.cols);
    EXPECT_EQ(out.nClasses, 4);
    // The file holds the labels renumbered 1, 2, ... in raster order of first
    // appearance; the label ROI of a file run lists the pixels in raster order.
    std::map<int, int> renumber;
    std::vector<int> expected;
    for (int k = 0; k < out.labelRoi->count; ++k) {
        const int v = out.labelRoi->data[k];
        if (!renumber.count(v)) renumber[v] = static_cast<int>(renumber.size()) + 1;
        expected.push_back(renumber[v]);
    }
    int bands = 0, rows = 0, cols = 0;
    int*** cube = ImageFile<int>::readHRawInt32(mapPath, bands, rows, cols);
    ASSERT_EQ(bands, 1);
    ASSERT_EQ(rows, scene.rows);
    ASSERT_EQ(cols, scene.cols);
    std::vector<int> written;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) written.push_back(cube[0][r][c]);
    ImageFile<int>::deleteCube(cube, bands, rows);
    EXPECT_EQ(written, expected);
}

// ---------------------------------------------------------------------------
// A host whose fatal handler throws (the MEX module) gets the exception with
// everything the run had built already released (checked under valgrind).

namespace {
struct FatalThrown {
    int status;
};
void throwingHandler(int status, const std::string&, dhc::FatalChannel) {
    throw FatalThrown{status};
}
}  // namespace

TEST(DhcFatal, ThrowingHandlerUnwindsOutOfTheRun) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    std::unique_ptr<ROI<int, xy>> gt(scene.truthRoi(roi.get()));
    dhc::FatalHandler previous = dhc::setFatalHandler(throwingHandler);

    auto blind = baseSettings();
    blind->blind = true;
    blind->metric = 42;
    int status = 0;
    try {
        DHC::dhc(memoryInput(roi.get(), blind.get()));
    } catch (const FatalThrown& e) {
        status = e.status;
    }
    EXPECT_EQ(status, -20);

    // Two ground-truth classes over identical pixels: the supervised split fails.
    auto sup = baseSettings();
    sup->supervisedMode = true;
    sup->numberOfClasses = 2;
    sup->structureLevels = new int[2]{1, 1};
    sup->structurePaths = new int[2]{0, 1};
    Scene flat(8, 8, 1);
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) flat.truth[r][c] = c < 4 ? 1 : 2;
    flat.paint({{50}, {50}}, 0);
    std::unique_ptr<ROI<int, xy>> flatRoi(flat.dataRoi());
    std::unique_ptr<ROI<int, xy>> flatGt(flat.truthRoi(flatRoi.get()));
    DHC_IN in = memoryInput(flatRoi.get(), sup.get());
    in.gt = flatGt.get();
    std::ostringstream sink;
    std::ostream* previousOut = dhc::setOut(&sink);
    status = 0;
    try {
        DHC::dhc(in);
    } catch (const FatalThrown& e) {
        status = e.status;
    }
    dhc::setOut(previousOut);
    dhc::setFatalHandler(previous);
    EXPECT_EQ(status, -2);
    EXPECT_EQ(sink.str(), "supSplitting!\n");
}

// ---------------------------------------------------------------------------
// Connected pieces inside the strategies

namespace {
// Two separate 6 x 8 squares in a 6 x 20 frame (the mask selects only them);
// each square is dark on its left half and bright on its right half.
struct TwoSquares {
    Scene scene{6, 20, 1};
    std::unique_ptr<ROI<int, xy>> roi;
    TwoSquares() {
        for (int r = 0; r < 6; ++r)
            for (int c = 0; c < 20; ++c) scene.truth[r][c] = (c % 12) < 4 ? 1 : 2;
        scene.paint({{20}, {90}}, 3);
        std::vector<std::vector<int*>> rowsOf(1, std::vector<int*>(6));
        for (int r = 0; r < 6; ++r) rowsOf[0][r] = scene.cube[0][r].data();
        int** plane = rowsOf[0].data();
        std::vector<std::vector<int>> mask(6, std::vector<int>(20, 0));
        std::vector<int*> maskRows(6);
        for (int r = 0; r < 6; ++r) {
            for (int c = 0; c < 20; ++c) mask[r][c] = (c < 8 || c >= 12) ? 1 : 0;
            maskRows[r] = mask[r].data();
        }
        roi.reset(buildRoi(6, 20, 1, &plane, maskRows.data(), 1, true));
    }
};
}  // namespace

TEST(DhcSplitOption, PiecesAreSplitAloneAndRegroupedByNearestMean) {
    TwoSquares two;
    auto s = baseSettings();
    DHC d(two.roi.get(), 1000, false, nullptr, s.get());
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
    // Each tentative child gathers one half of both squares: 2 x 24 pixels of one brightness.
    std::set<double> means;
    for (int c = 0; c < 2; ++c) {
        PottsWS* child = root->children[c]->data;
        EXPECT_EQ(child->root->area, 48);
        means.insert(child->mi[0] < 55 ? 20 : 90);
        EXPECT_NEAR(child->mi[0], child->mi[0] < 55 ? 20 : 90, 2.0);
    }
    EXPECT_EQ(means.size(), 2u);
}

TEST(DhcBlind, SplitwiseDisconnectionQueuesThePieces) {
    Scene scene = twoBlobs();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = blobSettings();
    s->blind = true;
    s->metric = 0;
    s->splitGainThreshold = 350;  // only the root (400 pixels) is large enough
    s->maxNumberOfClasses = 100;
    s->splitwiseDisconnect = true;
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    // Root -> background and blobs; the blobs come apart into two leaves.
    EXPECT_EQ(out.nClasses, 3);
    for (TreeNode<PottsWS*>* leaf : out.dhc->tree->terminals)
        EXPECT_EQ(components(out.labelRoi, leaf->label), 1);
}

TEST(DhcBlind, VariableMultiplicityAnnouncesTheEstimatedClassCount) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    s->blind = true;
    s->metric = 7;
    s->splitGainThreshold = 0.9;  // the root only
    s->maxNumberOfClasses = 100;
    s->variableMultiplicity = true;
    std::ostringstream sink;
    std::ostream* previous = dhc::setOut(&sink);
    DHC_OUT out = DHC::dhc(memoryInput(roi.get(), s.get()));
    dhc::setOut(previous);
    const std::string text = sink.str();
    const size_t at = text.find(" subregions...\n");
    ASSERT_NE(at, std::string::npos) << text;
    const size_t in = text.rfind(" in ", at);
    ASSERT_NE(in, std::string::npos);
    const int k = std::stoi(text.substr(in + 4, at - in - 4));
    if (k >= 2 && k <= 8 && out.dhc->tree->root->nChildren > 0) {
        EXPECT_EQ(out.nClasses, k);
    }
}

TEST(DhcBlind, LocalModeGrowsOnlyTheChosenSubtree) {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    auto s = baseSettings();
    DHC d(roi.get(), 1000, false, nullptr, s.get());
    d.start();
    SplittingOptions o;
    o.metric = 7;  // 1 / (depth + 1)
    o.maxNumberOfClasses = 100;
    o.splitGainThreshold = 0.9;  // the root alone
    d.blindSplitting(o);
    TreeNode<PottsWS*>* root = d.tree->root;
    ASSERT_EQ(root->nChildren, 2);
    const int chosen = root->children[0]->label;
    o.localTree = true;
    o.startLabel = chosen;
    o.splitGainThreshold = 0.4;  // depths 0 and 1 of the local tree
    d.blindSplitting(o);

    EXPECT_EQ(root->children[1]->nChildren, 0);
    ASSERT_EQ(root->children[0]->nChildren, 2);
    // The main tree's lists follow the mirrored splits: the terminal list holds
    // exactly the childless nodes, none deeper than local depth 2.
    std::vector<TreeNode<PottsWS*>*> all{root};
    for (size_t i = 0; i < all.size(); ++i)
        for (int c = 0; c < all[i]->nChildren; ++c) all.push_back(all[i]->children[c]);
    std::set<TreeNode<PottsWS*>*> childless, listed(d.tree->terminals.begin(), d.tree->terminals.end());
    for (TreeNode<PottsWS*>* node : all) {
        if (node->nChildren == 0) childless.insert(node);
        EXPECT_LE(node->depth, 3);
    }
    EXPECT_EQ(listed, childless);
    EXPECT_EQ(d.tree->nodeList.size(), all.size());
}

TEST(DhcUnsupervised, SplitwiseDisconnectionCutsTheInitialLabelsIntoPieces) {
    Scene scene = twoBlobs();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    // Initial labels = the ground truth: class 2 is two separate blobs.
    std::unique_ptr<ROI<int, xy>> init(scene.truthRoi(roi.get()));
    auto s = blobSettings();
    s->maxNumberOfClasses = 3;
    s->splitwiseDisconnect = true;
    DHC_IN in = memoryInput(roi.get(), s.get());
    in.initLabels = init.get();
    DHC_OUT out = DHC::dhc(in);
    EXPECT_EQ(out.dhc->tree->root->nChildren, 3);
    EXPECT_EQ(out.nClasses, 3);
    for (TreeNode<PottsWS*>* leaf : out.dhc->tree->terminals)
        EXPECT_EQ(components(out.labelRoi, leaf->label), 1);
}
