#include "data/PottsMap.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "MapTestUtil.h"
#include "common/TestSupport.h"
#include "data/ImageFile.h"
#include "data/ROI.h"

namespace {

// One-band label ROI over a whole grid (points in raster order).
ROI<int, xy>* gridRoi(const Grid& g, int minRow, int minCol) {
    Cells all;
    for (size_t k = 0; k < g.size() * g[0].size(); ++k) all.emplace_back(k / g[0].size(), k % g[0].size());
    return roiOf(all, 1, minRow, minCol, static_cast<int>(g.size()), static_cast<int>(g[0].size()),
                 [&](int, int r, int c) { return g[r][c]; });
}

TEST(PottsMap, FrameOfBothPlanesHoldsTheBorderLabelAndInitIsCopied) {
    for (int pad : {1, 2}) {
        const Grid init = {{1, 2, 3}, {4, 5, 6}};
        OwnedMap m(init, pad, -7);
        for (int** plane : {m->map, m->auxMap})
            for (int r = 0; r < 2 + 2 * pad; ++r)
                for (int c = 0; c < 3 + 2 * pad; ++c)
                    if (r < pad || r >= pad + 2 || c < pad || c >= pad + 3) {
                        EXPECT_EQ(plane[r][c], -7) << "pad " << pad << " cell " << r << "," << c;
                    }
        EXPECT_EQ(mapOf(*m.m), init);
    }
    EXPECT_EXIT(PottsMap(2, 2, 0, 9, nullptr), ::testing::ExitedWithCode(255), "");
}

TEST(PottsMap, NeighbourCountsOnEdgesAndCorners) {
    OwnedMap m(Grid(4, std::vector<int>(5, 3)), 1, 99);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 5; ++c) {
            const bool edge = r == 0 || c == 0 || r == 3 || c == 4;
            EXPECT_EQ(m->isNearBorder(r, c), edge) << r << "," << c;
            // Frame cells agree unless strict: 5 on a side, 3 in a corner.
            EXPECT_EQ(m->uc(r, c, 3, false), 8) << r << "," << c;
            EXPECT_EQ(m->uc(r, c, 3, true), edge ? ((r == 0 || r == 3) && (c == 0 || c == 4) ? 3 : 5) : 8)
                << r << "," << c;
        }
    m->setPixel(0, 1, 5);
    m->setPixel(1, 1, 6);
    EXPECT_EQ(m->uc(0, 0, 3, true), 1);
    EXPECT_EQ(m->uc(0, 0, 3, false), 6);  // the five frame cells and (1, 0)
}

TEST(PottsMap, LabelsCompactAndFixNumbering) {
    OwnedMap big({{0, 1000, 0}, {1000, 0, 0}}, 1, -1);  // the presence table grows to 1001 entries
    int n = -1;
    int* labels = big->labels(n);
    EXPECT_EQ(std::vector<int>(labels, labels + n), (std::vector<int>{0, 1000}));
    delete[] labels;

    OwnedMap m({{7, 3}, {7, 9}}, 1, -1);
    m->copyToAuxMap();
    m->compact(-1);
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 2}, {1, 3}}));  // by first appearance
    EXPECT_EQ(mapOf(*m.m), (Grid{{7, 3}, {7, 9}}));  // the map is not touched

    // fix numbers in label order, not raster order, and sends keep to 0.
    OwnedMap f({{5, 0, 2}}, 1, -1);
    EXPECT_EQ(f->fix(1, 0), 2);
    EXPECT_EQ(mapOf(*f.m), (Grid{{2, 0, 1}}));
}

TEST(PottsMap, LabelWithGTPairsGreedilyAndTiesGoToTheEarliest) {
    const struct {
        const char* why;
        Grid map, gt, expected;
    } cases[] = {
        // Counts (rows 10, 20, 30; columns 1, 2) 10:[2,0] 20:[1,3] 30:[0,1], one point ignored:
        // 20 has the largest sum and takes 2, then 10 takes 1; 30 is surplus and gets 0.
        {"pairing",
         {{10, 10, 20, 20}, {30, 30, 20, 20}},
         {{1, 1, 2, 2}, {2, 0, 1, 2}},
         {{1, 1, 2, 2}, {0, 0, 2, 2}}},
        // 10:[1,1] 20:[1,1]: row 10 first, column 1 first (the other way round 10 gets 2).
        {"tied counts", {{10, 10, 20, 20}}, {{1, 2, 1, 2}}, {{1, 1, 2, 2}}},
        // 1:[4,0] 2:[3,0] 3:[0,1]: once 1 took column 1, 2's remaining sum is 0 and 3 (sum 1) goes first.
        {"remaining sums",
         {{1, 1, 1, 1}, {2, 2, 2, 3}},
         {{1, 1, 1, 1}, {1, 1, 1, 2}},
         {{1, 1, 1, 1}, {0, 0, 0, 2}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        OwnedMap m(c.map, 1, -1);
        m->copyToAuxMap();
        ROI<int, xy>* gt = gridRoi(c.gt, 3, 5);  // the box offset must not matter
        m->labelWithGT(gt, 0);
        EXPECT_EQ(auxOf(*m.m), c.expected);
        delete gt;
    }

    // From a file: 1 pairs with 4, 2 with 9; the same file read as the map.
    Grid gt = {{4, 4, 9}, {9, 9, 9}};
    std::string path = dhc::test::tmpPath("pottsmap_gt.hraw");
    ImageFile<int>::writeHRawInt32(path, RowPointers(gt).get(), 2, 3);
    OwnedMap m({{1, 1, 2}, {2, 2, 2}}, 1, -1);
    m->labelWithGT(path.data(), 0);
    EXPECT_EQ(auxOf(*m.m), gt);
    m->readMap_hraw(path);
    EXPECT_EQ(mapOf(*m.m), gt);
    std::remove(path.c_str());
}

}  // namespace
