// Layout of the tree picture: rows by split rank, leaves at the bottom in
// slots that leave room for their text, parents over their children, markers
// growing with area, leaves in the label map's colours.

#include "hierarchy/TreePicture.h"

#include <gtest/gtest.h>

#include <map>

#include "hierarchy/Hierarchy.h"
#include "hierarchy/HierarchyRuns.h"
#include "hierarchy/RgbImage.h"

namespace {

using namespace hierarchy_test;

TEST(TreePicture, RowsFollowTheSplitRankAndLeavesKeepTheirColours) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(3, 7);
    SceneRun r = run(scene, *s);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *s);
    ASSERT_GE(h.splits(), 2);
    const dhc::TreeLayout layout = dhc::layoutTree(h);
    ASSERT_EQ(layout.nodes.size(), h.nodes().size());
    EXPECT_EQ(layout.nodes.front().label, h.root().label);

    std::map<int, const dhc::TreeLayout::Node*> byLabel;
    for (const auto& n : layout.nodes) byLabel[n.label] = &n;
    // Final labels in ascending order take the palette in order, as in the label PNG.
    std::map<int, int> finalToLeaf;
    for (const dhc::RegionNode& n : h.nodes())
        if (n.terminal) finalToLeaf[n.finalLabel] = n.label;
    int k = 0;
    for (const auto& [final, leaf] : finalToLeaf) EXPECT_EQ(byLabel.at(leaf)->fill, labelColour(k++));

    int leafY = -1, previousX = -1;
    for (const auto& n : layout.nodes) {
        EXPECT_TRUE(n.x - n.half >= 0 && n.x + n.half < layout.width && n.y + n.half < layout.height);
        for (const std::string& line : n.text)
            EXPECT_LE(n.textX + dhc::RgbImage::textWidth(line), layout.width) << line;
        if (n.leaf) {
            // Same row, left to right, one slot wide enough for "#label" and the area apart.
            if (leafY >= 0) {
                EXPECT_EQ(n.y, leafY);
            }
            leafY = n.y;
            if (previousX >= 0) {
                EXPECT_GE(n.x - previousX, dhc::RgbImage::textWidth("#12345 "));
            }
            previousX = n.x;
        }
    }
    for (int rank = 1; rank <= h.splits(); ++rank) {
        const dhc::RegionNode& split = h.node(h.splitOrder()[rank - 1]);
        const auto* p = byLabel.at(split.label);
        EXPECT_FALSE(p->leaf);
        if (rank > 1) {
            EXPECT_GT(p->y, byLabel.at(h.splitOrder()[rank - 2])->y);
        }
        EXPECT_LT(p->y, leafY);
        EXPECT_GE(p->x, byLabel.at(split.children.front())->x);
        EXPECT_LE(p->x, byLabel.at(split.children.back())->x);
        for (int c : split.children) {
            const dhc::RegionNode& child = h.node(c);
            EXPECT_GT(byLabel.at(c)->y, p->y);
            EXPECT_LE(byLabel.at(c)->half, p->half);
            if (child.area * 4 < split.area) {
                EXPECT_LT(byLabel.at(c)->half, p->half);
            }
        }
        EXPECT_NE(p->text.back().find("gain "), std::string::npos);
    }
}

}  // namespace
