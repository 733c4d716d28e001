#include "workspace/WeightTree.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

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
    // Appends and validates children with these labels and areas, as the driver does.
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

TEST_F(WeightTreeTest, AreaWeightedSplitCountsAsOneClass) {
    WeightTree byArea(&tree_);
    WeightTree byCount(&tree_);
    split(tree_.root, {2, 3}, {30, 70});
    byArea.growWeights(true);
    byCount.growWeights(false);
    EXPECT_DOUBLE_EQ(byArea.getNClassFloat(), 1.0);
    EXPECT_DOUBLE_EQ(byCount.getNClassFloat(), 2.0);
}

TEST_F(WeightTreeTest, MirrorCountsExistingLeavesAndGrowthSkipsZeroWeights) {
    split(tree_.root, {2, 3}, {40, 60});
    split(tree_.root->children[0], {4, 5}, {10, 30});
    WeightTree w(&tree_);  // splits made before the mirror count one class per leaf
    EXPECT_DOUBLE_EQ(w.getNClassFloat(), 3.0);
    split(tree_.root->children[1], {6, 7, 8}, {0, 12, 48});
    w.growWeights(true);
    // Leaves 4 and 5 count 1 each, 7 and 8 count 0.2 and 0.8; leaf 6's weight 0
    // is skipped, not multiplied, so it counts as its parent: 1.
    EXPECT_DOUBLE_EQ(w.getNClassFloat(), 4.0);
}

}  // namespace
