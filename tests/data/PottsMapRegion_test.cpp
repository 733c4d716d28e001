#include "data/PottsMapRegion.h"

#include <gtest/gtest.h>

#include <cstdlib>
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

Runs runsOf(const run* runs, int n) {
    Runs v;
    for (int i = 0; i < n; ++i) v.emplace_back(runs[i].row, runs[i].col, runs[i].len);
    return v;
}

// Label, area and margins (minCol, maxCol, minRow, maxRow).
std::tuple<int, int, int, int, int, int> shapeOf(const PottsMapRegion& r) {
    return {r.label, r.area, r.minCol, r.maxCol, r.minRow, r.maxRow};
}

TEST(PottsMapRegion, FullImageRegionOfThreeByFour) {
    PottsMapRegion region(3, 4, 1, -1, 5, nullptr);
    EXPECT_EQ(runsOf(region.runs, region.runCount), (Runs{{0, 0, 4}, {1, 0, 4}, {2, 0, 4}}));
    EXPECT_EQ(shapeOf(region), std::make_tuple(5, 12, 0, 3, 0, 2));
    EXPECT_EQ(region.contourCount, 0);
    // The perimeter in four stretches: top, right, bottom, left.
    EXPECT_EQ(cellsOf(region.border, region.borderCount),
              (Cells{{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 3}, {2, 1}, {2, 2}, {2, 3}, {1, 0}, {2, 0}}));
    EXPECT_TRUE(region.fullImage);
    EXPECT_FALSE(region.fragmented);
    region.destroyMaps();
}

TEST(PottsMapRegion, RunsAreMaximalInRasterOrderAndTheScanWalksThem) {
    OwnedRegion reg({{1, 1, 0, 1}, {0, 0, 0, 0}, {1, 0, 1, 1}, {0, 1, 1, 1}}, 1);
    EXPECT_EQ(runsOf(reg->runs, reg->runCount),
              (Runs{{0, 0, 2}, {0, 3, 1}, {2, 0, 1}, {2, 2, 2}, {3, 1, 3}}));
    EXPECT_EQ(shapeOf(*reg.r), std::make_tuple(1, 9, 0, 3, 0, 3));
    Cells seen;
    reg->resetScan();
    do seen.emplace_back(reg->getLocation().x, reg->getLocation().y);
    while (reg->nextElement());
    EXPECT_EQ(seen, (Cells{{0, 0}, {0, 1}, {0, 3}, {2, 0}, {2, 2}, {2, 3}, {3, 1}, {3, 2}, {3, 3}}));

    // Within narrower margins runs stop at maxCol.
    reg->minCol = 1;
    reg->maxCol = 2;
    reg->updateRuns();
    EXPECT_EQ(runsOf(reg->runs, reg->runCount), (Runs{{0, 1, 1}, {2, 2, 1}, {3, 1, 2}}));
}

TEST(PottsMapRegion, CopiesOwnTheirListsAndShareThePlanes) {
    PottsMapRegion original(2, 3, 1, -1, 4, nullptr);
    {
        PottsMapRegion copy(original);
        EXPECT_EQ(copy.map, original.map);
        EXPECT_EQ(runsOf(copy.runs, copy.runCount), runsOf(original.runs, original.runCount));
        EXPECT_EQ(cellsOf(copy.border, copy.borderCount), cellsOf(original.border, original.borderCount));
        copy.runs[0].len = 1;
    }  // the copy's destructor must leave the original's lists alone
    EXPECT_EQ(original.runs[0].len, 3);
    PottsMapRegion fresh(original, 9);  // same planes, new label, empty
    EXPECT_EQ(fresh.map, original.map);
    EXPECT_EQ(std::make_tuple(fresh.label, fresh.runCount, fresh.area), std::make_tuple(9, 0, 0));
    original.destroyMaps();
}

