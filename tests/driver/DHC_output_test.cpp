// Split sequence, reports, the text report and tree maintenance on a tree
// grown by hand, so that every label, area and gain is known in advance.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "data/LabelController.h"
#include "data/PaddedMap.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "driver/DHC.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"
#include "workspace/WSReport.h"

namespace {

using driver_test::Scene;

// Splits the node `label` into k children: pixel (r, c) of it goes to child
// part(r, c); the children take the next k free labels.
void handSplit(DHC& d, int label, int k, const std::function<int(int, int)>& part, double gain) {
    TreeNode<PottsWS*>* node = d.tree->root->find(label);
    ASSERT_NE(node, nullptr);
    PottsWS* ws = node->data;
    std::unique_ptr<int[]> fresh(d.labels->pickMultiple(k));
    PottsMapRegion* region = ws->root;
    region->resetScan();
    do {
        const xy p = region->getLocation();
        region->setPixel(p.x, p.y, fresh[part(p.x, p.y)]);
    } while (region->nextElement());
    PottsWS** children = nullptr;
    ws->split(fresh.get(), k, children, true);
    ws->splitState = 2;
    ws->splitGain = gain;
    ws->beta = 0.25;
    node->appendChildren(k, children, fresh.get());
    delete[] children;
    d.tree->current = node;
    d.tree->validate(0);
}

// 8 x 8, one band, values with some spread so every statistic is regular.
struct HandTree : ::testing::Test {
    Scene scene{8, 8, 1};
    std::unique_ptr<ROI<int, xy>> roi;
    DHC_SET settings;
    std::unique_ptr<DHC> d;

    void SetUp() override {
        for (int r = 0; r < 8; ++r)
            for (int c = 0; c < 8; ++c) scene.truth[r][c] = 1;
        scene.paint({{50}}, 5);
        roi.reset(scene.dataRoi());
        settings.multiplicity = 2;
        d.reset(new DHC(roi.get(), 1000, false, nullptr, &settings));
    }

    // root 2 -> 3 (left), 4 (right); 3 -> 5 (top), 6; 4 -> 7 (top), 8;
    // 5 -> 9 (left), 10.  Leaves in terminal order: 6 7 8 9 10.
    void grow(double g3, double g4, double g5) {
        handSplit(
            *d, 2, 2, [](int, int c) { return c < 4 ? 0 : 1; }, 1.0);
        handSplit(
            *d, 3, 2, [](int r, int) { return r < 4 ? 0 : 1; }, g3);
        handSplit(
            *d, 4, 2, [](int r, int) { return r < 4 ? 0 : 1; }, g4);
        handSplit(
            *d, 5, 2, [](int, int c) { return c < 2 ? 0 : 1; }, g5);
    }

    std::vector<int> sequence() {
        int n = 0;
        std::unique_ptr<int[]> seq(d->extractSplitSequence(n));
        return std::vector<int>(seq.get(), seq.get() + n);
    }
};

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

std::vector<int> asVector(const int* a, int n) {
    return a != nullptr ? std::vector<int>(a, a + n) : std::vector<int>();
}

}  // namespace

TEST_F(HandTree, RootTakesTheSecondLabelAndTheFirstFramesTheMap) {
    EXPECT_EQ(d->tree->root->label, 2);
    EXPECT_EQ(d->tree->root->data->root->borderLabel, 1);
    EXPECT_EQ(d->labels->pick(), 3);
}

TEST_F(HandTree, SplitSequenceIsGreedyByGainWithParentsFirst) {
    grow(0.5, 1.0, 10.0);
    // 4 beats 3; 5 has the largest gain but waits for its parent 3.
    EXPECT_EQ(sequence(), (std::vector<int>{2, 4, 3, 5}));
}

TEST_F(HandTree, SplitSequenceTiesGoToTheEarlierCandidate) {
    grow(0.5, 0.5, 10.0);
    // 3 and 4 tie: 3 was listed first; its child 5 joins the list behind 4.
    EXPECT_EQ(sequence(), (std::vector<int>{2, 3, 5, 4}));
    d->tree->root->find(5)->data->splitGain = 0.5;
    EXPECT_EQ(sequence(), (std::vector<int>{2, 3, 4, 5}));
}

