#include "data/LabelMap.h"

#include <gtest/gtest.h>

#include <vector>

#include "MapTestUtil.h"

namespace {

void load(LabelMap& lm, Grid g) {
    lm.import(RowPointers(g).get(), 0);
}

TEST(LabelMap, FragmentsAreConnectedEqualLabelsNumberedInRasterOrder) {
    const Grid diagonal = {{1, 2, 2}, {2, 1, 2}, {2, 2, 1}};
    const struct {
        Grid map;
        bool eight;
        Grid expected;
        int count;
    } cases[] = {
        {diagonal, true, diagonal, 2},
        // The two arms of label 2 and the three 1s all fall apart.
        {diagonal, false, {{1, 2, 2}, {3, 4, 2}, {3, 3, 5}}, 5},
        // The bottom row joins the arms late: every run already in an arm's class must follow.
        {{{1, 0, 1, 0, 1}, {1, 0, 1, 0, 1}, {1, 1, 1, 1, 1}},
         true,
         {{1, 2, 1, 3, 1}, {1, 2, 1, 3, 1}, {1, 1, 1, 1, 1}},
         3},
    };
    for (const auto& c : cases) {
        const int rows = static_cast<int>(c.map.size()), cols = static_cast<int>(c.map[0].size());
        LabelMap lm(rows, cols, 1, -1, 0, c.eight);
        load(lm, c.map);
        EXPECT_EQ(takeRows(lm.getFragmentedMap(), rows, cols), c.expected);
        EXPECT_EQ(lm.fragmentCount, c.count);
        EXPECT_EQ(innerOf(lm.map, rows, cols, 1), c.map);  // the input is left alone
    }
}

TEST(LabelMap, FragmentedMapIsComputedOnceAndCopiedFresh) {
    LabelMap lm(2, 2, 1, -1, 0, true);
    EXPECT_EQ(lm.fragmentCount, -1);
    load(lm, {{4, 4}, {5, 4}});
    int** first = lm.getFragmentedMap();
    load(lm, {{4, 5}, {6, 7}});  // not looked at again
    first[0][0] = 99;
    EXPECT_EQ(takeRows(lm.getFragmentedMap(), 2, 2), (Grid{{1, 1}, {2, 1}}));
    EXPECT_EQ(lm.fragmentCount, 2);
    EXPECT_EQ(takeRows(first, 2, 2), (Grid{{99, 1}, {2, 1}}));
}

}  // namespace
