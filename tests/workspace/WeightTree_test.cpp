#include "workspace/WeightTree.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <vector>

#include "settings/Fatal.h"
#include "workspace/PottsWS.h"

namespace {

// A workspace tree whose payloads only carry pixel counts.
class WeightTreeTest : public ::testing::Test {
  protected:
    PottsWS* ws(int area) {
        pool_.emplace_back(new PottsWS());
        pool_.back()->envelopeCount = area;
        return pool_.back().get();
    }
    // Splits node `at` of the tree into children with the given labels and
    // areas, and validates them as the driver does.
    void split(Tree<PottsWS*>& t, TreeNode<PottsWS*>* at, std::vector<int> labels, std::vector<int> areas) {
        std::vector<PottsWS*> data;
        for (int a : areas) data.push_back(ws(a));
        at->appendChildren(static_cast<int>(labels.size()), data.data(), labels.data());
        t.current = at;
        t.validate(0);
    }
    std::vector<std::unique_ptr<PottsWS>> pool_;
};

TEST_F(WeightTreeTest, MirrorOfAnExistingTreeCountsItsLeaves) {
    Tree<PottsWS*> t(ws(100), 1);
    split(t, t.root, {2, 3}, {40, 60});
    split(t, t.root->children[0], {4, 5, 6}, {10, 10, 20});
    WeightTree w(&t);
    EXPECT_EQ(w.rootLabel, 1);
    EXPECT_DOUBLE_EQ(w.getNClassFloat(), 4.0);
    EXPECT_TRUE(w.checkConsistency());
    ASSERT_EQ(w.weights->root->nChildren, 2);
    EXPECT_EQ(w.weights->root->children[0]->children[2]->label, 6);
}

TEST_F(WeightTreeTest, AreaWeightedSplitCountsAsOneClass) {
    for (bool byArea : {true, false}) {
        Tree<PottsWS*> t(ws(100), 1);
        WeightTree w(&t);
        EXPECT_DOUBLE_EQ(w.getNClassFloat(), 1.0);
        split(t, t.root, {2, 3}, {30, 70});
        EXPECT_FALSE(w.checkConsistency());
        w.growWeights(byArea);
        EXPECT_TRUE(w.checkConsistency());
        EXPECT_DOUBLE_EQ(w.getNClassFloat(), byArea ? 1.0 : 2.0);
        EXPECT_DOUBLE_EQ(w.weights->root->children[0]->data, byArea ? 0.3 : 1.0);
        EXPECT_DOUBLE_EQ(w.weights->root->children[1]->data, byArea ? 0.7 : 1.0);
    }
}

TEST_F(WeightTreeTest, GrowingFollowsLaterSplits) {
    Tree<PottsWS*> t(ws(100), 1);
    WeightTree w(&t);
    split(t, t.root, {2, 3}, {50, 50});
    w.growWeights(true);
    // Split the second child unevenly, then the first one into four parts.
    split(t, t.root->children[1], {4, 5}, {10, 40});
    w.growWeights(true);
    EXPECT_TRUE(w.checkConsistency());
    split(t, t.root->children[0], {6, 7, 8, 9}, {5, 5, 5, 35});
    w.growWeights(true);
    EXPECT_TRUE(w.checkConsistency());
    EXPECT_DOUBLE_EQ(w.getNClassFloat(), 1.0);  // area fractions multiply to the whole
    // Current weight of leaf 5: 0.5 * 0.8.
    w.weights->current = w.weights->root->find(5);
    EXPECT_DOUBLE_EQ(w.getCurrentWeight(), 0.4);
    w.weights->current = w.weights->root;
    EXPECT_DOUBLE_EQ(w.getCurrentWeight(), 1.0);
}

TEST_F(WeightTreeTest, ZeroWeightIsSkippedNotMultiplied) {
    Tree<PottsWS*> t(ws(100), 1);
    WeightTree w(&t);
    split(t, t.root, {2, 3}, {0, 100});
    w.growWeights(true);
    EXPECT_DOUBLE_EQ(w.weights->root->children[0]->data, 0.0);
    split(t, t.root->children[0], {4, 5}, {0, 0});
    w.growWeights(false);
    // Leaves 4 and 5 weigh 1 * (0 skipped) each, leaf 3 weighs 1.
    EXPECT_DOUBLE_EQ(w.getNClassFloat(), 3.0);
}

TEST_F(WeightTreeTest, ConsistencyComparesLabelsAndLengths) {
    Tree<PottsWS*> t(ws(100), 1);
    split(t, t.root, {2, 3}, {50, 50});
    WeightTree w(&t);
    EXPECT_TRUE(w.checkConsistency());
    t.terminals.reverse();
    EXPECT_FALSE(w.checkConsistency());
    t.terminals.reverse();
    t.terminals.pop_back();
    EXPECT_FALSE(w.checkConsistency());
}

TEST_F(WeightTreeTest, Print32WritesTerminalWeights) {
    Tree<PottsWS*> t(ws(100), 1);
    WeightTree w(&t);
    split(t, t.root, {2, 3}, {25, 75});
    w.growWeights(true);
    std::ostringstream os;
    std::ostream* old = dhc::setOut(&os);
    w.print32();
    dhc::setOut(old);
    EXPECT_EQ(os.str(), "0.25 0.75 \n");
}

}  // namespace
