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
    // Splits node `at` into children with the given labels and areas, and
    // validates them as the driver does.
    void split(TreeNode<PottsWS*>* at, std::vector<int> labels, std::vector<int> areas) {
        std::vector<PottsWS*> data;
        for (int a : areas) data.push_back(ws(a));
        at->appendChildren(static_cast<int>(labels.size()), data.data(), labels.data());
        tree_.current = at;
        tree_.validate(0);
    }
    std::vector<std::unique_ptr<PottsWS>> pool_;
    Tree<PottsWS*> tree_{ws(100), 1};
};

TEST_F(WeightTreeTest, MirrorOfAnExistingTreeCountsItsLeaves) {
    split(tree_.root, {2, 3}, {40, 60});
    split(tree_.root->children[0], {4, 5, 6}, {10, 10, 20});
    WeightTree w(&tree_);
    EXPECT_DOUBLE_EQ(w.getNClassFloat(), 4.0);
    EXPECT_TRUE(w.checkConsistency());
    EXPECT_EQ(w.weights->root->children[0]->children[2]->label, 6);
    tree_.terminals.reverse();  // same labels, other order
    EXPECT_FALSE(w.checkConsistency());
}

TEST_F(WeightTreeTest, AreaWeightedSplitCountsAsOneClass) {
    WeightTree byArea(&tree_);
    WeightTree byCount(&tree_);
    split(tree_.root, {2, 3}, {30, 70});
    EXPECT_FALSE(byArea.checkConsistency());
    byArea.growWeights(true);
    byCount.growWeights(false);
    EXPECT_TRUE(byArea.checkConsistency());
    EXPECT_DOUBLE_EQ(byArea.getNClassFloat(), 1.0);
    EXPECT_DOUBLE_EQ(byCount.getNClassFloat(), 2.0);
    std::ostringstream os;
    std::ostream* old = dhc::setOut(&os);
    byArea.print32();
    byCount.print32();
    dhc::setOut(old);
    EXPECT_EQ(os.str(), "0.3 0.7 \n1 1 \n");
}

TEST_F(WeightTreeTest, GrowingFollowsLaterSplitsAndSkipsZeroWeights) {
    WeightTree w(&tree_);
    split(tree_.root, {2, 3}, {50, 50});
    w.growWeights(true);
    split(tree_.root->children[1], {4, 5}, {10, 40});
    w.growWeights(true);
    split(tree_.root->children[0], {6, 7, 8, 9}, {0, 5, 5, 40});
    w.growWeights(true);
    EXPECT_TRUE(w.checkConsistency());
    w.weights->current = w.weights->root->find(5);
    EXPECT_DOUBLE_EQ(w.getCurrentWeight(), 0.4);  // 0.5 * 0.8
    // Leaf 6 weighs 0.5 (its own 0 skipped, not multiplied): 1 + 0.5.
    EXPECT_DOUBLE_EQ(w.getNClassFloat(), 1.5);
}

}  // namespace
