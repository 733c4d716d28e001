#include "data/ROI.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>
#include <utility>
#include <vector>

#include "MapTestUtil.h"
#include "data/ImageFile.h"
#include "settings/Random.h"
#include "settings/Workers.h"

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

// count, minRow, height, minCol, width
std::tuple<int, int, int, int, int> boxOf(const ROI<int, xy>& roi) {
    return {roi.count, roi.minRow, roi.height, roi.minCol, roi.width};
}

TEST(BuildRoi, BoundingBoxRebasedPointsAndInterleavedValues) {
    Image im(5, 7, 2);
    im.mask[0][1][2] = 1;
    im.mask[0][3][5] = 1;
    im.mask[0][4][0] = 2;  // another mask value is not selected
    ROI<int, xy>* roi = im.roi(1, false);
    EXPECT_EQ(boxOf(*roi), std::make_tuple(2, 1, 3, 2, 4));
    EXPECT_EQ(std::make_tuple(roi->bands, roi->imageRows, roi->imageCols, roi->order),
              std::make_tuple(2, 5, 7, 2));
    EXPECT_EQ(cellsOf(roi->coords, roi->count), (Cells{{0, 0}, {2, 3}}));
    // Band b of point k at [k * bands + b].
    EXPECT_EQ(std::vector<int>(roi->data, roi->data + 4), (std::vector<int>{102, 1102, 305, 1305}));
    delete roi;

    // An empty selection, shuffled: no swap may be drawn modulo a zero count.
    roi = im.roi(5, true);
    EXPECT_EQ(boxOf(*roi), std::make_tuple(0, -1, 0, -1, 0));
    delete roi;
}

TEST(BuildRoi, ShuffleIsTheSeededSwapSequence) {
    Image im(4, 6, 2);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 6; ++c) im.mask[0][r][c] = (r + 2 * c) % 3 == 0 ? 0 : 1;
    ROI<int, xy>* plain = im.roi(1, false);
    ROI<int, xy>* a = im.roi(1, true);
    const int afterA = dhc::processRandom().next();  // the draw after the shuffle
    ROI<int, xy>* b = im.roi(1, true);
    const int n = plain->count;
    EXPECT_EQ(a->order, 1);
    EXPECT_EQ(cellsOf(a->coords, n), cellsOf(b->coords, n));  // same seed, same order
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
    for (int k = 0; k < n; ++k) {
        const xy& p = plain->coords[perm[k]];
        EXPECT_EQ(std::make_pair(a->coords[k].x, a->coords[k].y), std::make_pair(p.x, p.y)) << k;
        // Values travel with their point: band v of image (x + minRow, y + minCol).
        for (int v = 0; v < 2; ++v)
            EXPECT_EQ(a->data[2 * k + v], 1000 * v + 100 * (p.x + a->minRow) + p.y + a->minCol) << k;
    }
    delete plain;
    delete a;
    delete b;
}

TEST(BuildRoi, AShuffleCutBetweenTwoThreadsGivesTheSameOrderAndDraws) {
    Image im(300, 260, 1);  // above the size that is shuffled on two threads
    ROI<int, xy>* one = im.roi(0, true);
    const int afterOne = dhc::processRandom().next();
    ROI<int, xy>* two = nullptr;
    {
        dhc::Workers team(2);
        dhc::UseWorkers use(team);
        two = im.roi(0, true);
    }
    EXPECT_EQ(dhc::processRandom().next(), afterOne);
    ASSERT_EQ(one->count, two->count);
    EXPECT_EQ(cellsOf(one->coords, one->count), cellsOf(two->coords, two->count));
    int moved = 0;
    for (int k = 0; k < one->count; ++k) {
        EXPECT_EQ(one->data[k], two->data[k]) << k;
        moved += one->coords[k].x * 260 + one->coords[k].y != k;
    }
    EXPECT_GT(moved, one->count / 2);  // it is a shuffle
    delete one;
    delete two;
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

}  // namespace
