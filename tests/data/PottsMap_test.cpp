#include "data/PottsMap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MapTestUtil.h"
#include "common/TestSupport.h"
#include "data/ImageFile.h"
#include "data/ROI.h"

namespace {

std::vector<int> labelsOf(const PottsMap& m) {
    int n = -1;
    int* a = m.labels(n);
    std::vector<int> v(a, a + n);
    delete[] a;
    return v;
}

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

TEST(PottsMap, ShallowCopySharesPlanesAndDestroyMapsNullsThem) {
    PottsMap* owner = new PottsMap(2, 2, 1, 0, nullptr);
    PottsMap sharer(*owner);
    sharer.setPixel(1, 1, 42);
    EXPECT_EQ(owner->map[2][2], 42);
    EXPECT_EQ(sharer.auxMap, owner->auxMap);
    owner->destroyMaps();
    EXPECT_EQ(owner->map, nullptr);
    EXPECT_EQ(owner->auxMap, nullptr);
    delete owner;
}

TEST(PottsMap, NeighbourTestsAndCountsOnEdgesAndCorners) {
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
    EXPECT_EQ(m->uc(0, 0, 3, false), 6);
    EXPECT_EQ(m->uc(0, 0, 5, 6), 2);
    EXPECT_TRUE(m->isNear(2, 2, 6));
    EXPECT_FALSE(m->isNear(1, 1, 6));  // the pixel itself is not a neighbour
}

TEST(PottsMap, ConfigCountsNeighboursPerLabelAndOwn) {
    OwnedMap m({{1, 2, 2}, {1, 2, 3}, {3, 3, 2}}, 1, 0);
    int labels[3] = {1, 2, 3};
    int counts[3] = {-1, -1, -1};
    int own = -1;
    m->config(xy{1, 1, 0, 0}, labels, 3, counts, &own);
    EXPECT_EQ(std::vector<int>(counts, counts + 3), (std::vector<int>{2, 3, 3}));
    EXPECT_EQ(own, 3);
    int two[2] = {0, 2};
    m->config(xy{0, 0, 0, 0}, two, 2, counts, nullptr);  // corner: five frame neighbours carry 0
    EXPECT_EQ(counts[0], 5);
    EXPECT_EQ(counts[1], 2);
}

TEST(PottsMap, LabelsListsDistinctLabelsAndGrowsForLargeOnes) {
    OwnedMap m({{0, 1000, 0}, {1000, 0, 0}}, 1, -1);
    EXPECT_EQ(labelsOf(*m.m), (std::vector<int>{0, 1000}));
    // 11 grows the table once, 123456 several times after 1000 did.
    OwnedMap big({{7, 1000, 11}, {123456, 0, 11}}, 2, -1);
    EXPECT_EQ(labelsOf(*big.m), (std::vector<int>{0, 7, 11, 1000, 123456}));
}

TEST(PottsMap, CompactAndFixRenumber) {
    OwnedMap m({{7, 3}, {7, 9}}, 1, -1);
    m->copyToAuxMap();
    m->compact(-1);
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 2}, {1, 3}}));  // by first appearance
    EXPECT_EQ(mapOf(*m.m), (Grid{{7, 3}, {7, 9}}));  // the map is not touched
    // keep = 1: label 1 keeps 1, label 5 (which would have got 1) takes 1's number 2.
    OwnedMap k({{5, 1, 2}}, 1, -1);
    k->copyToAuxMap();
    k->compact(1);
    EXPECT_EQ(auxOf(*k.m), (Grid{{2, 1, 3}}));

    // fix numbers in label order, not raster order, and sends keep to 0.
    OwnedMap f({{5, 0, 2}}, 1, -1);
    EXPECT_EQ(f->fix(1, 0), 2);
    EXPECT_EQ(mapOf(*f.m), (Grid{{2, 0, 1}}));
    OwnedMap w({{3, 8, 1}, {8, 4, 3}}, 1, -1);
    EXPECT_EQ(w->fix(10, 3), 3);
    EXPECT_EQ(mapOf(*w.m), (Grid{{0, 12, 10}, {12, 11, 0}}));
    EXPECT_EXIT(f->fix(4, 4), ::testing::ExitedWithCode(252), "");
}

TEST(PottsMap, RefreshPaintsRunsAndCopiesKeepTheFrame) {
    OwnedMap m({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 2, -1);
    m->copyToAuxMap();
    EXPECT_EQ(innerOf(m->auxMap, 7, 7, 0), innerOf(m->map, 7, 7, 0));  // the frame too
    run runs[2] = {{0, 1, 2}, {2, 0, 1}};
    m->refresh(runs, 2, 0, true);
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 0, 0}, {4, 5, 6}, {0, 8, 9}}));
    m->refresh(runs, 2, 11, false);
    const Grid painted = {{1, 11, 11}, {4, 5, 6}, {11, 8, 9}};
    EXPECT_EQ(mapOf(*m.m), painted);
    EXPECT_EQ(takeRows(m->outputMap(), 3, 3), painted);
    EXPECT_EQ(takeRows(m->outputMask(11, false), 3, 3), (Grid{{0, 1, 1}, {0, 0, 0}, {1, 0, 0}}));

    // Read from a ROI (box-relative points, whatever the box offset) and from an hraw file.
    ROI<int, xy>* roi = gridRoi({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 10, 20);
    m->readMapRoi(roi);
    EXPECT_EQ(mapOf(*m.m), (Grid{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}));
    delete roi;
    Grid plane = {{7, 8, 9}, {10, 11, 12}, {13, 14, 15}};
    const std::string hraw = dhc::test::tmpPath("pottsmap_map.hraw");
    ImageFile<int>::writeHRawInt32(hraw, RowPointers(plane).get(), 3, 3);
    m->readMap_hraw(hraw);
    EXPECT_EQ(mapOf(*m.m), plane);
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
        // 10:[1,1] 20:[1,1]: row 10 first, column 1 first.
        {"tied counts", {{10, 10, 20, 20}}, {{1, 2, 1, 2}}, {{1, 1, 2, 2}}},
        // 10:[0,2] 20:[2,0]: equal sums, row 10 first takes 2, leaving 1 to 20.
        {"tied sums", {{10, 10, 20, 20}}, {{2, 2, 1, 1}}, {{2, 2, 1, 1}}},
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

    Grid gt = {{4, 4, 9}, {9, 9, 9}};
    std::string path = dhc::test::tmpPath("pottsmap_gt.hraw");
    ImageFile<int>::writeHRawInt32(path, RowPointers(gt).get(), 2, 3);
    OwnedMap m({{1, 1, 2}, {2, 2, 2}}, 1, -1);
    m->labelWithGT(path.data(), 0);
    EXPECT_EQ(auxOf(*m.m), gt);
}

}  // namespace
