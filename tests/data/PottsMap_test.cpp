#include "data/PottsMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "MapTestUtil.h"
#include "data/ImageFile.h"
#include "data/ROI.h"

namespace {

std::string tmpPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    return std::string(dir != nullptr ? dir : "/tmp") + "/pottsmap_" + name;
}

std::vector<int> labelsOf(const PottsMap& m) {
    int n = -1;
    int* a = m.labels(n);
    std::vector<int> v(a, a + n);
    delete[] a;
    return v;
}

// One-band label ROI over a whole grid (box-relative points in raster order).
ROI<int, xy>* gridRoi(const Grid& g, int minRow, int minCol) {
    const int rows = static_cast<int>(g.size()), cols = static_cast<int>(g[0].size());
    ROI<int, xy>* roi = new ROI<int, xy>(rows * cols, 1);
    int k = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c, ++k) {
            roi->coords[k].x = static_cast<uint16_t>(r);
            roi->coords[k].y = static_cast<uint16_t>(c);
            roi->data[k] = g[r][c];
        }
    roi->minRow = minRow;
    roi->height = rows;
    roi->minCol = minCol;
    roi->width = cols;
    roi->imageRows = minRow + rows;
    roi->imageCols = minCol + cols;
    roi->order = 2;
    return roi;
}

}  // namespace

TEST(PottsMap, FrameOfBothPlanesHoldsTheBorderLabelAndInitIsCopied) {
    for (int pad : {1, 2}) {
        Grid init = {{1, 2, 3}, {4, 5, 6}};
        OwnedMap m(init, pad, -7);
        const int totalRows = 2 + 2 * pad, totalCols = 3 + 2 * pad;
        for (int** plane : {m->map, m->auxMap})
            for (int r = 0; r < totalRows; ++r)
                for (int c = 0; c < totalCols; ++c) {
                    const bool inner = r >= pad && r < pad + 2 && c >= pad && c < pad + 3;
                    if (!inner) {
                        EXPECT_EQ(plane[r][c], -7) << "pad " << pad << " cell " << r << "," << c;
                    }
                }
        EXPECT_EQ(mapOf(*m.m), init);
    }
}

TEST(PottsMap, PadBelowOneEndsTheProcess) {
    EXPECT_EXIT(PottsMap(2, 2, 0, 9, nullptr), ::testing::ExitedWithCode(255), "");
}

TEST(PottsMap, ShallowCopySharesPlanesAndDestroyMapsNullsThem) {
    PottsMap* owner = new PottsMap(2, 2, 1, 0, nullptr);
    PottsMap sharer(*owner);
    EXPECT_EQ(sharer.map, owner->map);
    EXPECT_EQ(sharer.auxMap, owner->auxMap);
    sharer.setPixel(1, 1, 42);
    EXPECT_EQ(owner->map[2][2], 42);
    owner->destroyMaps();
    EXPECT_EQ(owner->map, nullptr);
    EXPECT_EQ(owner->auxMap, nullptr);
    delete owner;
}

TEST(PottsMap, IsNearBorderExactlyOnTheImageEdge) {
    OwnedMap m(Grid(5, std::vector<int>(6, 3)), 1, 99);
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 6; ++c) {
            const bool edge = r == 0 || c == 0 || r == 4 || c == 5;
            EXPECT_EQ(m->isNearBorder(r, c), edge) << r << "," << c;
        }
    m->setPixel(2, 2, 8);
    EXPECT_TRUE(m->isNear(1, 1, 8));
    EXPECT_TRUE(m->isNear(3, 3, 8));
    EXPECT_FALSE(m->isNear(2, 2, 8));  // the pixel itself is not a neighbour
    EXPECT_FALSE(m->isNear(0, 0, 8));
}

