#include "data/ROI.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "MapTestUtil.h"
#include "common/TestSupport.h"

namespace {

// An image whose band b value at (r, c) is 1000 * b + 100 * r + c, with a zero mask.
struct Image {
    int rows, cols, bands;
    int*** cube;
    int*** mask;
    Image(int r, int c, int b)
        : rows(r),
          cols(c),
          bands(b),
          cube(ImageFile<int>::newCube(b, r, c)),
          mask(ImageFile<int>::newCube(1, r, c)) {
        for (int k = 0; k < b; ++k)
            for (int i = 0; i < r; ++i)
                for (int j = 0; j < c; ++j) cube[k][i][j] = 1000 * k + 100 * i + j;
    }
    ~Image() {
        ImageFile<int>::deleteCube(cube, bands, rows);
        ImageFile<int>::deleteCube(mask, 1, rows);
    }
    ROI<int, xy>* roi(int maskValue, bool shuffle) {
        return buildRoi(rows, cols, bands, cube, mask[0], maskValue, shuffle);
    }
};

Cells pointsOf(const ROI<int, xy>& roi) {
    return cellsOf(roi.coords, roi.count);
}

std::tuple<int, int, int, int, int> boxOf(const ROI<int, xy>& roi) {
    return {roi.count, roi.minRow, roi.height, roi.minCol, roi.width};
}

TEST(BuildRoi, BoundingBoxAndRebasedCells) {
    Image im(5, 7, 2);
    im.mask[0][1][2] = 1;
    im.mask[0][3][5] = 1;
    im.mask[0][4][0] = 2;  // another mask value is not selected
    ROI<int, xy>* roi = im.roi(1, false);
    EXPECT_EQ(boxOf(*roi), std::make_tuple(2, 1, 3, 2, 4));
    EXPECT_EQ(std::make_tuple(roi->bands, roi->imageRows, roi->imageCols, roi->order),
              std::make_tuple(2, 5, 7, 2));
    EXPECT_EQ(pointsOf(*roi), (Cells{{0, 0}, {2, 3}}));
    // Pixel-interleaved values: band b of point k at [k * bands + b].
    EXPECT_EQ(std::vector<int>(roi->data, roi->data + 4), (std::vector<int>{102, 1102, 305, 1305}));
    delete roi;

    im.mask[0][2][1] = 7;
    roi = im.roi(7, false);
    EXPECT_EQ(boxOf(*roi), std::make_tuple(1, 2, 1, 1, 1));
    EXPECT_EQ(pointsOf(*roi), (Cells{{0, 0}}));
    delete roi;
    for (bool shuffle : {false, true}) {
        roi = im.roi(5, shuffle);
        EXPECT_EQ(boxOf(*roi), std::make_tuple(0, -1, 0, -1, 0));
        delete roi;
    }
}

TEST(BuildRoi, ShuffleIsTheSeededSwapSequence) {
    Image im(6, 9, 3);
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 9; ++c) im.mask[0][r][c] = (r * 7 + c * 3) % 4 == 0 ? 0 : 1;
    ROI<int, xy>* plain = im.roi(1, false);
    ROI<int, xy>* a = im.roi(1, true);
    const int afterA = std::rand();
    ROI<int, xy>* b = im.roi(1, true);
    const int n = plain->count;
    EXPECT_EQ(a->order, 1);
    EXPECT_EQ(pointsOf(*a), pointsOf(*b));  // same seed, same order
    EXPECT_EQ(boxOf(*a), boxOf(*plain));

    // Reference: the raster list permuted by 10 * n swaps, i drawn before j.
    std::vector<int> perm(n);
    for (int k = 0; k < n; ++k) perm[k] = k;
    std::srand(3605118785u);
    for (int s = 0; s < 10 * n; ++s) {
        const int i = std::rand() % n;
        std::swap(perm[i], perm[std::rand() % n]);
    }
    EXPECT_EQ(afterA, std::rand());  // exactly 20 * n draws were made
    Cells expected;
    for (int k = 0; k < n; ++k) expected.emplace_back(plain->coords[perm[k]].x, plain->coords[perm[k]].y);
    EXPECT_EQ(pointsOf(*a), expected);
    for (int k = 0; k < n; ++k)
        for (int v = 0; v < 3; ++v) {
            // Values travel with their point: band v of image (x + minRow, y + minCol).
            EXPECT_EQ(a->data[k * 3 + v],
                      1000 * v + 100 * (expected[k].first + a->minRow) + expected[k].second + a->minCol);
        }
    delete plain;
    delete a;
    delete b;
}

TEST(LabelsRoi, DistinctValuesAscending) {
    int values[] = {4, -1, 4, 9};
    const std::pair<int, std::vector<int>> cases[] = {{4, {-1, 4, 9}}, {1, {4}}, {0, {}}};
    for (const auto& [n, expected] : cases) {
        int count = -1;
        int* labels = labelsRoi(values, n, count);
        EXPECT_EQ(std::vector<int>(labels, labels + count), expected) << n;
        delete[] labels;
    }
}

TEST(RoiLabels, ExtractLabROIAndWriteHRawInt32AreInverses) {
    // Cells at image positions (2,3), (2,5), (4,4), (5,6) of a 6 x 8 image: box (2, 3), 4 x 4.
    Image im(6, 8, 1);
    im.mask[0][2][3] = im.mask[0][2][5] = im.mask[0][4][4] = im.mask[0][5][6] = 1;
    ROI<int, xy>* roi = im.roi(1, false);
    for (int k = 0; k < 4; ++k) roi->data[k] = 11 * (k + 1);
    const std::string path = dhc::test::tmpPath("roi_labels.hraw");
    for (bool absolute : {false, true})
        for (int offset : {0, 2}) {
            SCOPED_TRACE(std::to_string(absolute) + " " + std::to_string(offset));
            roi->writeHRawInt32(path, offset, absolute);
            int bands = 0, rows = 0, cols = 0;
            int*** cube = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
            EXPECT_EQ(std::make_tuple(bands, rows, cols),
                      std::make_tuple(1, (absolute ? 6 : 4) + 2 * offset, (absolute ? 8 : 4) + 2 * offset));
            // Each point at its own cell, every other cell 0.
            const Cells cellsAt =
                absolute ? Cells{{2, 3}, {2, 5}, {4, 4}, {5, 6}} : Cells{{0, 0}, {0, 2}, {2, 1}, {3, 3}};
            int nonZero = 0;
            for (int r = 0; r < rows; ++r)
                for (int c = 0; c < cols; ++c) nonZero += cube[0][r][c] != 0;
            EXPECT_EQ(nonZero, 4);
            ROI<int, xy>* back = roi->extractLabROI(cube[0], offset, absolute);
            for (int k = 0; k < 4; ++k) {
                EXPECT_EQ(cube[0][cellsAt[k].first + offset][cellsAt[k].second + offset], 11 * (k + 1));
                EXPECT_EQ(back->data[k], 11 * (k + 1));
            }
            EXPECT_EQ(pointsOf(*back), pointsOf(*roi));
            EXPECT_EQ(boxOf(*back), boxOf(*roi));
            EXPECT_EQ(std::make_tuple(back->bands, back->imageRows, back->imageCols),
                      std::make_tuple(1, 6, 8));
            delete back;
            ImageFile<int>::deleteCube(cube, bands, rows);
        }
    std::remove(path.c_str());
    delete roi;
}

}  // namespace
