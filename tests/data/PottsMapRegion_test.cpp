#include "data/PottsMapRegion.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <queue>
#include <tuple>
#include <vector>

#include "MapTestUtil.h"

namespace {

using Cells = std::vector<std::pair<int, int>>;

// A region over a map built from a grid; the test owns the planes.
struct OwnedRegion {
    OwnedRegion(Grid g, int label, int border = -1) {
        RowPointers p(g);
        r = new PottsMapRegion(static_cast<int>(g.size()), static_cast<int>(g[0].size()), 1, border, label,
                               p.get());
        r->updateRuns();  // the full-image margins: runs of label only
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

std::vector<std::tuple<int, int, int>> runsOf(const run* runs, int n) {
    std::vector<std::tuple<int, int, int>> v;
    for (int i = 0; i < n; ++i) v.emplace_back(runs[i].row, runs[i].col, runs[i].len);
    return v;
}

Cells cellsOf(const xy* list, int n) {
    Cells v;
    for (int i = 0; i < n; ++i) v.emplace_back(list[i].x, list[i].y);
    return v;
}

// Independent reference: 8-connected components of the cells carrying label,
// numbered base + 1, base + 2, ... by their first cell in raster order.
Grid referencePieces(const Grid& g, int label, int base) {
    const int rows = static_cast<int>(g.size()), cols = static_cast<int>(g[0].size());
    Grid out(rows, std::vector<int>(cols, 0));
    int next = base;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            if (g[r][c] != label || out[r][c] != 0) continue;
            out[r][c] = ++next;
            std::queue<std::pair<int, int>> q;
            q.push({r, c});
            while (!q.empty()) {
                auto [y, x] = q.front();
                q.pop();
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int ny = y + dy, nx = x + dx;
                        if (ny < 0 || nx < 0 || ny >= rows || nx >= cols) continue;
                        if (g[ny][nx] == label && out[ny][nx] == 0) {
                            out[ny][nx] = next;
                            q.push({ny, nx});
                        }
                    }
            }
        }
    return out;
}

}  // namespace

TEST(PottsMapRegion, FullImageRegionOfThreeByFour) {
    PottsMapRegion region(3, 4, 1, -1, 5, nullptr);
    EXPECT_EQ(region.runCount, 3);
    EXPECT_EQ(runsOf(region.runs, region.runCount),
              (std::vector<std::tuple<int, int, int>>{{0, 0, 4}, {1, 0, 4}, {2, 0, 4}}));
    EXPECT_EQ(region.area, 12);
    EXPECT_EQ(region.minCol, 0);
    EXPECT_EQ(region.maxCol, 3);
    EXPECT_EQ(region.minRow, 0);
    EXPECT_EQ(region.maxRow, 2);
    EXPECT_EQ(region.contourCount, 0);
    EXPECT_EQ(region.borderCount, 10);
    EXPECT_EQ(cellsOf(region.border, region.borderCount),
              (Cells{{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 3}, {2, 1}, {2, 2}, {2, 3}, {1, 0}, {2, 0}}));
    EXPECT_TRUE(region.fullImage);
    EXPECT_FALSE(region.fragmented);
    EXPECT_EQ(region.label, 5);
    region.destroyMaps();
}

TEST(PottsMapRegion, RunsAreMaximalInRasterOrder) {
    OwnedRegion reg({{1, 1, 0, 1}, {0, 0, 0, 0}, {1, 0, 1, 1}, {0, 1, 1, 1}}, 1);
    EXPECT_EQ(runsOf(reg->runs, reg->runCount), (std::vector<std::tuple<int, int, int>>{
                                                    {0, 0, 2}, {0, 3, 1}, {2, 0, 1}, {2, 2, 2}, {3, 1, 3}}));
    EXPECT_EQ(reg->area, 9);
    EXPECT_EQ(reg->minRow, 0);
    EXPECT_EQ(reg->maxRow, 3);
    EXPECT_EQ(reg->minCol, 0);
    EXPECT_EQ(reg->maxCol, 3);

    // Within narrower margins runs stop at maxCol.
    reg->minCol = 1;
    reg->maxCol = 2;
    reg->updateRuns();
    EXPECT_EQ(runsOf(reg->runs, reg->runCount),
              (std::vector<std::tuple<int, int, int>>{{0, 1, 1}, {2, 2, 1}, {3, 1, 2}}));
}

TEST(PottsMapRegion, PixelScanWalksEveryRunCell) {
    OwnedRegion reg({{1, 1, 0}, {0, 0, 1}}, 1);
    Cells seen;
    reg->resetScan();
    do {
        xy p = reg->getLocation();
        seen.emplace_back(p.x, p.y);
    } while (reg->nextElement());
    EXPECT_EQ(seen, (Cells{{0, 0}, {0, 1}, {1, 2}}));
}