TEST(PottsMap, SameLabelCountOnEdgesAndCorners) {
    OwnedMap m(Grid(4, std::vector<int>(5, 3)), 1, 99);
    EXPECT_EQ(m->uc(1, 2, 3, true), 8);
    EXPECT_EQ(m->uc(1, 2, 3, false), 8);
    EXPECT_EQ(m->uc(0, 2, 3, false), 8);  // frame cells agree
    EXPECT_EQ(m->uc(0, 2, 3, true), 5);   // side
    EXPECT_EQ(m->uc(1, 0, 3, true), 5);
    EXPECT_EQ(m->uc(3, 4, 3, false), 8);
    for (auto [r, c] : {std::pair{0, 0}, {0, 4}, {3, 0}, {3, 4}}) EXPECT_EQ(m->uc(r, c, 3, true), 3);
    m->setPixel(0, 1, 5);
    m->setPixel(1, 1, 6);
    EXPECT_EQ(m->uc(0, 0, 3, true), 1);
    EXPECT_EQ(m->uc(0, 0, 3, false), 6);
    EXPECT_EQ(m->uc(0, 0, 5, 6), 2);
    EXPECT_EQ(m->uc(0, 0, 3, 99), 6);
}

TEST(PottsMap, ConfigCountsNeighboursPerLabelAndOwn) {
    OwnedMap m({{1, 2, 2}, {1, 2, 3}, {3, 3, 2}}, 1, 0);
    int labels[3] = {1, 2, 3};
    int counts[3] = {-1, -1, -1};
    int own = -1;
    xy p;
    p.x = 1;
    p.y = 1;
    m->config(p, labels, 3, counts, &own);
    EXPECT_EQ(counts[0], 2);
    EXPECT_EQ(counts[1], 3);
    EXPECT_EQ(counts[2], 3);
    EXPECT_EQ(own, 3);
    p.x = 0;
    p.y = 0;  // corner: five frame neighbours carry 0
    int two[2] = {0, 2};
    m->config(p, two, 2, counts, nullptr);
    EXPECT_EQ(counts[0], 5);
    EXPECT_EQ(counts[1], 2);
}

TEST(PottsMap, LabelsListsDistinctLabelsAndGrowsForLargeOnes) {
    OwnedMap m({{0, 1000, 0}, {1000, 0, 0}}, 1, -1);
    EXPECT_EQ(labelsOf(*m.m), (std::vector<int>{0, 1000}));

    std::srand(7);
    Grid g(20, std::vector<int>(30));
    std::set<int> expected;
    for (auto& row : g)
        for (int& v : row) {
            v = std::rand() % 4 == 0 ? std::rand() % 200000 : std::rand() % 15;
            expected.insert(v);
        }
    OwnedMap big(g, 2, -1);
    EXPECT_EQ(labelsOf(*big.m), std::vector<int>(expected.begin(), expected.end()));
}

TEST(PottsMap, CompactRenumbersAuxByFirstAppearance) {
    OwnedMap m({{7, 3}, {7, 9}}, 1, -1);
    m->copyToAuxMap();
    m->compact(-1);
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 2}, {1, 3}}));
    EXPECT_EQ(mapOf(*m.m), (Grid{{7, 3}, {7, 9}}));  // the map is not touched

    // keep = 1: label 1 keeps 1, label 5 (which would have got 1) takes 1's number 2.
    OwnedMap k({{5, 1, 2}}, 1, -1);
    k->copyToAuxMap();
    k->compact(1);
    EXPECT_EQ(auxOf(*k.m), (Grid{{2, 1, 3}}));
}

TEST(PottsMap, FixRenumbersInLabelOrderAndKeepsZero) {
    OwnedMap m({{5, 0, 2}}, 1, -1);
    EXPECT_EQ(m->fix(1, 0), 2);
    EXPECT_EQ(mapOf(*m.m), (Grid{{2, 0, 1}}));

    OwnedMap w({{3, 8, 1}, {8, 4, 3}}, 1, -1);
    EXPECT_EQ(w->fix(10, 3), 3);
    EXPECT_EQ(mapOf(*w.m), (Grid{{0, 12, 10}, {12, 11, 0}}));

    EXPECT_EXIT(m->fix(4, 4), ::testing::ExitedWithCode(252), "");
}

