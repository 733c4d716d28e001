#include "data/PottsData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "MapTestUtil.h"
#include "common/TestSupport.h"
#include "data/ImageFile.h"
#include "data/ROI.h"

namespace {

// Value of band b at (r, c) in the test images: distinct for every cell and band.
int valueAt(int b, int r, int c) {
    return 1000 * b + 10 * r + c;
}

int*** testCube(int bands, int rows, int cols) {
    int*** cube = ImageFile<int>::newCube(bands, rows, cols);
    for (int b = 0; b < bands; ++b)
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) cube[b][r][c] = valueAt(b, r, c);
    return cube;
}

// One headerless file per band; the names stay valid while the vector lives.
std::vector<std::string> writeBandFiles(int bands, int rows, int cols) {
    int*** cube = testCube(bands, rows, cols);
    std::vector<std::string> names;
    for (int b = 0; b < bands; ++b) {
        names.push_back(dhc::test::tmpPath("pottsdata_band" + std::to_string(b) + ".raw"));
        ImageFile<int>::writeRawInt32(names.back(), cube[b], rows, cols, 0);
    }
    ImageFile<int>::deleteCube(cube, bands, rows);
    return names;
}

template <typename T>
void freeTable(T** table, int n) {
    for (int k = 0; k < n; ++k) delete[] table[k];
    delete[] table;
}

void expectValuesMatchCoords(const PottsData& d) {
    for (int i = 0; i < d.loadedCount; ++i)
        for (int b = 0; b < d.bands; ++b)
            ASSERT_EQ(d.data[i * d.bands + b], valueAt(b, d.coords[i].x, d.coords[i].y))
                << i << " band " << b;
}

// A two-band ROI of the box-relative points in a height x width box at (4, 6).
ROI<int, xy>* pointsRoi(const Cells& points, int height, int width) {
    return roiOf(points, 2, 4, 6, height, width, valueAt);
}

Cells coordsOf(const PottsData& d) {
    return cellsOf(d.coords, d.envelopeCount);
}

TEST(PottsData, LoadedCountFollowsThePercentageInFloat) {
    const std::pair<float, int> cases[] = {{100.0f, 7}, {150.0f, 7}, {0.0f, 0}, {-3.0f, 0}, {50.0f, 3}};
    for (auto [percentage, expected] : cases) {
        PottsData d(1, 7, 1, false, percentage, 1, -1, 2);
        EXPECT_EQ(d.envelopeCount, 7);
        EXPECT_EQ(d.loadedCount, expected) << percentage;
    }
    // 125 x 5.6f is exactly 700 in float but 699.99... in double: 7 pixels, not 6.
    EXPECT_EQ(PottsData(5, 25, 1, false, 5.6f, 1, -1, 2).loadedCount, 7);
}

TEST(PottsData, BandFilesLoadTheFirstPixelsInRasterOrder) {
    std::vector<std::string> names = writeBandFiles(2, 3, 4);
    char* files[2] = {names[0].data(), names[1].data()};
    PottsData d(3, 4, 2, false, 50.0f, files, 1, -1, 2);
    EXPECT_EQ(d.loadedCount, 6);
    EXPECT_TRUE(d.rasterOrder);
    for (int k = 0; k < 12; ++k)
        EXPECT_EQ(Cells::value_type(d.coords[k].x, d.coords[k].y), Cells::value_type(k / 4, k % 4));
    expectValuesMatchCoords(d);
    double* v = d.getPixelAsDouble(xy{1, 1, 0, 0});
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v[1], valueAt(1, 1, 1));
    delete[] v;
    EXPECT_EQ(d.root->label, 2);
    EXPECT_EQ(d.root->area, 12);
    EXPECT_EQ(d.getEnvelopeArea(), 12);
}

