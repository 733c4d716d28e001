// Split sequence, the text report and the removal of test splits on a tree
// grown by hand, so that every label, area and gain is known in advance.

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/TestSupport.h"
#include "data/LabelController.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "driver/DHC.h"
#include "driver/DriverScene.h"
#include "driver/FinishedRun.h"
#include "driver/FinalModel.h"
#include "workspace/WSReport.h"
#include "settings/DHC_SET.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

// 8 x 8, one band, values with some spread so every statistic is regular.
struct HandTree : ::testing::Test {
    driver_test::Scene scene{8, 8, 1};
    std::unique_ptr<ROI<int, xy>> roi;
    DHC_SET settings;
    std::unique_ptr<DHC> d;

    void SetUp() override {
        for (auto& row : scene.truth) row.assign(8, 1);
        scene.paint({{50}}, 5);
        roi.reset(scene.dataRoi());
        settings.multiplicity = 2;
        d.reset(new DHC(roi.get(), 1000, false, nullptr, &settings));
    }

    // Splits the node `label` into two tentative children: pixel (r, c) goes to
    // child part(r, c); the children take the next two free labels.
    TreeNode<PottsWS*>* attach(int label, double gain, const std::function<int(int, int)>& part) {
        TreeNode<PottsWS*>* node = d->tree->root->find(label);
        std::unique_ptr<int[]> fresh(d->labels->pickMultiple(2));
        PottsMapRegion* region = node->data->root;
        region->resetScan();
        do {
            const xy p = region->getLocation();
            region->setPixel(p.x, p.y, fresh[part(p.x, p.y)]);
        } while (region->nextElement());
        PottsWS** children = nullptr;
        node->data->split(fresh.get(), 2, children, true);
        node->data->splitState = 2;
        node->data->splitGain = gain;
        node->data->beta = 0.25;
        node->appendChildren(2, children, fresh.get());
        delete[] children;
        return node;
    }

    // A permanent split: the tentative children validated.
    void handSplit(int label, double gain, const std::function<int(int, int)>& part) {
        d->tree->current = attach(label, gain, part);
        d->tree->validate(0);
    }

    // root 2 -> 3 (left), 4 (right); 3 -> 5 (top), 6; 4 -> 7 (top), 8;
    // 5 -> 9 (left), 10.  Leaves in terminal order: 6 7 8 9 10.
    void grow(double g3, double g4, double g5) {
        handSplit(2, 1.0, [](int, int c) { return c < 4 ? 0 : 1; });
        handSplit(3, g3, [](int r, int) { return r < 4 ? 0 : 1; });
        handSplit(4, g4, [](int r, int) { return r < 4 ? 0 : 1; });
        handSplit(5, g5, [](int, int c) { return c < 2 ? 0 : 1; });
    }

    std::vector<int> sequence() {
        int n = -1;
        std::unique_ptr<int[]> seq(d->extractSplitSequence(n));
        return std::vector<int>(seq.get(), seq.get() + n);
    }

    // The general block of the text report, which replaces an older file.
    std::string generalBlock() {
        const std::string path = dhc::test::tmpPath("dhc_hand_report.txt");
        std::ofstream(path) << "left over from an earlier run\n";
        d->printReport(path, false, false);
        std::ifstream is(path);
        std::ostringstream ss;
        ss << is.rdbuf();
        const std::string end = "[END GENERAL INFORMATION]\n";
        return ss.str().substr(0, ss.str().find(end) + end.size());
    }
};

}  // namespace

TEST_F(HandTree, SplitSequenceIsGreedyByGainWithParentsFirstAndTiesToTheEarlier) {
    grow(0.5, 1.0, 10.0);
    // 4 beats 3; 5 has the largest gain but waits for its parent 3.
    EXPECT_EQ(sequence(), (std::vector<int>{2, 4, 3, 5}));
    // 3 and 4 tie: 3 was listed first; its child 5 joins the list behind 4.
    d->tree->root->find(4)->data->splitGain = 0.5;
    EXPECT_EQ(sequence(), (std::vector<int>{2, 3, 5, 4}));
    d->tree->root->find(5)->data->splitGain = 0.5;
    EXPECT_EQ(sequence(), (std::vector<int>{2, 3, 4, 5}));
}

TEST_F(HandTree, GeneralReportBlock) {
    // Unsplit: no sequence, yet the block writes one (zero) split entry.
    EXPECT_EQ(sequence(), std::vector<int>{});
    EXPECT_EQ(generalBlock(),
              "[GENERAL INFORMATION]\nNClass = 1;\nClasses = [2 ];\nNSplit = 0;\nSplitOrder = [0 ];\n"
              "OffspringMat = [\n0 \n];\n[END GENERAL INFORMATION]\n");
    grow(0.5, 1.0, 10.0);
    // Offspring rows in split order, zero-padded to the five leaves.
    EXPECT_EQ(generalBlock(),
              "[GENERAL INFORMATION]\nNClass = 5;\nClasses = [6 7 8 9 10 ];\n"
              "NSplit = 4;\nSplitOrder = [2 4 3 5 ];\n"
              "OffspringMat = [\n6 7 8 9 10 \n7 8 0 0 0 \n6 9 10 0 0 \n9 10 0 0 0 \n];\n"
              "[END GENERAL INFORMATION]\n");
}