TEST(PottsMapRegion, CopiesOwnTheirListsAndShareThePlanes) {
    PottsMapRegion original(2, 3, 1, -1, 4, nullptr);
    {
        PottsMapRegion copy(original);
        EXPECT_EQ(copy.map, original.map);
        EXPECT_NE(copy.runs, original.runs);
        EXPECT_NE(copy.border, original.border);
        EXPECT_EQ(runsOf(copy.runs, copy.runCount), runsOf(original.runs, original.runCount));
        EXPECT_EQ(cellsOf(copy.border, copy.borderCount), cellsOf(original.border, original.borderCount));
        EXPECT_EQ(copy.area, 6);
        copy.runs[0].len = 1;
    }  // the copy's destructor must leave the original's lists alone
    EXPECT_EQ(original.runs[0].len, 3);
    PottsMapRegion fresh(original, 9);
    EXPECT_EQ(fresh.map, original.map);
    EXPECT_EQ(fresh.label, 9);
    EXPECT_EQ(fresh.runCount, 0);
    EXPECT_EQ(fresh.area, 0);
    EXPECT_EQ(fresh.runs, nullptr);
    original.destroyMaps();
}

TEST(PottsMapRegion, RefreshRestoreLabelsAndInnerRelabelling) {
    OwnedRegion reg({{1, 1, 2}, {1, 3, 3}}, 1);
    PottsMapRegion whole(*reg.r, 0);
    whole.minRow = 0;
    whole.maxRow = 1;
    whole.minCol = 0;
    whole.maxCol = 2;
    reg->mapRefresh(7, true);  // only the three cells of label 1
    EXPECT_EQ(reg->auxMap[1][1], 7);
    EXPECT_EQ(reg->auxMap[1][2], 7);
    EXPECT_EQ(reg->auxMap[2][1], 7);
    reg->mapRestore();
    EXPECT_EQ(mapOf(*reg.r), (Grid{{7, 7, 2}, {7, 3, 3}}));
    reg->mapRefresh(1, false);
    EXPECT_EQ(mapOf(*reg.r), (Grid{{1, 1, 2}, {1, 3, 3}}));

    // A region over the whole image (runs built from a full-image region).
    PottsMapRegion full(3, 3, 1, -1, 0, nullptr);
    full.map[1][1] = 4;
    full.map[1][2] = 0;
    full.map[1][3] = 4;
    for (int r = 2; r <= 3; ++r)
        for (int c = 1; c <= 3; ++c) full.map[r][c] = r == 2 ? 9 : 2;
    int n = 0;
    int* labels = full.labels(n);
    EXPECT_EQ(std::vector<int>(labels, labels + n), (std::vector<int>{0, 2, 4, 9}));
    delete[] labels;
    int table[10] = {5, 0, 6, 0, 7, 0, 0, 0, 0, 8};
    full.setInnerLabels(table);
    EXPECT_EQ(mapOf(full), (Grid{{7, 5, 7}, {8, 8, 8}, {6, 6, 6}}));
    full.destroyMaps();
}

TEST(PottsMapRegion, SubRunsAndSubBordersPerLabel) {
    PottsMapRegion full(3, 4, 1, -1, 0, nullptr);
    Grid g = {{2, 2, 3, 3}, {2, 2, 3, 3}, {2, 2, 2, 3}};
    RowPointers p(g);
    full.readMap(p.get());
    int n = 0;
    int* labels = nullptr;
    int* counts = nullptr;
    run** sub = full.retrieveSubRuns(n, labels, counts);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(labels[0], 2);
    EXPECT_EQ(labels[1], 3);
    EXPECT_EQ(runsOf(sub[0], counts[0]),
              (std::vector<std::tuple<int, int, int>>{{0, 0, 2}, {1, 0, 2}, {2, 0, 3}}));
    EXPECT_EQ(runsOf(sub[1], counts[1]),
              (std::vector<std::tuple<int, int, int>>{{0, 2, 2}, {1, 2, 2}, {2, 3, 1}}));
    EXPECT_TRUE(full.checkRetrieveSubRuns(n, labels, counts, sub));
    sub[1][2].col = 2;  // now claims a cell of label 2 and overlaps
    EXPECT_FALSE(full.checkRetrieveSubRuns(n, labels, counts, sub));
    sub[1][2].col = 3;
    counts[1] = 2;  // a lost run
    EXPECT_FALSE(full.checkRetrieveSubRuns(n, labels, counts, sub));
    for (int j = 0; j < n; ++j) delete[] sub[j];
    delete[] sub;
    delete[] labels;
    delete[] counts;

    xy** borders = full.retrieveSubBorders(n, labels, counts);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(cellsOf(borders[0], counts[0]), (Cells{{0, 0}, {0, 1}, {2, 1}, {2, 2}, {1, 0}, {2, 0}}));
    EXPECT_EQ(cellsOf(borders[1], counts[1]), (Cells{{0, 2}, {0, 3}, {1, 3}, {2, 3}}));
    for (int j = 0; j < n; ++j) delete[] borders[j];
    delete[] borders;
    delete[] labels;
    delete[] counts;
    int* bl = full.borderLabels(n);
    EXPECT_EQ(std::vector<int>(bl, bl + n), (std::vector<int>{2, 3}));
    delete[] bl;
    full.destroyMaps();
}