TEST(PottsData, ShuffledSamplesAreSeededForBandFilesAndContinueTheGeneratorForHraw) {
    std::vector<std::string> names = writeBandFiles(3, 4, 5);
    char* files[3] = {names[0].data(), names[1].data(), names[2].data()};
    std::srand(1);
    PottsData a(4, 5, 3, true, 40.0f, files, 1, -1, 2);
    std::srand(2);  // the constructor reseeds: the draw state before it does not matter
    PottsData b(4, 5, 3, true, 40.0f, files, 1, -1, 2);
    EXPECT_EQ(coordsOf(a), coordsOf(b));
    EXPECT_FALSE(a.rasterOrder);
    EXPECT_EQ(a.loadedCount, 8);
    expectValuesMatchCoords(a);
    EXPECT_EQ(a.getPixelAsDouble(xy{}), nullptr);

    // Ten swaps per pixel, each from four draws in order r1, r2, r3, r4.
    Cells expected;
    for (int k = 0; k < 20; ++k) expected.emplace_back(k / 5, k % 5);
    std::srand(3605118785u);
    for (int s = 0; s < 200; ++s) {
        const int r1 = std::rand(), r2 = std::rand(), r3 = std::rand(), r4 = std::rand();
        std::swap(expected[5 * (r1 % 4) + r2 % 5], expected[5 * (r3 % 4) + r4 % 5]);
    }
    EXPECT_EQ(coordsOf(a), expected);

    // The hraw flavour draws the same way but from wherever the generator stands.
    int*** cube = testCube(3, 4, 5);
    const std::string path = dhc::test::tmpPath("pottsdata_cube.hraw");
    ImageFile<int>::writeHRawInt32(path, cube, 3, 4, 5);
    ImageFile<int>::deleteCube(cube, 3, 4);
    std::srand(3605118785u);
    PottsData first(true, 40.0f, path, 1, -1, 2);
    PottsData second(true, 40.0f, path, 1, -1, 2);
    EXPECT_EQ(coordsOf(first), expected);
    EXPECT_NE(coordsOf(second), expected);
    EXPECT_EQ(std::make_tuple(first.bands, first.rows, first.cols, first.loadedCount),
              std::make_tuple(3, 4, 5, 8));
    expectValuesMatchCoords(second);
}

TEST(PottsData, FromRoiKeepsPointsAndBuildsTheRootRegion) {
    ROI<int, xy>* roi = pointsRoi({{0, 1}, {0, 2}, {1, 2}, {2, 0}}, 3, 4);
    roi->order = 1;
    PottsData d(roi, 1, 7, 3, 7);
    EXPECT_EQ(std::make_tuple(d.rows, d.cols, d.bands, d.envelopeCount, d.loadedCount),
              std::make_tuple(3, 4, 2, 4, 4));
    EXPECT_TRUE(d.shuffle);
    EXPECT_FALSE(d.rasterOrder);
    EXPECT_EQ(d.fromRoi, 1);
    expectValuesMatchCoords(d);
    // The root is the label-3 region of the points; the other cells carry aux (7).
    EXPECT_EQ(mapOf(*d.root), (Grid{{7, 3, 3, 7}, {7, 7, 3, 7}, {3, 7, 7, 7}}));
    EXPECT_EQ(std::make_tuple(d.root->label, d.root->area, d.root->runCount), std::make_tuple(3, 4, 3));
    EXPECT_EQ(std::make_tuple(d.root->minRow, d.root->maxRow, d.root->minCol, d.root->maxCol),
              std::make_tuple(0, 2, 0, 2));
    EXPECT_EQ(d.getEnvelopeArea(), 9);
    delete roi;  // the data keeps its own copies

    ROI<int, xy>* one = pointsRoi({{0, 0}}, 1, 1);
    EXPECT_EQ(PottsData(one, 1, 7, 3, 7).getEnvelopeArea(), 1);
    delete one;
}

TEST(PottsData, FirstNaturalsTakeUnmarkedPixelsFirst) {
    ROI<int, xy>* roi = pointsRoi({{0, 0}, {0, 1}, {0, 2}, {1, 0}, {1, 1}}, 2, 3);
    PottsData d(roi, 1, 7, 3, 7);
    d.coords[0].flag = 1;
    d.coords[2].flag = 3;
    for (int asked : {4, 9}) {
        SCOPED_TRACE(asked);
        // Unmarked in list order, then the marked ones with flag 1 in the copy.
        const Cells order = {{0, 1}, {1, 0}, {1, 1}, {0, 0}, {0, 2}};
        int n = asked;
        xy* taken = nullptr;
        double** values = d.getFirstNaturals(n, taken);
        ASSERT_EQ(n, std::min(asked, 5));
        for (int k = 0; k < n; ++k) {
            EXPECT_EQ(Cells::value_type(taken[k].x, taken[k].y), order[k]);
            EXPECT_EQ(taken[k].flag, k < 3 ? 0 : 1);
            EXPECT_EQ(values[k][1], valueAt(1, order[k].first, order[k].second));
        }
        freeTable(values, n);
        delete[] taken;
    }
    EXPECT_EQ(d.coords[2].flag, 3);  // the list itself is not changed
    delete roi;
}

}  // namespace
