#include "data/LabelMap.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "MapTestUtil.h"

namespace {

void load(LabelMap& lm, Grid g, int offset = 0) {
    RowPointers p(g);
    lm.import(p.get(), offset);
}

TEST(LabelMap, DiagonalCellsJoinOnlyWithEightConnectivity) {
    const Grid g = {{1, 2, 2}, {2, 1, 2}, {2, 2, 1}};
    LabelMap eight(3, 3, 1, -1, 0, true);
    EXPECT_EQ(eight.fragmentCount, -1);
    // A source padded by 1: the 9s are its frame, not the map's.
    load(eight, {{9, 9, 9, 9, 9}, {9, 1, 2, 2, 9}, {9, 2, 1, 2, 9}, {9, 2, 2, 1, 9}, {9, 9, 9, 9, 9}}, 1);
    EXPECT_EQ(eight.map[0][0], -1);
    EXPECT_EQ(takeRows(eight.getFragmentedMap(), 3, 3), g);
    EXPECT_EQ(eight.fragmentCount, 2);

    LabelMap four(3, 3, 1, -1, 0, false);
    load(four, g);
    // The two arms of label 2 and the three 1s all fall apart.
    EXPECT_EQ(takeRows(four.getFragmentedMap(), 3, 3), (Grid{{1, 2, 2}, {3, 4, 2}, {3, 3, 5}}));
    EXPECT_EQ(four.fragmentCount, 5);
}

TEST(LabelMap, FragmentMapMatchesFloodFillAndLeavesItsInputAlone) {
    std::srand(3);
    for (int trial = 0; trial < 60; ++trial) {
        const int rows = 1 + std::rand() % 12, cols = 1 + std::rand() % 12, labels = 1 + std::rand() % 4;
        Grid g(rows, std::vector<int>(cols));
        for (auto& row : g)
            for (int& v : row) v = std::rand() % labels;
        const bool eight = trial % 2 == 0;
        LabelMap lm(rows, cols, 1, -1, 0, eight);
        load(lm, g);
        int count = 0;
        int** f = LabelMap::fragmentMap(lm.map, rows, cols, 1, count, eight);
        const Grid expected = floodFill(g, eight);
        EXPECT_EQ(innerOf(f, rows, cols, 1), expected) << "trial " << trial;
        EXPECT_EQ(count, maxOf(expected));  // fragments are numbered 1 .. count
        EXPECT_EQ(f[0][0], -1);
        EXPECT_EQ(innerOf(lm.map, rows, cols, 1), g);
        LabelMap::deletePaddedMap(f, rows, cols, 1);
    }
}

TEST(LabelMap, FragmentedMapIsComputedOnceAndCopiedFresh) {
    LabelMap lm(2, 2, 1, -1, 0, true);
    load(lm, {{4, 4}, {5, 4}});
    int** first = lm.getFragmentedMap();
    load(lm, {{4, 5}, {6, 7}});  // not looked at again
    first[0][0] = 99;
    EXPECT_EQ(takeRows(lm.getFragmentedMap(), 2, 2), (Grid{{1, 1}, {2, 1}}));
    EXPECT_EQ(lm.fragmentCount, 2);
    EXPECT_EQ(takeRows(first, 2, 2), (Grid{{99, 1}, {2, 1}}));
}

}  // namespace
