#include "data/PottsData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "MapTestUtil.h"
#include "data/ImageFile.h"
#include "data/ROI.h"

namespace {

std::string tmpPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    return std::string(dir != nullptr ? dir : "/tmp") + "/pottsdata_" + name;
}

// Value of band b at (r, c) in the test images: distinct for every cell and band.
int valueAt(int b, int r, int c) {
    return 1000 * b + 10 * r + c;
}

std::string writeHraw(const std::string& name, int bands, int rows, int cols) {
    int*** cube = ImageFile<int>::newCube(bands, rows, cols);
    for (int b = 0; b < bands; ++b)
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) cube[b][r][c] = valueAt(b, r, c);
    const std::string path = tmpPath(name);
    ImageFile<int>::writeHRawInt32(path, cube, bands, rows, cols);
    ImageFile<int>::deleteCube(cube, bands, rows);
    return path;
}

std::vector<std::string> writeBandFiles(int bands, int rows, int cols) {
    std::vector<std::string> names;
    for (int b = 0; b < bands; ++b) {
        Grid plane(rows, std::vector<int>(cols));
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) plane[r][c] = valueAt(b, r, c);
        RowPointers p(plane);
        names.push_back(tmpPath("band" + std::to_string(b) + ".raw"));
        ImageFile<int>::writeRawInt32(names.back(), p.get(), rows, cols, 0);
    }
    return names;
}

std::vector<std::pair<int, int>> coordsOf(const PottsData& d) {
    std::vector<std::pair<int, int>> v;
    for (int k = 0; k < d.envelopeCount; ++k) v.emplace_back(d.coords[k].x, d.coords[k].y);
    return v;
}

void expectValuesMatchCoords(const PottsData& d) {
    for (int i = 0; i < d.loadedCount; ++i)
        for (int b = 0; b < d.bands; ++b)
            ASSERT_EQ(d.data[i * d.bands + b], valueAt(b, d.coords[i].x, d.coords[i].y))
                << i << " band " << b;
}

ROI<int, xy>* pointsRoi(const std::vector<std::pair<int, int>>& points, int height, int width) {
    ROI<int, xy>* roi = new ROI<int, xy>(static_cast<int>(points.size()), 2);
    for (size_t k = 0; k < points.size(); ++k) {
        roi->coords[k].x = static_cast<uint16_t>(points[k].first);
        roi->coords[k].y = static_cast<uint16_t>(points[k].second);
        roi->data[2 * k] = valueAt(0, points[k].first, points[k].second);
        roi->data[2 * k + 1] = valueAt(1, points[k].first, points[k].second);
    }
    roi->minRow = 4;
    roi->height = height;
    roi->minCol = 6;
    roi->width = width;
    roi->imageRows = 20;
    roi->imageCols = 20;
    roi->order = 2;
    return roi;
}

}  // namespace

TEST(PottsData, LoadedCountFollowsThePercentageInFloat) {
    const std::vector<std::pair<float, int>> cases = {
        {100.0f, 7}, {150.0f, 7}, {0.0f, 0}, {-3.0f, 0}, {50.0f, 3}};
    for (auto [percentage, expected] : cases) {
        PottsData d(1, 7, 1, false, percentage, 1, -1, 2);
        EXPECT_EQ(d.envelopeCount, 7);
        EXPECT_EQ(d.loadedCount, expected) << percentage;
    }
    // 125 x 5.6f is exactly 700 in float but 699.99... in double: 7 pixels, not 6.
    PottsData d(5, 25, 1, false, 5.6f, 1, -1, 2);
    EXPECT_EQ(d.loadedCount, 7);
}

TEST(PottsData, BandFilesLoadTheFirstPixelsInRasterOrder) {
    std::vector<std::string> names = writeBandFiles(2, 3, 4);
    char* files[2] = {names[0].data(), names[1].data()};
    PottsData d(3, 4, 2, false, 50.0f, files, 1, -1, 2);
    EXPECT_EQ(d.bands, 2);
    EXPECT_EQ(d.loadedCount, 6);
    EXPECT_TRUE(d.rasterOrder);
    EXPECT_EQ(std::string(d.bandFiles[1]), names[1]);
    for (int k = 0; k < 12; ++k) {
        EXPECT_EQ(d.coords[k].x, k / 4);
        EXPECT_EQ(d.coords[k].y, k % 4);
    }
    expectValuesMatchCoords(d);
    xy p;
    p.x = 1;
    p.y = 1;
    double* v = d.getPixelAsDouble(p);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v[0], valueAt(0, 1, 1));
    EXPECT_EQ(v[1], valueAt(1, 1, 1));
    delete[] v;
    EXPECT_EQ(d.root->label, 2);
    EXPECT_EQ(d.root->area, 12);
    EXPECT_EQ(d.getEnvelopeArea(), 12);
}

