#include "data/PottsMapRegion.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "MapTestUtil.h"

namespace {

using Runs = std::vector<std::tuple<int, int, int>>;

// A region over a map holding the grid; the test owns the planes.  A whole-image
// region keeps the full-image description; otherwise the label's cells are described.
struct OwnedRegion {
    OwnedRegion(Grid g, int label, bool wholeImage = false) {
        r = new PottsMapRegion(static_cast<int>(g.size()), static_cast<int>(g[0].size()), 1, -1, label,
                               RowPointers(g).get());
        if (wholeImage) return;
        r->updateRuns();  // within the full-image margins
        r->updateMargins(false);
        r->updateArea();
    }
    ~OwnedRegion() {
        r->destroyMaps();
        delete r;
    }
    PottsMapRegion* operator->() { return r; }
    PottsMapRegion* r;
};

Runs runsOf(const PottsMapRegion& r) {
    Runs v;
    for (int i = 0; i < r.runCount; ++i) v.emplace_back(r.runs[i].row, r.runs[i].col, r.runs[i].len);
    return v;
}

// Label, area and margins (minCol, maxCol, minRow, maxRow).
std::tuple<int, int, int, int, int, int> shapeOf(const PottsMapRegion& r) {
    return {r.label, r.area, r.minCol, r.maxCol, r.minRow, r.maxRow};
}

TEST(PottsMapRegion, FullImageRegionOfThreeByFour) {
    PottsMapRegion region(3, 4, 1, -1, 5, nullptr);
    EXPECT_EQ(runsOf(region), (Runs{{0, 0, 4}, {1, 0, 4}, {2, 0, 4}}));
    EXPECT_EQ(shapeOf(region), std::make_tuple(5, 12, 0, 3, 0, 2));
    EXPECT_EQ(region.contourCount, 0);
    // The perimeter in four stretches: top, right, bottom, left.
    EXPECT_EQ(cellsOf(region.border, region.borderCount),
              (Cells{{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 3}, {2, 1}, {2, 2}, {2, 3}, {1, 0}, {2, 0}}));
    region.destroyMaps();
}

TEST(PottsMapRegion, RefreshRestoreAndInnerRelabelling) {
    OwnedRegion reg({{1, 1, 2}, {1, 3, 3}}, 1);
    reg->copyToAuxMap();
    reg->mapRefresh(7, true);  // only the three cells of label 1
    EXPECT_EQ(auxOf(*reg.r), (Grid{{7, 7, 2}, {7, 3, 3}}));
    EXPECT_EQ(mapOf(*reg.r), (Grid{{1, 1, 2}, {1, 3, 3}}));
    reg->auxMap[1][2] = 5;
    reg->mapRestore();  // region cells only
    EXPECT_EQ(mapOf(*reg.r), (Grid{{7, 5, 2}, {7, 3, 3}}));

    OwnedRegion full({{4, 0, 4}, {9, 9, 9}, {2, 2, 2}}, 0, true);
    int table[10] = {5, 0, 6, 0, 7, 0, 0, 0, 0, 8};
    full->setInnerLabels(table);
    EXPECT_EQ(mapOf(*full.r), (Grid{{7, 5, 7}, {8, 8, 8}, {6, 6, 6}}));
}

TEST(PottsMapRegion, SplitGivesRegionsWithRunsContoursBordersAndAreas) {
    const Grid g = {{2, 2, 3, 3}, {2, 2, 3, 3}, {2, 2, 2, 3}};
    OwnedRegion full(g, 0, true);
    int n = 0;
    PottsMapRegion* parts = full->split(n);
    ASSERT_EQ(n, 2);
    PottsMapRegion& a = parts[0];
    PottsMapRegion& b = parts[1];
    EXPECT_EQ(runsOf(a), (Runs{{0, 0, 2}, {1, 0, 2}, {2, 0, 3}}));
    EXPECT_EQ(runsOf(b), (Runs{{0, 2, 2}, {1, 2, 2}, {2, 3, 1}}));
    EXPECT_EQ(shapeOf(a), std::make_tuple(2, 7, 0, 2, 0, 2));
    EXPECT_EQ(shapeOf(b), std::make_tuple(3, 5, 2, 3, 0, 2));
    // Contour: fewer than 8 agreeing neighbours, frame cells agreeing.
    EXPECT_EQ(cellsOf(a.contour, a.contourCount), (Cells{{0, 1}, {1, 1}, {2, 1}, {2, 2}}));
    EXPECT_EQ(cellsOf(b.contour, b.contourCount), (Cells{{0, 2}, {1, 2}, {1, 3}, {2, 3}}));
    // Each keeps its share of the image perimeter, in the parent's order.
    EXPECT_EQ(cellsOf(a.border, a.borderCount), (Cells{{0, 0}, {0, 1}, {2, 1}, {2, 2}, {1, 0}, {2, 0}}));
    EXPECT_EQ(cellsOf(b.border, b.borderCount), (Cells{{0, 2}, {0, 3}, {1, 3}, {2, 3}}));
    EXPECT_EQ(auxOf(*full.r), g);  // split leaves a copy of the map in the aux map
    delete[] parts;

    // A label met twice within one run of the parent gets two sub-runs there.
    OwnedRegion reg({{1, 1, 1, 1, 1}, {1, 1, 1, 1, 1}}, 1);
    reg->setPixel(0, 1, 6);
    reg->setPixel(1, 3, 6);
    parts = reg->split(n);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(runsOf(parts[0]), (Runs{{0, 0, 1}, {0, 2, 3}, {1, 0, 3}, {1, 4, 1}}));
    EXPECT_EQ(runsOf(parts[1]), (Runs{{0, 1, 1}, {1, 3, 1}}));
    delete[] parts;
}

TEST(PottsMapRegion, CornerTouchingPixelsFormOnePiece) {
    OwnedRegion reg({{0, 0, 0, 0}, {0, 5, 0, 0}, {0, 0, 5, 0}, {0, 0, 0, 0}}, 5);
    int n = -1;
    EXPECT_EQ(reg->fragment(n, false), nullptr);
    EXPECT_EQ(n, 1);
    EXPECT_EQ(reg->auxMap[3][3], 6);  // the piece's label, after the largest label 5
    EXPECT_EQ(reg->map[2][2], 5);     // nothing moved into the map
    PottsMapRegion* pieces = reg->fragment(n, true);
    ASSERT_EQ(n, 1);
    EXPECT_TRUE(reg->fragmented);
    EXPECT_EQ(shapeOf(pieces[0]), std::make_tuple(6, 2, 1, 2, 1, 2));
    delete[] pieces;
}

TEST(PottsMapRegion, TwoBlobsAreLabelledAfterTheLargestLabelInRasterOrder) {
    // Largest label 7.  The blob of label 3 at the top right starts first.
    OwnedRegion reg({{0, 0, 0, 0, 3, 3}, {0, 7, 0, 0, 3, 0}, {3, 3, 0, 0, 0, 0}, {3, 0, 0, 0, 0, 0}}, 3);
    int n = 0;
    PottsMapRegion* pieces = reg->fragment(n, false);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(shapeOf(pieces[0]), std::make_tuple(8, 3, 4, 5, 0, 1));
    EXPECT_EQ(shapeOf(pieces[1]), std::make_tuple(9, 3, 0, 1, 2, 3));
    EXPECT_EQ(reg->map[4][1], 9);  // the pieces' labels moved into the map
    delete[] pieces;

    // A serpentine joins only after a second forward pass carries the first run's
    // value down the right arm: one piece, not two.
    OwnedRegion snake({{1, 0, 1, 1, 1}, {1, 0, 1, 0, 1}, {1, 0, 1, 0, 1}, {1, 1, 1, 0, 1}}, 1);
    EXPECT_EQ(snake->fragmentOnAuxMap(), 1);
    EXPECT_EQ(auxOf(*snake.r)[3][4], 2);
}

}  // namespace