TEST_F(HandTree, RemovingTestSplitsGivesTheirLabelsBackAndRepaintsTheLeaves) {
    grow(0.5, 1.0, 10.0);
    TreeNode<PottsWS*>* six = attach(6, 0.3, [](int, int c) { return c < 2 ? 0 : 1; });
    ASSERT_EQ(six->children[0]->label, 11);
    d->removeTestSplits(false);
    EXPECT_EQ(six->nChildren, 0);
    EXPECT_TRUE(six->terminal);
    EXPECT_EQ(six->data->splitState, 0);
    // Permanent splits keep their state; only the leaves are reset.
    EXPECT_EQ(d->tree->root->data->splitState, 2);
    EXPECT_EQ(d->labels->pick(), 11);
    EXPECT_EQ(d->labels->pick(), 12);
    // Once repainted, the map shows the leaves: leaf 6 (bottom left) without
    // its tentative labels.
    d->globalMapRefresh(false);
    PottsMapRegion* region = d->tree->root->data->root;
    std::unique_ptr<ROI<int, xy>> labels(roi->extractLabROI(region->map, region->pad, false));
    for (int k = 0; k < labels->count; ++k) {
        const xy p = labels->coords[k];
        const int leaf = p.x < 4 ? (p.y < 2 ? 9 : p.y < 4 ? 10 : 7) : (p.y < 4 ? 6 : 8);
        EXPECT_EQ(labels->data[k], leaf) << p.x << ", " << p.y;
    }
}

// The run's record hands its ownership on when moved: the moved-from record
// is empty, and assigning over a record first frees what it held (checked
// under valgrind and the sanitizers).
TEST(DhcOut, MovingTheRecordHandsTheRunOver) {
    driver_test::Scene scene = driver_test::fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    std::unique_ptr<DHC_SET> s = driver_test::baseSettings();
    DHC_IN in;
    in.roi = roi.get();
    in.settings = s.get();

    DHC_OUT first = DHC::dhc(in);
    ASSERT_NE(first.dhc, nullptr);
    const DHC* run = first.dhc;
    const ROI<int, xy>* labels = first.labelRoi;
    const int classes = first.nClasses;
    DHC_OUT moved(std::move(first));
    EXPECT_EQ(moved.dhc, run);
    EXPECT_EQ(moved.labelRoi, labels);
    EXPECT_EQ(moved.nClasses, classes);
    EXPECT_EQ(first.dhc, nullptr);
    EXPECT_EQ(first.labelRoi, nullptr);
    EXPECT_EQ(first.nClasses, 0);
    EXPECT_EQ(first.rows, -1);

    DHC_OUT second = DHC::dhc(in);
    const DHC* secondRun = second.dhc;
    moved = std::move(second);
    EXPECT_EQ(moved.dhc, secondRun);
    EXPECT_EQ(moved.nClasses, classes);
    EXPECT_EQ(second.dhc, nullptr);
    EXPECT_EQ(second.labelRoi, nullptr);
}

// What a finished run offers the products built on it: with the tree's own
// map as the final map, the leaf under each point is the point's label, every
// region has one report, the ranked splits start at the root, and the stop
// line is there.  A record without a run offers nothing.
TEST(FinishedRunView, OffersTheTreeTheFinalMapWasPaintedFrom) {
    driver_test::Scene scene = driver_test::fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    std::unique_ptr<DHC_SET> s = driver_test::baseSettings();
    s->finalRefinement = 0;
    DHC_IN in;
    in.roi = roi.get();
    in.settings = s.get();
    const DHC_OUT out = DHC::dhc(in);
    const dhc::FinishedRun run(out);
    ASSERT_TRUE(run.hasTree());
    ASSERT_EQ(run.points().count, scene.rows * scene.cols);
    for (int k = 0; k < run.points().count; ++k) ASSERT_EQ(run.leafLabelAt(k), run.points().data[k]);
    const auto reports = run.reports();
    EXPECT_EQ(reports.size(), 7u);  // the root, two halves, four quadrants
    EXPECT_EQ(reports.front()->WSLab, run.rootLabel());
    const std::vector<int> splits = run.splitSequence();
    ASSERT_EQ(splits.size(), 3u);
    EXPECT_EQ(splits.front(), run.rootLabel());
    EXPECT_FALSE(run.stopReason().empty());
    EXPECT_TRUE(run.finalModel() == nullptr || !run.finalModel()->refined);

    const DHC_OUT none;
    EXPECT_FALSE(dhc::FinishedRun(none).hasTree());
}