TEST(PottsMapRegion, RefreshRestoreAndInnerRelabelling) {
    OwnedRegion reg({{1, 1, 2}, {1, 3, 3}}, 1);
    reg->copyToAuxMap();
    reg->mapRefresh(7, true);  // only the three cells of label 1
    EXPECT_EQ(auxOf(*reg.r), (Grid{{7, 7, 2}, {7, 3, 3}}));
    EXPECT_EQ(mapOf(*reg.r), (Grid{{1, 1, 2}, {1, 3, 3}}));
    reg->mapRefresh(0, true);
    reg->auxMap[1][2] = 5;
    reg->mapRestore();  // region cells only
    EXPECT_EQ(mapOf(*reg.r), (Grid{{0, 5, 2}, {0, 3, 3}}));
    reg->mapRefresh(1, false);
    EXPECT_EQ(mapOf(*reg.r), (Grid{{1, 1, 2}, {1, 3, 3}}));

    OwnedRegion full({{4, 0, 4}, {9, 9, 9}, {2, 2, 2}}, 0, true);
    int n = 0;
    int* labels = full->labels(n);
    EXPECT_EQ(std::vector<int>(labels, labels + n), (std::vector<int>{0, 2, 4, 9}));
    delete[] labels;
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
    EXPECT_EQ(a.map, full->map);
    EXPECT_EQ(runsOf(a.runs, a.runCount), (Runs{{0, 0, 2}, {1, 0, 2}, {2, 0, 3}}));
    EXPECT_EQ(runsOf(b.runs, b.runCount), (Runs{{0, 2, 2}, {1, 2, 2}, {2, 3, 1}}));
    EXPECT_EQ(shapeOf(a), std::make_tuple(2, 7, 0, 2, 0, 2));
    EXPECT_EQ(shapeOf(b), std::make_tuple(3, 5, 2, 3, 0, 2));
    // Contour: fewer than 8 agreeing neighbours, frame cells agreeing.
    EXPECT_EQ(cellsOf(a.contour, a.contourCount), (Cells{{0, 1}, {1, 1}, {2, 1}, {2, 2}}));
    EXPECT_EQ(cellsOf(b.contour, b.contourCount), (Cells{{0, 2}, {1, 2}, {1, 3}, {2, 3}}));
    // Each keeps its share of the image perimeter, in the parent's order.
    EXPECT_EQ(cellsOf(a.border, a.borderCount), (Cells{{0, 0}, {0, 1}, {2, 1}, {2, 2}, {1, 0}, {2, 0}}));
    EXPECT_EQ(cellsOf(b.border, b.borderCount), (Cells{{0, 2}, {0, 3}, {1, 3}, {2, 3}}));
    EXPECT_EQ(auxOf(*full.r), g);  // split leaves a copy of the map in the aux map

    a.resetContourScan();
    EXPECT_EQ(a.uc_contour(3), 2);  // (0,1): (0,2) and (1,2)
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(a.nextContourElement());
    EXPECT_EQ(a.uc_contour(3), 3);  // (2,2): (1,2), (1,3), (2,3)
    EXPECT_FALSE(a.nextContourElement());
    delete[] parts;
}

TEST(PottsMapRegion, SplitKeepsSeveralRunsPerRowApart) {
    OwnedRegion reg({{1, 1, 1, 1, 1}, {1, 1, 1, 1, 1}}, 1);
    reg->setPixel(0, 1, 6);  // relabelled inside the region, whose runs stay whole rows
    reg->setPixel(1, 3, 6);
    int n = 0;
    PottsMapRegion* parts = reg->split(n);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(runsOf(parts[0].runs, parts[0].runCount), (Runs{{0, 0, 1}, {0, 2, 3}, {1, 0, 3}, {1, 4, 1}}));
    EXPECT_EQ(runsOf(parts[1].runs, parts[1].runCount), (Runs{{0, 1, 1}, {1, 3, 1}}));
    EXPECT_EQ(shapeOf(parts[0]), std::make_tuple(1, 8, 0, 4, 0, 1));
    EXPECT_EQ(shapeOf(parts[1]), std::make_tuple(6, 2, 1, 3, 0, 1));
    delete[] parts;
}

TEST(PottsMapRegion, CornerTouchingPixelsFormOnePiece) {
    OwnedRegion reg({{0, 0, 0, 0}, {0, 5, 0, 0}, {0, 0, 5, 0}, {0, 0, 0, 0}}, 5);
    int* labels = nullptr;
    EXPECT_EQ(reg->fragmentOnAuxMap(labels), 1);
    EXPECT_EQ(labels[0], 6);
    delete[] labels;
    EXPECT_EQ(reg->auxMap[2][2], 6);
    EXPECT_EQ(reg->auxMap[3][3], 6);
    int n = -1;
    EXPECT_EQ(reg->fragment(n, false), nullptr);
    EXPECT_EQ(n, 1);
    EXPECT_FALSE(reg->fragmented);
    EXPECT_EQ(reg->map[2][2], 5);  // nothing moved into the map
    PottsMapRegion* pieces = reg->fragment(n, true);
    ASSERT_EQ(n, 1);
    EXPECT_TRUE(reg->fragmented);
    EXPECT_EQ(shapeOf(pieces[0]), std::make_tuple(6, 2, 1, 2, 1, 2));
    EXPECT_EQ(reg->map[3][3], 6);
    delete[] pieces;
}