TEST(PottsMap, PaintingCopyingAndOutput) {
    OwnedMap m({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 2, -1);
    m->copyToAuxMapRev();
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 4, 7}, {2, 5, 8}, {3, 6, 9}}));
    run runs[2] = {{0, 1, 2}, {2, 0, 1}};
    m->refresh(runs, 2, 0, true);
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 0, 0}, {2, 5, 8}, {0, 6, 9}}));
    m->refresh(runs, 2, 11, false);
    EXPECT_EQ(mapOf(*m.m), (Grid{{1, 11, 11}, {4, 5, 6}, {11, 8, 9}}));

    int** out = m->outputMap();
    EXPECT_EQ(innerOf(out, 3, 3, 0), mapOf(*m.m));
    freeRows(out, 3);
    int** mask = m->outputMask(11, false);
    EXPECT_EQ(innerOf(mask, 3, 3, 0), (Grid{{0, 1, 1}, {0, 0, 0}, {1, 0, 0}}));
    freeRows(mask, 3);

    m->copyToAuxMap();
    for (int r = 0; r < 7; ++r)
        for (int c = 0; c < 7; ++c) EXPECT_EQ(m->auxMap[r][c], m->map[r][c]);
    m->paint32All(4);
    EXPECT_EQ(mapOf(*m.m), Grid(3, std::vector<int>(3, 4)));
    EXPECT_EQ(m->map[0][0], -1);
    int** aux = m->outputAuxMap();
    EXPECT_EQ(innerOf(aux, 3, 3, 0), (Grid{{1, 11, 11}, {4, 5, 6}, {11, 8, 9}}));
    m->readMap(aux);
    EXPECT_EQ(mapOf(*m.m), (Grid{{1, 11, 11}, {4, 5, 6}, {11, 8, 9}}));
    freeRows(aux, 3);
}

TEST(PottsMap, ReadsMapsFromRoiRawAndHraw) {
    OwnedMap m(Grid(2, std::vector<int>(3, 0)), 1, -1);
    ROI<int, xy>* roi = gridRoi({{1, 2, 3}, {4, 5, 6}}, 10, 20);
    m->readMapRoi(roi);
    EXPECT_EQ(mapOf(*m.m), (Grid{{1, 2, 3}, {4, 5, 6}}));
    delete roi;

    Grid plane = {{7, 8, 9}, {10, 11, 12}};
    RowPointers p(plane);
    std::string hraw = tmpPath("map.hraw");
    ImageFile<int>::writeHRawInt32(hraw, p.get(), 2, 3);
    m->readMap_hraw(hraw);
    EXPECT_EQ(mapOf(*m.m), plane);

    m->copyToAuxMap();
    m->auxMap[1][1] = -5;
    std::string raw = tmpPath("aux.raw");
    m->writeAuxMap_raw(const_cast<char*>(raw.c_str()));
    m->paint32All(0);
    m->readMap_raw(const_cast<char*>(raw.c_str()));
    EXPECT_EQ(mapOf(*m.m), (Grid{{-5, 8, 9}, {10, 11, 12}}));

    std::string dat = tmpPath("aux.dat");
    m->writeAuxMap_dat(const_cast<char*>(dat.c_str()));
    std::ifstream in(dat);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "-5 8 9\n10 11 12\n");
}

TEST(PottsMap, LabelWithGTPairsGreedilyAndSurplusGetsIgnore) {
    // Counts (rows 10, 20, 30; columns 1, 2): 10:[2,0] 20:[1,3] 30:[0,1] (one ignored point).
    // 20 has the largest sum and takes 2; then 10 takes 1; 30 is surplus.
    OwnedMap m({{10, 10, 20, 20}, {30, 30, 20, 20}}, 1, -1);
    m->copyToAuxMap();
    ROI<int, xy>* gt = gridRoi({{1, 1, 2, 2}, {2, 0, 1, 2}}, 3, 5);  // box offset must not matter
    m->labelWithGT(gt, 0);
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 1, 2, 2}, {0, 0, 2, 2}}));
    delete gt;
}