TEST_F(HandTree, ReportsFollowTheNodeListAndKnowTheirPlaceInTheTree) {
    grow(0.5, 1.0, 10.0);
    int n = 0;
    WSReport** raw = d->reportAllWSs(n);
    std::vector<std::unique_ptr<WSReport>> reports(raw, raw + n);
    delete[] raw;
    ASSERT_EQ(n, 9);
    std::vector<int> order;
    for (auto& r : reports) order.push_back(r->WSLab);
    EXPECT_EQ(order, (std::vector<int>{2, 3, 4, 5, 6, 7, 8, 9, 10}));

    const WSReport& root = *reports[0];
    EXPECT_FALSE(root.terminal);
    EXPECT_EQ(root.pathLength, 0);
    EXPECT_EQ(asVector(root.children, root.nChildren), (std::vector<int>{3, 4}));
    EXPECT_EQ(asVector(root.chAreas, root.nChildren), (std::vector<int>{32, 32}));
    EXPECT_EQ(asVector(root.offspring, root.nOffspring), (std::vector<int>{6, 7, 8, 9, 10}));

    const WSReport& three = *reports[1];
    EXPECT_EQ(asVector(three.path, three.pathLength), (std::vector<int>{0}));
    EXPECT_EQ(asVector(three.chAreas, three.nChildren), (std::vector<int>{16, 16}));
    EXPECT_EQ(asVector(three.offspring, three.nOffspring), (std::vector<int>{6, 9, 10}));

    const WSReport& nine = *reports[7];
    EXPECT_TRUE(nine.terminal);
    EXPECT_EQ(asVector(nine.path, nine.pathLength), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(nine.area, 8);
    EXPECT_EQ(nine.nChildren, 0);
    EXPECT_EQ(nine.nOffspring, 0);
    EXPECT_EQ(nine.offspring, nullptr);
}

TEST_F(HandTree, TextReportStartsWithTheGeneralBlock) {
    grow(0.5, 1.0, 10.0);
    const std::string path = tmpPath("dhc_hand_report.txt");
    {
        std::ofstream stale(path);
        stale << "left over from an earlier run\n";
    }
    d->printReport(path, false, false);
    const std::string text = slurp(path);
    const std::string general =
        "[GENERAL INFORMATION]\n"
        "NClass = 5;\n"
        "Classes = [6 7 8 9 10 ];\n"
        "NSplit = 4;\n"
        "SplitOrder = [2 4 3 5 ];\n"
        "OffspringMat = [\n"
        "6 7 8 9 10 \n"
        "7 8 0 0 0 \n"
        "6 9 10 0 0 \n"
        "9 10 0 0 0 \n"
        "];\n"
        "[END GENERAL INFORMATION]\n";
    ASSERT_EQ(text.substr(0, general.size()), general);
    const std::string rootBlock =
        "\n[NEW WORKSPACE]\n"
        "WSLab = 2;\n"
        "Path = [];\n"
        "Children = [3 4 ];\n"
        "Offspring = [6 7 8 9 10 ];\n"
        "Area = 64;\n"
        "Split = 1;\n"
        "Terminal = 0;\n"
        "Beta = 0.25;\n";
    EXPECT_EQ(text.substr(general.size(), rootBlock.size()), rootBlock);
    size_t blocks = 0;
    for (size_t at = text.find("[NEW WORKSPACE]"); at != std::string::npos;
         at = text.find("[NEW WORKSPACE]", at + 1))
        ++blocks;
    EXPECT_EQ(blocks, 9u);
    // A given sequence is used as it stands.
    int given[] = {2, 3};
    d->printReport(path, false, false, 2, given);
    EXPECT_NE(slurp(path).find(
                  "NSplit = 2;\nSplitOrder = [2 3 ];\nOffspringMat = [\n6 7 8 9 10 \n6 9 10 0 0 \n];\n"),
              std::string::npos);
}

TEST_F(HandTree, TextReportOfAnUnsplitTreeWritesOneZeroEntry) {
    const std::string path = tmpPath("dhc_root_report.txt");
    d->printReport(path, false, false);
    const std::string text = slurp(path);
    EXPECT_EQ(text.substr(0, text.find("[END GENERAL INFORMATION]")),
              "[GENERAL INFORMATION]\nNClass = 1;\nClasses = [2 ];\nNSplit = 0;\nSplitOrder = [0 ];\n"
              "OffspringMat = [\n0 \n];\n");
}

TEST_F(HandTree, RemovingTestSplitsGivesTheirLabelsBack) {
    grow(0.5, 1.0, 10.0);
    // Tentative children of leaf 6 (appended, not validated).
    TreeNode<PottsWS*>* six = d->tree->root->find(6);
    std::unique_ptr<int[]> fresh(d->labels->pickMultiple(2));
    ASSERT_EQ(fresh[0], 11);
    PottsMapRegion* region = six->data->root;
    region->resetScan();
    do {
        const xy p = region->getLocation();
        region->setPixel(p.x, p.y, fresh[p.y < 2 ? 0 : 1]);
    } while (region->nextElement());
    PottsWS** children = nullptr;
    six->data->split(fresh.get(), 2, children, true);
    six->data->splitState = 2;
    six->appendChildren(2, children, fresh.get());
    delete[] children;

    d->removeTestSplits(false);
    EXPECT_EQ(six->nChildren, 0);
    EXPECT_TRUE(six->terminal);
    EXPECT_EQ(six->data->splitState, 0);
    // Permanent splits keep their state; only the leaves are reset.
    EXPECT_EQ(d->tree->root->data->splitState, 2);
    EXPECT_EQ(d->labels->pick(), 11);
    EXPECT_EQ(d->labels->pick(), 12);

    // The map shows the tentative labels until the leaves are repainted.
    d->globalMapRefresh(false);
    std::unique_ptr<ROI<int, xy>> painted(roi->extractLabROI(region->map, region->pad, false));
    for (int k = 0; k < painted->count; ++k) {
        const xy p = painted->coords[k];
        if (p.x >= 4) {
            EXPECT_EQ(painted->data[k], p.y < 4 ? 6 : 8);
        }
    }
}

TEST_F(HandTree, StartPrunesToTheRootAndRepaintsIt) {
    grow(0.5, 1.0, 10.0);
    int n = 0;
    std::unique_ptr<PottsMapRegion*[]> fresh(d->getNewlyCreated(n));
    EXPECT_EQ(n, 5);
    d->tree->root->find(7)->data->processed = true;
    fresh.reset(d->getNewlyCreated(n));
    EXPECT_EQ(n, 4);

    d->start();
    EXPECT_EQ(d->tree->root->nChildren, 0);
    EXPECT_EQ(d->tree->terminals.size(), 1u);
    EXPECT_EQ(d->tree->nodeList.size(), 1u);
    EXPECT_EQ(d->labels->pick(), 3);  // every label below the root came back
    PottsMapRegion* region = d->tree->root->data->root;
    std::unique_ptr<ROI<int, xy>> painted(roi->extractLabROI(region->map, region->pad, false));
    for (int k = 0; k < painted->count; ++k) EXPECT_EQ(painted->data[k], 2);
}

TEST_F(HandTree, OutputMapIsCompactedInRasterOrder) {
    grow(0.5, 1.0, 10.0);
    std::unique_ptr<PaddedMap> pm(d->outputPMap(true, true, false, -1));
    ASSERT_EQ(pm->rows, 8);
    ASSERT_EQ(pm->cols, 8);
    ASSERT_EQ(pm->pad, 0);
    // Raster order meets 9, 10, 7 in the first row, then 6 and 8 in row 4.
    EXPECT_EQ(pm->map[0][0], 1);
    EXPECT_EQ(pm->map[0][2], 2);
    EXPECT_EQ(pm->map[0][4], 3);
    EXPECT_EQ(pm->map[4][0], 4);
    EXPECT_EQ(pm->map[7][7], 5);
    std::unique_ptr<PaddedMap> framed(d->outputPMap(true, false, true, -1));
    EXPECT_EQ(framed->pad, 1);
    EXPECT_EQ(framed->map[0][0], 1);  // the frame label
    EXPECT_EQ(framed->map[1][1], 9);  // uncompacted
}
