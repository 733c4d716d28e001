// The tree picture: splits on a scale of the gain still to come, a cut line
// between consecutive splits, regions in their cut maps' colours, areas in
// map units, tooltips, and the PNG as the SVG drawn.

#include "hierarchy/TreePicture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <string>

#include "hierarchy/Hierarchy.h"
#include "hierarchy/HierarchyRuns.h"
#include "hierarchy/RgbImage.h"
#include "hierarchy/SvgRender.h"

namespace {

using namespace hierarchy_test;

struct Picture : ::testing::Test {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> settings = gainSettings(3, 7);
    SceneRun r = run(scene, *settings);
    dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *settings);
};

// The scale value at height y, read off the axis's ticks (linear).
double scaleAt(const dhc::TreeLayout& layout, double y) {
    const dhc::TreeLayout::Tick& a = layout.ticks.front();
    const dhc::TreeLayout::Tick& b = layout.ticks.back();
    return a.value + (y - a.y) * (b.value - a.value) / (b.y - a.y);
}

TEST_F(Picture, SplitsStandAtTheGainStillToComeAboveTheirCutLines) {
    ASSERT_GE(h.splits(), 3);
    const dhc::TreeLayout layout = dhc::layoutTree(h);
    ASSERT_EQ(layout.nodes.size(), h.nodes().size());
    std::map<int, const dhc::TreeLayout::Node*> byLabel;
    for (const auto& n : layout.nodes) byLabel[n.label] = &n;

    // The axis: at least two ticks, values falling as y grows, 0 at the leaves.
    ASSERT_GE(layout.ticks.size(), 2u);
    for (size_t i = 1; i < layout.ticks.size(); ++i) {
        EXPECT_GT(layout.ticks[i].y, layout.ticks[i - 1].y);
        EXPECT_LT(layout.ticks[i].value, layout.ticks[i - 1].value);
    }
    EXPECT_EQ(layout.ticks.back().value, 0.0);

    double still = 0;  // gains of the splits ranked after the current one
    std::vector<double> toCome(h.splits());
    for (int rank = h.splits(); rank >= 1; --rank) {
        still += h.node(h.splitOrder()[rank - 1]).splitGainTFR;
        toCome[rank - 1] = still;
    }
    const double pixel = scaleAt(layout, 0) - scaleAt(layout, 1);  // scale units per pixel
    int leafY = -1;
    for (const auto& n : layout.nodes)
        if (n.leaf) {
            if (leafY >= 0) { EXPECT_EQ(n.y, leafY); }
            leafY = n.y;
        }
    for (int rank = 1; rank <= h.splits(); ++rank) {
        const dhc::RegionNode& split = h.node(h.splitOrder()[rank - 1]);
        const auto* p = byLabel.at(split.label);
        EXPECT_FALSE(p->leaf);
        // On the scale, or pushed down a little where gains crowd.
        EXPECT_LE(scaleAt(layout, p->y), toCome[rank - 1] + pixel) << "rank " << rank;
        EXPECT_GE(scaleAt(layout, p->y), toCome[rank - 1] - 4 * rank * pixel) << "rank " << rank;
        if (rank > 1) { EXPECT_GT(p->y, byLabel.at(h.splitOrder()[rank - 2])->y); }
        EXPECT_LT(p->y, leafY);
        EXPECT_GE(p->x, byLabel.at(split.children.front())->x);
        EXPECT_LE(p->x, byLabel.at(split.children.back())->x);
        for (int c : split.children) EXPECT_GT(byLabel.at(c)->y, p->y);
        EXPECT_EQ(p->text.back().rfind("gain ", 0), 0u);
    }

    // One cut per number of splits, between the splits it separates.
    ASSERT_EQ(layout.cuts.size(), static_cast<size_t>(h.splits()) + 1);
    for (int k = 0; k <= h.splits(); ++k) {
        const dhc::TreeLayout::Cut& c = layout.cuts[k];
        EXPECT_EQ(c.splits, k);
        EXPECT_EQ(c.classes, h.leavesAfter(k));
        if (k > 0) { EXPECT_GT(c.y, byLabel.at(h.splitOrder()[k - 1])->y); }
        if (k < h.splits()) { EXPECT_LT(c.y, byLabel.at(h.splitOrder()[k])->y); }
        EXPECT_LT(c.y, leafY);
    }
    EXPECT_TRUE(layout.cuts.back().labelled);
}

// A run that kept its splits by a criterion shows each split's criterion per
// pixel of the region of interest, one row per split rank with room for its
// two lines, and no gain scale (its gains decided nothing).
TEST(TreePictureCriterion, SplitsShowTheirCriterionOnRowsOfTheirOwn) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> settings = gainSettings(2, 6);
    settings->stopCriterion = 1;
    SceneRun r = run(scene, *settings);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *settings);
    ASSERT_GE(h.splits(), 2);
    const dhc::TreeLayout layout = dhc::layoutTree(h);
    EXPECT_TRUE(layout.ticks.empty());
    EXPECT_NE(layout.title.find("criterion"), std::string::npos) << layout.title;
    std::map<int, const dhc::TreeLayout::Node*> byLabel;
    for (const auto& n : layout.nodes) byLabel[n.label] = &n;
    int previous = -1;
    for (int rank = 1; rank <= h.splits(); ++rank) {
        const dhc::RegionNode& split = h.node(h.splitOrder()[rank - 1]);
        const auto* p = byLabel.at(split.label);
        ASSERT_EQ(p->text.size(), 2u);
        const std::string& figure = p->text.back();
        ASSERT_EQ(figure.rfind("criterion ", 0), 0u) << figure;
        EXPECT_NEAR(std::stod(figure.substr(10)), split.criterion / h.root().area,
                    1e-2 * std::fabs(split.criterion / h.root().area));
        if (previous >= 0) { EXPECT_GE(p->y - previous, 2 * dhc::kTreeLineHeight); }
        previous = p->y;
    }
    // The same run by the split gain keeps its scale.
    settings->stopCriterion = 0;
    SceneRun classic = run(scene, *settings);
    EXPECT_FALSE(dhc::layoutTree(dhc::Hierarchy::fromRun(classic.out, *settings)).ticks.empty());
}