TEST(PottsMapRegion, SplitGivesRegionsWithRunsContoursBordersAndAreas) {
    PottsMapRegion full(3, 4, 1, -1, 0, nullptr);
    Grid g = {{2, 2, 3, 3}, {2, 2, 3, 3}, {2, 2, 2, 3}};
    RowPointers p(g);
    full.readMap(p.get());
    int n = 0;
    PottsMapRegion* parts = full.split(n);
    ASSERT_EQ(n, 2);
    PottsMapRegion& a = parts[0];
    PottsMapRegion& b = parts[1];
    EXPECT_EQ(a.label, 2);
    EXPECT_EQ(b.label, 3);
    EXPECT_EQ(a.map, full.map);
    EXPECT_EQ(runsOf(a.runs, a.runCount),
              (std::vector<std::tuple<int, int, int>>{{0, 0, 2}, {1, 0, 2}, {2, 0, 3}}));
    EXPECT_EQ(runsOf(b.runs, b.runCount),
              (std::vector<std::tuple<int, int, int>>{{0, 2, 2}, {1, 2, 2}, {2, 3, 1}}));
    EXPECT_EQ(a.area, 7);
    EXPECT_EQ(b.area, 5);
    EXPECT_EQ(std::make_tuple(a.minCol, a.maxCol, a.minRow, a.maxRow), std::make_tuple(0, 2, 0, 2));
    EXPECT_EQ(std::make_tuple(b.minCol, b.maxCol, b.minRow, b.maxRow), std::make_tuple(2, 3, 0, 2));
    // Contour: fewer than 8 agreeing neighbours, frame cells agreeing (worked by hand).
    EXPECT_EQ(cellsOf(a.contour, a.contourCount), (Cells{{0, 1}, {1, 1}, {2, 1}, {2, 2}}));
    EXPECT_EQ(cellsOf(b.contour, b.contourCount), (Cells{{0, 2}, {1, 2}, {1, 3}, {2, 3}}));
    EXPECT_EQ(cellsOf(a.border, a.borderCount), (Cells{{0, 0}, {0, 1}, {2, 1}, {2, 2}, {1, 0}, {2, 0}}));
    EXPECT_EQ(cellsOf(b.border, b.borderCount), (Cells{{0, 2}, {0, 3}, {1, 3}, {2, 3}}));
    EXPECT_EQ(auxOf(full), g);  // split leaves a copy of the map in the aux map

    // The contour cursor and the neighbour count at a contour element.
    a.resetContourScan();
    EXPECT_EQ(a.uc_contour(3), 2);  // (0,1): (0,2) and (1,2)
    EXPECT_TRUE(a.nextContourElement());
    EXPECT_TRUE(a.nextContourElement());
    EXPECT_TRUE(a.nextContourElement());
    EXPECT_EQ(a.getContourLocation().y, 2);
    EXPECT_EQ(a.uc_contour(3), 3);  // (2,2): (1,2), (1,3), (2,3)
    EXPECT_FALSE(a.nextContourElement());
    b.resetBorderScan();
    int walked = 1;
    while (b.nextBorderElement()) ++walked;
    EXPECT_EQ(walked, 4);
    EXPECT_EQ(b.getBorderLocation().x, 2);
    delete[] parts;
    full.destroyMaps();
}