TEST(PottsMapRegion, TwoBlobsAreLabelledAfterTheLargestLabelInRasterOrder) {
    // Largest label 7.  The blob of label 3 at the top right starts first.
    OwnedRegion reg({{0, 0, 0, 0, 3, 3}, {0, 7, 0, 0, 3, 0}, {3, 3, 0, 0, 0, 0}, {3, 0, 0, 0, 0, 0}}, 3);
    int* labels = nullptr;
    EXPECT_EQ(reg->fragmentOnAuxMap(labels), 2);
    EXPECT_EQ(std::vector<int>(labels, labels + 2), (std::vector<int>{8, 9}));
    delete[] labels;
    // The box enlarged by one holds runCount (4) off the region; beyond it the map's copy.
    EXPECT_EQ(auxOf(*reg.r),
              (Grid{{4, 4, 4, 4, 8, 8}, {4, 4, 4, 4, 8, 4}, {9, 9, 4, 4, 4, 4}, {9, 4, 4, 4, 4, 4}}));
    EXPECT_EQ(reg->auxMap[0][0], 4);  // a frame cell in the ring
    EXPECT_EQ(reg->map[2][2], 7);     // the map is untouched

    int n = 0;
    PottsMapRegion* pieces = reg->fragment(n, false);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(shapeOf(pieces[0]), std::make_tuple(8, 3, 4, 5, 0, 1));
    EXPECT_EQ(shapeOf(pieces[1]), std::make_tuple(9, 3, 0, 1, 2, 3));
    EXPECT_EQ(reg->map[4][1], 9);
    delete[] pieces;
}

TEST(PottsMapRegion, FragmentationMatchesFloodFill) {
    // A U whose right arm is its own first run in row 0 but joins run 0 only through
    // the bottom row: the backward pass is needed.  A separate dot follows.
    OwnedRegion u({{4, 0, 0, 0, 4, 0, 0}, {4, 0, 0, 0, 4, 0, 4}, {0, 4, 4, 4, 0, 0, 0}}, 4);
    EXPECT_EQ(u->fragmentOnAuxMap(), 2);
    EXPECT_EQ(auxOf(*u.r)[1][4], 5);
    EXPECT_EQ(auxOf(*u.r)[1][6], 6);

    std::srand(5);
    for (int trial = 0; trial < 40; ++trial) {
        Grid g(2 + std::rand() % 14, std::vector<int>(2 + std::rand() % 14));
        for (auto& row : g)
            for (int& v : row) v = std::rand() % 3 == 0 ? 2 : std::rand() % 12;
        g[0][0] = 2;
        const int largest = maxOf(g);
        OwnedRegion reg(g, 2);
        const int pieces = reg->fragmentOnAuxMap();
        const Grid expected = floodFill(g, true, 2, largest);
        Grid aux = auxOf(*reg.r);
        for (size_t r = 0; r < g.size(); ++r)
            for (size_t c = 0; c < g[0].size(); ++c)
                if (g[r][c] != 2) aux[r][c] = 0;  // only the region's cells are labelled
        EXPECT_EQ(aux, expected) << "trial " << trial;
        EXPECT_EQ(pieces, maxOf(expected) - largest);
    }
}

TEST(PottsMapRegion, MarginsFromTheLists) {
    PottsMapRegion full(3, 4, 1, -1, 0, nullptr);
    PottsMapRegion reg(full, 1);
    reg.updateMargins(true);  // empty lists: the whole image
    EXPECT_EQ(shapeOf(reg), std::make_tuple(1, 0, 0, 3, 0, 2));
    reg.contourCount = 2;
    reg.contour = new xy[2]{{1, 2, 0, 0}, {2, 1, 0, 0}};
    reg.borderCount = 1;
    reg.border = new xy[1]{{0, 1, 0, 0}};
    reg.updateMargins(true);
    EXPECT_EQ(shapeOf(reg), std::make_tuple(1, 0, 1, 2, 0, 2));
    full.destroyMaps();
}

}  // namespace