TEST(PottsMap, LabelWithGTTiesGoToEarliestRowAndColumn) {
    // 10:[1,1] and 20:[1,1]: row 10 first, column 1 first.
    OwnedMap m({{10, 10, 20, 20}}, 1, -1);
    ROI<int, xy>* gt = gridRoi({{1, 2, 1, 2}}, 0, 0);
    m->labelWithGT(gt, 0);
    EXPECT_EQ(auxOf(*m.m), (Grid{{1, 1, 2, 2}}));
    delete gt;
    // 10:[0,2] 20:[2,0]: equal sums, row 10 first takes 2, leaving 1 to 20.
    OwnedMap s({{10, 10, 20, 20}}, 1, -1);
    gt = gridRoi({{2, 2, 1, 1}}, 0, 0);
    s->labelWithGT(gt, 0);
    EXPECT_EQ(auxOf(*s.m), (Grid{{2, 2, 1, 1}}));
    delete gt;
}

// Literal reference of the greedy pairing: explicit matrix with rows and columns erased.
static Grid referenceLabelWithGT(const Grid& map, const Grid& gt, int ignore) {
    std::set<int> ms, gs;
    for (auto& row : map) ms.insert(row.begin(), row.end());
    for (auto& row : gt)
        for (int v : row)
            if (v != ignore) gs.insert(v);
    std::vector<int> M(ms.begin(), ms.end()), G(gs.begin(), gs.end());
    std::vector<std::vector<long>> T(M.size(), std::vector<long>(G.size(), 0));
    for (size_t r = 0; r < map.size(); ++r)
        for (size_t c = 0; c < map[r].size(); ++c)
            if (gt[r][c] != ignore) {
                auto mi = std::find(M.begin(), M.end(), map[r][c]) - M.begin();
                auto gi = std::find(G.begin(), G.end(), gt[r][c]) - G.begin();
                ++T[mi][gi];
            }
    std::vector<std::pair<int, int>> pairs;
    const size_t steps = M.size();
    for (size_t s = 0; s < steps && !G.empty(); ++s) {
        size_t best = 0;
        long bestSum = -1;
        for (size_t i = 0; i < T.size(); ++i) {
            long sum = 0;
            for (long v : T[i]) sum += v;
            if (sum > bestSum) bestSum = sum, best = i;
        }
        size_t col = 0;
        for (size_t j = 1; j < G.size(); ++j)
            if (T[best][j] > T[best][col]) col = j;
        pairs.push_back({M[best], G[col]});
        T.erase(T.begin() + best);
        M.erase(M.begin() + best);
        for (auto& row : T) row.erase(row.begin() + col);
        G.erase(G.begin() + col);
    }
    Grid out = map;
    for (size_t r = 0; r < map.size(); ++r)
        for (size_t c = 0; c < map[r].size(); ++c) {
            out[r][c] = ignore;
            for (auto [ml, gl] : pairs)
                if (ml == map[r][c]) out[r][c] = gl;
        }
    return out;
}

TEST(PottsMap, LabelWithGTMatchesLiteralGreedyOnRandomMaps) {
    std::srand(11);
    for (int trial = 0; trial < 60; ++trial) {
        const int rows = 1 + std::rand() % 6, cols = 1 + std::rand() % 7;
        const int mapLabels = 1 + std::rand() % 6, gtLabels = 1 + std::rand() % 6;
        Grid map(rows, std::vector<int>(cols)), gt = map;
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) {
                map[r][c] = 3 * (std::rand() % mapLabels);
                gt[r][c] = std::rand() % (gtLabels + 1);  // 0 is ignored
            }
        OwnedMap m(map, 1, -1);
        ROI<int, xy>* roi = gridRoi(gt, 0, 0);
        m->labelWithGT(roi, 0);
        EXPECT_EQ(auxOf(*m.m), referenceLabelWithGT(map, gt, 0)) << "trial " << trial;
        delete roi;
    }
}

TEST(PottsMap, LabelWithGTFromAnHrawFile) {
    Grid gt = {{4, 4, 9}, {9, 9, 9}};
    RowPointers p(gt);
    std::string path = tmpPath("gt.hraw");
    ImageFile<int>::writeHRawInt32(path, p.get(), 2, 3);
    OwnedMap m({{1, 1, 2}, {2, 2, 2}}, 1, -1);
    m->labelWithGT(const_cast<char*>(path.c_str()), 0);
    EXPECT_EQ(auxOf(*m.m), gt);
}