TEST(PottsMapRegion, SplitKeepsSeveralRunsPerRowApart) {
    OwnedRegion reg({{1, 1, 1, 1, 1}, {1, 1, 1, 1, 1}}, 1);
    reg->map[1][2] = 6;  // (0,1) and (1,3) relabelled inside the region
    reg->map[2][4] = 6;
    int n = 0;
    PottsMapRegion* parts = reg->split(n);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(runsOf(parts[0].runs, parts[0].runCount),
              (std::vector<std::tuple<int, int, int>>{{0, 0, 1}, {0, 2, 3}, {1, 0, 3}, {1, 4, 1}}));
    EXPECT_EQ(runsOf(parts[1].runs, parts[1].runCount),
              (std::vector<std::tuple<int, int, int>>{{0, 1, 1}, {1, 3, 1}}));
    EXPECT_EQ(parts[0].area + parts[1].area, 10);
    EXPECT_EQ(std::make_tuple(parts[1].minCol, parts[1].maxCol, parts[1].minRow, parts[1].maxRow),
              std::make_tuple(1, 3, 0, 1));
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
    ASSERT_NE(pieces, nullptr);
    EXPECT_EQ(n, 1);
    EXPECT_TRUE(reg->fragmented);
    EXPECT_EQ(pieces[0].label, 6);
    EXPECT_EQ(pieces[0].area, 2);
    EXPECT_EQ(reg->map[3][3], 6);
    delete[] pieces;
}

TEST(PottsMapRegion, TwoBlobsAreLabelledAfterTheLargestLabelInRasterOrder) {
    // Largest label 7.  The blob of label 3 at the top right starts first.
    Grid g = {{0, 0, 0, 0, 3, 3}, {0, 7, 0, 0, 3, 0}, {3, 3, 0, 0, 0, 0}, {3, 0, 0, 0, 0, 0}};
    OwnedRegion reg(g, 3);
    int* labels = nullptr;
    EXPECT_EQ(reg->fragmentOnAuxMap(labels), 2);
    EXPECT_EQ(std::vector<int>(labels, labels + 2), (std::vector<int>{8, 9}));
    delete[] labels;
    EXPECT_EQ(reg->auxMap[1][5], 8);
    EXPECT_EQ(reg->auxMap[1][6], 8);
    EXPECT_EQ(reg->auxMap[2][5], 8);
    EXPECT_EQ(reg->auxMap[3][1], 9);
    EXPECT_EQ(reg->auxMap[3][2], 9);
    EXPECT_EQ(reg->auxMap[4][1], 9);
    // The box enlarged by one holds runCount (4 runs) off the region; beyond it the map copy.
    EXPECT_EQ(reg->auxMap[2][2], 4);  // the 7 inside the box
    EXPECT_EQ(reg->auxMap[0][0], 4);  // frame cell in the ring
    EXPECT_EQ(reg->map[2][2], 7);     // the map is untouched
    EXPECT_EQ(reg->map[1][5], 3);

    int n = 0;
    PottsMapRegion* pieces = reg->fragment(n, false);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(pieces[0].label, 8);
    EXPECT_EQ(pieces[0].area, 3);
    EXPECT_EQ(pieces[1].label, 9);
    EXPECT_EQ(pieces[1].area, 3);
    EXPECT_EQ(reg->map[4][1], 9);
    delete[] pieces;
}

TEST(PottsMapRegion, PiecesReachedOnlyThroughLaterRowsNeedTheBackwardPass) {
    // A U whose right arm is its own first run in row 0 (run 1) but joins run 0
    // only through the bottom row; a separate dot follows.
    Grid g = {{4, 0, 0, 0, 4, 0, 0}, {4, 0, 0, 0, 4, 0, 4}, {0, 4, 4, 4, 0, 0, 0}};
    OwnedRegion reg(g, 4);
    EXPECT_EQ(reg->fragmentOnAuxMap(), 2);
    EXPECT_EQ(auxOf(*reg.r)[0][4], 5);
    EXPECT_EQ(auxOf(*reg.r)[1][4], 5);
    EXPECT_EQ(auxOf(*reg.r)[1][6], 6);
}

TEST(PottsMapRegion, FragmentationMatchesFloodFillOnRandomMaps) {
    std::srand(5);
    for (int trial = 0; trial < 40; ++trial) {
        const int rows = 2 + std::rand() % 14, cols = 2 + std::rand() % 14;
        Grid g(rows, std::vector<int>(cols));
        int largest = 0;
        for (auto& row : g)
            for (int& v : row) {
                v = std::rand() % 3 == 0 ? 2 : std::rand() % 12;
                largest = std::max(largest, v);
            }
        if (g[0][0] != 2) g[0][0] = 2;
        OwnedRegion reg(g, 2);
        const int pieces = reg->fragmentOnAuxMap();
        Grid expected = referencePieces(g, 2, largest);
        Grid aux = auxOf(*reg.r);
        int maxPiece = largest;
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                if (g[r][c] == 2) {
                    EXPECT_EQ(aux[r][c], expected[r][c]) << "trial " << trial;
                    maxPiece = std::max(maxPiece, expected[r][c]);
                }
        EXPECT_EQ(pieces, maxPiece - largest);
    }
}