TEST(PottsData, ShuffledBandFileListsAreReproducibleSamples) {
    std::vector<std::string> names = writeBandFiles(2, 5, 6);
    char* files[2] = {names[0].data(), names[1].data()};
    std::srand(1);
    PottsData a(5, 6, 2, true, 40.0f, files, 1, -1, 2);
    std::srand(2);  // the constructor reseeds: the draw state before it does not matter
    PottsData b(5, 6, 2, true, 40.0f, files, 1, -1, 2);
    EXPECT_EQ(coordsOf(a), coordsOf(b));
    EXPECT_FALSE(a.rasterOrder);
    EXPECT_EQ(a.loadedCount, 12);
    expectValuesMatchCoords(a);
    xy p;
    EXPECT_EQ(a.getPixelAsDouble(p), nullptr);

    // Ten swaps per pixel, each from four draws in order r1, r2, r3, r4.
    std::vector<std::pair<int, int>> expected;
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 6; ++c) expected.emplace_back(r, c);
    std::srand(3605118785u);
    for (int s = 0; s < 300; ++s) {
        const int r1 = std::rand(), r2 = std::rand(), r3 = std::rand(), r4 = std::rand();
        std::swap(expected[6 * (r1 % 5) + r2 % 6], expected[6 * (r3 % 5) + r4 % 6]);
    }
    EXPECT_EQ(coordsOf(a), expected);
}

TEST(PottsData, HrawRunsContinueTheGeneratorInsteadOfReseeding) {
    const std::string path = writeHraw("cube.hraw", 3, 4, 5);
    PottsData plain(false, 100.0f, path, 1, -1, 2);
    EXPECT_EQ(plain.bands, 3);
    EXPECT_EQ(plain.rows, 4);
    EXPECT_EQ(plain.cols, 5);
    EXPECT_EQ(plain.loadedCount, 20);
    EXPECT_EQ(plain.fromRoi, 0);
    EXPECT_EQ(plain.hrawFileName, path);
    expectValuesMatchCoords(plain);
    EXPECT_EQ(plain.root->label, 2);
    EXPECT_EQ(plain.root->area, 20);

    std::srand(3605118785u);
    PottsData first(true, 50.0f, path, 1, -1, 2);
    PottsData second(true, 50.0f, path, 1, -1, 2);
    EXPECT_NE(coordsOf(first), coordsOf(second));
    expectValuesMatchCoords(first);
    expectValuesMatchCoords(second);
    // From the seed, the hraw shuffle draws exactly as the band-file one does.
    std::vector<std::string> names = writeBandFiles(3, 4, 5);
    char* files[3] = {names[0].data(), names[1].data(), names[2].data()};
    PottsData seeded(4, 5, 3, true, 50.0f, files, 1, -1, 2);
    EXPECT_EQ(coordsOf(first), coordsOf(seeded));
}

TEST(PottsData, FromRoiKeepsPointsAndBuildsTheRootRegion) {
    // Points inside a 3 x 4 box; the root is the region of the points.
    ROI<int, xy>* roi = pointsRoi({{0, 1}, {0, 2}, {1, 2}, {2, 0}}, 3, 4);
    roi->order = 1;
    PottsData d(roi, 1, 7, 3, 7);
    EXPECT_EQ(d.rows, 3);
    EXPECT_EQ(d.cols, 4);
    EXPECT_EQ(d.bands, 2);
    EXPECT_EQ(d.envelopeCount, 4);
    EXPECT_EQ(d.loadedCount, 4);
    EXPECT_TRUE(d.shuffle);
    EXPECT_FALSE(d.rasterOrder);
    EXPECT_EQ(d.fromRoi, 1);
    EXPECT_EQ(d.roi, roi);
    expectValuesMatchCoords(d);
    EXPECT_EQ(mapOf(*d.root), (Grid{{7, 3, 3, 7}, {7, 7, 3, 7}, {3, 7, 7, 7}}));
    EXPECT_EQ(d.root->label, 3);
    EXPECT_EQ(d.root->area, 4);
    EXPECT_EQ(d.root->runCount, 3);
    EXPECT_EQ(std::make_tuple(d.root->minRow, d.root->maxRow, d.root->minCol, d.root->maxCol),
              std::make_tuple(0, 2, 0, 2));
    EXPECT_EQ(d.getEnvelopeArea(), 9);
    delete roi;  // the data keeps its own copies

    ROI<int, xy>* one = pointsRoi({{0, 0}}, 1, 1);
    PottsData single(one, 1, 7, 3, 7);
    EXPECT_EQ(single.getEnvelopeArea(), 1);
    delete one;
}