TEST_F(Picture, RegionsWearTheColoursOfTheirCutMaps) {
    const dhc::TreeLayout layout = dhc::layoutTree(h);
    std::map<int, Rgb> fill;
    for (const auto& n : layout.nodes) fill[n.label] = n.fill;
    // A split region: the colour of its label in the map of the last cut
    // holding it, where labels present take the palette in ascending order.
    for (int rank = 1; rank <= h.splits(); ++rank) {
        const int label = h.splitOrder()[rank - 1];
        std::set<int> present;
        for (int v : h.cut(rank - 1))
            if (v != 0) present.insert(v);
        ASSERT_EQ(present.count(label), 1u);
        EXPECT_EQ(fill.at(label), labelColour(static_cast<int>(std::distance(present.begin(), present.find(label)))))
            << "#" << label;
    }
    // A leaf: its colour in the final map's picture, by ascending final label.
    std::map<int, int> finalToLeaf;
    for (const dhc::RegionNode& n : h.nodes())
        if (n.terminal) finalToLeaf[n.finalLabel] = n.label;
    int k = 0;
    for (const auto& [final, leaf] : finalToLeaf) EXPECT_EQ(fill.at(leaf), labelColour(k++));
}

TEST(TreePictureText, AreasInPixelsHectaresOrSquareKilometres) {
    EXPECT_EQ(dhc::areaText(123, 0), "123 px");
    EXPECT_EQ(dhc::areaText(100, 28.5 * 28.5), "8.12 ha");      // 81,225 m²
    EXPECT_EQ(dhc::areaText(1000, 28.5 * 28.5), "81.2 ha");
    EXPECT_EQ(dhc::areaText(122848, 28.5 * 28.5), "99.8 km\u00b2");  // 99.78 km²
    EXPECT_EQ(dhc::areaText(2000000, 900), "1800 km\u00b2");
    EXPECT_EQ(dhc::areaText(1, 10), "0.001 ha");
}

TEST_F(Picture, SvgCarriesTooltipsCutsAndAxis) {
    dhc::TreeOptions options;
    options.pixelArea = 900;  // 30 m pixels
    const std::string svg = dhc::treeSvg(h, options);
    auto count = [&svg](const std::string& what) {
        size_t n = 0;
        for (size_t at = svg.find(what); at != std::string::npos; at = svg.find(what, at + 1)) ++n;
        return n;
    };
    EXPECT_EQ(count("<g class=\"node "), h.nodes().size());
    EXPECT_EQ(count("<g class=\"cut\""), static_cast<size_t>(h.splits()) + 1);
    EXPECT_EQ(count("<title>"), h.nodes().size() + h.splits() + 1);
    EXPECT_EQ(count("<g class=\"tick\""), dhc::layoutTree(h).ticks.size());
    EXPECT_NE(svg.find("split gain still to come"), std::string::npos);
    // The root's tooltip: its area in map units and pixels, its split, its mean per band.
    const dhc::RegionNode& root = h.root();
    const std::string title = "<title>#" + std::to_string(root.label) + ": " + dhc::areaText(root.area, 900) + " (" +
                              std::to_string(root.area) + " px)\nsplit rank 1, gain ";
    EXPECT_NE(svg.find(title), std::string::npos) << title;
    EXPECT_NE(svg.find("\u03b2 ", svg.find(title)), std::string::npos);
    EXPECT_NE(svg.find("mean per band:", svg.find(title)), std::string::npos);
}

TEST_F(Picture, PngIsTheSvgDrawnWithSmoothText) {
    const dhc::TreeLayout layout = dhc::layoutTree(h);
    const dhc::RgbImage png = dhc::treePicture(h);
    ASSERT_EQ(png.width(), layout.width);
    ASSERT_EQ(png.height(), layout.height);
    for (const auto& n : layout.nodes) EXPECT_EQ(png.at(n.x, n.y), n.fill) << "#" << n.label;
    std::set<int> greys;
    for (int y = 0; y < png.height(); ++y)
        for (int x = 0; x < png.width(); ++x) {
            const Rgb c = png.at(x, y);
            if (c.r == c.g && c.g == c.b) greys.insert(c.r);
        }
    EXPECT_GT(greys.size(), 20u);  // anti-aliased edges, not two-colour glyphs

    EXPECT_THROW(dhc::renderSvg("<svg"), dhc::WriteError);
    EXPECT_THROW(dhc::renderSvg("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"0\" height=\"0\"/>"),
                 dhc::WriteError);
}

}  // namespace