TEST(PottsMapRegion, SplitMatchesRecountOnRandomMaps) {
    std::srand(9);
    for (int trial = 0; trial < 30; ++trial) {
        const int rows = 1 + std::rand() % 10, cols = 1 + std::rand() % 10;
        PottsMapRegion full(rows, cols, 1, -1, 0, nullptr);
        Grid g(rows, std::vector<int>(cols));
        std::map<int, int> area;
        for (auto& row : g)
            for (int& v : row) ++area[v = 1 + std::rand() % 4];
        RowPointers p(g);
        full.readMap(p.get());
        int n = 0;
        PottsMapRegion* parts = full.split(n);
        ASSERT_EQ(n, static_cast<int>(area.size()));
        int j = 0;
        for (auto [label, count] : area) {
            PottsMapRegion& part = parts[j++];
            EXPECT_EQ(part.label, label);
            EXPECT_EQ(part.area, count);
            // Runs are the maximal runs of the label, as updateRuns rebuilds them.
            PottsMapRegion rebuilt(full, label);
            rebuilt.minRow = 0;
            rebuilt.maxRow = rows - 1;
            rebuilt.minCol = 0;
            rebuilt.maxCol = cols - 1;
            rebuilt.updateRuns();
            EXPECT_EQ(runsOf(part.runs, part.runCount), runsOf(rebuilt.runs, rebuilt.runCount));
            // Contour: exactly the pixels with a neighbour of another region label.
            Cells expected;
            for (int r = 0; r < rows; ++r)
                for (int c = 0; c < cols; ++c)
                    if (g[r][c] == label && full.uc(r, c, label, false) < 8) expected.emplace_back(r, c);
            EXPECT_EQ(cellsOf(part.contour, part.contourCount), expected);
            int borderCells = 0;
            for (int i = 0; i < full.borderCount; ++i)
                borderCells += g[full.border[i].x][full.border[i].y] == label;
            EXPECT_EQ(part.borderCount, borderCells);
        }
        delete[] parts;
        full.destroyMaps();
    }
}

TEST(PottsMapRegion, MarginsFromTheLists) {
    PottsMapRegion full(5, 6, 1, -1, 0, nullptr);
    PottsMapRegion reg(full, 3);
    reg.updateMargins(true);
    EXPECT_EQ(std::make_tuple(reg.minCol, reg.maxCol, reg.minRow, reg.maxRow), std::make_tuple(0, 5, 0, 4));
    reg.contourCount = 2;
    reg.contour = new xy[2];
    reg.contour[0].x = 2;
    reg.contour[0].y = 3;
    reg.contour[1].x = 3;
    reg.contour[1].y = 1;
    reg.borderCount = 1;
    reg.border = new xy[1];
    reg.border[0].x = 1;
    reg.border[0].y = 2;
    reg.updateMargins(true);
    EXPECT_EQ(std::make_tuple(reg.minCol, reg.maxCol, reg.minRow, reg.maxRow), std::make_tuple(1, 3, 1, 3));
    full.destroyMaps();
}

TEST(PottsMapRegion, NeighbouringLabelsAndRatioedCounts) {
    OwnedRegion reg({{1, 1, 2}, {1, 3, 3}}, 1, -9);
    int* labels = nullptr;
    int* contacts = nullptr;
    const int n = reg->findNeighboringLabels(-1, labels, contacts);
    ASSERT_EQ(n, 2);
    // (0,0): 3 at (1,1).  (0,1): 2 at (0,2), 3 at (1,1), (1,2).  (1,0): 3 at (1,1).
    EXPECT_EQ(labels[0], 2);
    EXPECT_EQ(contacts[0], 1);
    EXPECT_EQ(labels[1], 3);
    EXPECT_EQ(contacts[1], 4);
    delete[] labels;
    delete[] contacts;

    double storage[9][9];
    double* ratios[9];
    for (int i = 0; i < 9; ++i) ratios[i] = storage[i];
    int set[2] = {1, 3};
    reg->ratioedNeighboursCount(set, 2, ratios);
    // (0,0): a = 2, b = 3; (0,1): a = 2, b = 4; (1,0): a = 2, b = 3.
    EXPECT_DOUBLE_EQ(ratios[2][1], 2.0 / 3.0);
    EXPECT_DOUBLE_EQ(ratios[2][2], 1.0 / 3.0);
    double total = 0.0;
    for (auto& row : storage)
        for (double v : row) total += v;
    EXPECT_DOUBLE_EQ(total, 1.0);
}