TEST(PottsData, FirstNaturalsTakeUnmarkedPixelsFirst) {
    ROI<int, xy>* roi = pointsRoi({{0, 0}, {0, 1}, {0, 2}, {1, 0}, {1, 1}}, 2, 3);
    PottsData d(roi, 1, 7, 3, 7);
    d.coords[0].flag = 1;
    d.coords[2].flag = 3;
    int n = 4;
    xy* taken = nullptr;
    double** values = d.getFirstNaturals(n, taken);
    ASSERT_EQ(n, 4);
    const std::vector<std::pair<int, int>> expected = {{0, 1}, {1, 0}, {1, 1}, {0, 0}};
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(taken[k].x, expected[k].first);
        EXPECT_EQ(taken[k].y, expected[k].second);
        EXPECT_EQ(values[k][1], valueAt(1, expected[k].first, expected[k].second));
    }
    EXPECT_EQ(taken[0].flag, 0);
    EXPECT_EQ(taken[3].flag, 1);
    EXPECT_EQ(d.coords[2].flag, 3);  // the list itself is not changed
    for (int k = 0; k < n; ++k) delete[] values[k];
    delete[] values;
    delete[] taken;

    n = 9;  // more than there are: all five, the marked ones last with flag 1
    values = d.getFirstNaturals(n, taken);
    ASSERT_EQ(n, 5);
    EXPECT_EQ(taken[4].x, 0);
    EXPECT_EQ(taken[4].y, 2);
    EXPECT_EQ(taken[4].flag, 1);
    for (int k = 0; k < n; ++k) delete[] values[k];
    delete[] values;
    delete[] taken;
    delete roi;
}

TEST(PottsData, GettersReturnIndependentCopies) {
    ROI<int, xy>* roi = pointsRoi({{0, 0}, {1, 3}, {2, 1}}, 3, 4);
    PottsData d(roi, 1, 7, 3, 7);
    int n = 0;
    int** pixels = d.getLoadedPixels(n);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(pixels[1][0], valueAt(0, 1, 3));
    pixels[1][0] = -1;
    EXPECT_EQ(d.data[2], valueAt(0, 1, 3));
    double** asDouble = d.getLoadedPixelsAsDouble(n);
    EXPECT_EQ(asDouble[2][1], valueAt(1, 2, 1));
    double** where = d.getLoadedPixelsCoord(n);
    EXPECT_EQ(where[1][0], 1.0);
    EXPECT_EQ(where[1][1], 3.0);
    for (int k = 0; k < n; ++k) {
        delete[] pixels[k];
        delete[] asDouble[k];
        delete[] where[k];
    }
    delete[] pixels;
    delete[] asDouble;
    delete[] where;
    double* center = d.getSpatialCenter();
    EXPECT_DOUBLE_EQ(center[0], 1.0);
    EXPECT_DOUBLE_EQ(center[1], 4.0 / 3.0);
    delete[] center;

    ROI<int, xy>* labels = d.getLabRoi(false);
    ASSERT_EQ(labels->count, 3);
    EXPECT_EQ(labels->bands, 1);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(labels->data[k], 3);
    EXPECT_EQ(labels->minRow, 4);
    EXPECT_EQ(labels->minCol, 6);
    delete labels;

    ROI<int, xy>* shared = d.getDataRoi();
    EXPECT_EQ(shared->data, d.data);
    EXPECT_EQ(shared->count, 3);
    EXPECT_EQ(std::make_tuple(shared->minRow, shared->height, shared->minCol, shared->width),
              std::make_tuple(0, 3, 0, 4));
    shared->data = nullptr;  // shared, not ours to free
    delete shared;
    delete roi;
}

TEST(PottsData, OutputMapCopiesAndCompacts) {
    ROI<int, xy>* roi = pointsRoi({{0, 0}, {0, 1}, {1, 1}}, 2, 2);
    PottsData d(roi, 1, 9, 5, 9);
    int** out = d.outputMap(true, true, false, -1);
    EXPECT_EQ(innerOf(out, 2, 2, 0), (Grid{{1, 1}, {2, 1}}));
    freeRows(out, 2);
    d.root->map[2][1] = 6;  // (1, 0)
    out = d.outputMap(true, false, true, -1);
    EXPECT_EQ(innerOf(out, 2, 2, 0), (Grid{{5, 6}, {5, 5}}));  // transposed copy
    freeRows(out, 2);
    delete roi;
}
