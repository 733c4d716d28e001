#include "data/LabelMap.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <queue>
#include <vector>

#include "MapTestUtil.h"

namespace {

// Independent reference: components of equal labels (4- or 8-connected),
// numbered 1, 2, ... by their first cell in raster order.
Grid referenceFragments(const Grid& g, bool eight, int& count) {
    const int rows = static_cast<int>(g.size()), cols = static_cast<int>(g[0].size());
    Grid out(rows, std::vector<int>(cols, 0));
    count = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            if (out[r][c] != 0) continue;
            out[r][c] = ++count;
            std::queue<std::pair<int, int>> q;
            q.push({r, c});
            while (!q.empty()) {
                auto [y, x] = q.front();
                q.pop();
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        if (!eight && dy != 0 && dx != 0) continue;
                        const int ny = y + dy, nx = x + dx;
                        if (ny < 0 || nx < 0 || ny >= rows || nx >= cols) continue;
                        if (g[ny][nx] == g[y][x] && out[ny][nx] == 0) {
                            out[ny][nx] = count;
                            q.push({ny, nx});
                        }
                    }
            }
        }
    return out;
}

void load(LabelMap& lm, Grid g) {
    RowPointers p(g);
    lm.import(p.get(), 0);
}

}  // namespace

TEST(LabelMap, InitAndImport) {
    LabelMap lm(2, 3, 1, -1, 0, true);
    EXPECT_EQ(lm.fragmentCount, -1);
    EXPECT_EQ(lm.fragmentedMap, nullptr);
    EXPECT_EQ(lm.contourMap, nullptr);
    EXPECT_EQ(lm.map[0][0], -1);
    EXPECT_EQ(lm.map[1][1], 0);
    Grid padded = {{9, 9, 9, 9, 9}, {9, 1, 2, 3, 9}, {9, 4, 5, 6, 9}, {9, 9, 9, 9, 9}};
    RowPointers p(padded);
    lm.import(p.get(), 1);
    EXPECT_EQ(innerOf(lm.map, 2, 3, 1), (Grid{{1, 2, 3}, {4, 5, 6}}));
    EXPECT_EQ(lm.map[0][2], -1);  // the frame is the map's own
}

TEST(LabelMap, DiagonalCellsJoinOnlyWithEightConnectivity) {
    Grid g = {{1, 2, 2}, {2, 1, 2}, {2, 2, 1}};
    LabelMap eight(3, 3, 1, -1, 0, true);
    load(eight, g);
    int** f = eight.getFragmentedMap();
    EXPECT_EQ(innerOf(f, 3, 3, 0), (Grid{{1, 2, 2}, {2, 1, 2}, {2, 2, 1}}));
    EXPECT_EQ(eight.fragmentCount, 2);
    freeRows(f, 3);

    LabelMap four(3, 3, 1, -1, 0, false);
    load(four, g);
    f = four.getFragmentedMap();
    // The two arms of label 2 and the three 1s all fall apart.
    EXPECT_EQ(innerOf(f, 3, 3, 0), (Grid{{1, 2, 2}, {3, 4, 2}, {3, 3, 5}}));
    EXPECT_EQ(four.fragmentCount, 5);
    freeRows(f, 3);
}

TEST(LabelMap, FragmentMapMatchesFloodFillAndLeavesItsInputAlone) {
    std::srand(3);
    for (int trial = 0; trial < 60; ++trial) {
        const int rows = 1 + std::rand() % 12, cols = 1 + std::rand() % 12;
        const int labels = 1 + std::rand() % 4;
        Grid g(rows, std::vector<int>(cols));
        for (auto& row : g)
            for (int& v : row) v = std::rand() % labels;
        const bool eight = trial % 2 == 0;
        LabelMap lm(rows, cols, 1, -1, 0, eight);
        load(lm, g);
        int count = 0;
        int** f = LabelMap::fragmentMap(lm.map, rows, cols, 1, count, eight);
        int expectedCount = 0;
        EXPECT_EQ(innerOf(f, rows, cols, 1), referenceFragments(g, eight, expectedCount))
            << "trial " << trial;
        EXPECT_EQ(count, expectedCount);
        EXPECT_EQ(f[0][0], -1);
        EXPECT_EQ(innerOf(lm.map, rows, cols, 1), g);
        LabelMap::deletePaddedMap(f, rows, cols, 1);
    }
}

TEST(LabelMap, FragmentedMapIsComputedOnceAndCopiedFresh) {
    LabelMap lm(2, 2, 1, -1, 0, true);
    load(lm, {{4, 4}, {5, 4}});
    int** first = lm.getFragmentedMap();
    EXPECT_EQ(innerOf(first, 2, 2, 0), (Grid{{1, 1}, {2, 1}}));
    load(lm, {{4, 5}, {6, 7}});  // not looked at again
    first[0][0] = 99;
    int** second = lm.getFragmentedMap();
    EXPECT_NE(first, second);
    EXPECT_EQ(innerOf(second, 2, 2, 0), (Grid{{1, 1}, {2, 1}}));
    EXPECT_EQ(lm.fragmentCount, 2);
    freeRows(first, 2);
    freeRows(second, 2);
}
