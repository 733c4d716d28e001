#include "data/ROI.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

std::string tempPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    std::string base = dir != nullptr ? std::string(dir) + "/" : ::testing::TempDir();
    return base + "roi_" + std::to_string(::getpid()) + "_" + name;
}

// An image of the given size whose band b value at (r, c) is 1000 * b + 100 * r + c,
// with a mask of zeros; owns its rows.
struct Image {
    int rows, cols, bands;
    std::vector<std::vector<int>> storage;  // bands * rows rows, then rows mask rows
    std::vector<int*> rowPtrs;
    std::vector<int**> bandPtrs;
    int** mask;

    Image(int r, int c, int b)
        : rows(r), cols(c), bands(b), storage(static_cast<size_t>(b + 1) * r, std::vector<int>(c)) {
        for (auto& row : storage) rowPtrs.push_back(row.data());
        for (int k = 0; k < b; ++k) {
            bandPtrs.push_back(&rowPtrs[static_cast<size_t>(k) * r]);
            for (int i = 0; i < r; ++i)
                for (int j = 0; j < c; ++j) bandPtrs[k][i][j] = 1000 * k + 100 * i + j;
        }
        mask = &rowPtrs[static_cast<size_t>(b) * r];
    }
    int*** cube() { return bandPtrs.data(); }
};

TEST(BuildRoi, BoundingBoxAndRebasedPoints) {
    Image im(5, 7, 2);
    im.mask[1][2] = 1;
    im.mask[3][5] = 1;
    im.mask[4][0] = 2;  // another mask value is not selected
    ROI<int, xy>* roi = buildRoi(5, 7, 2, im.cube(), im.mask, 1, false);
    EXPECT_EQ(roi->count, 2);
    EXPECT_EQ(roi->bands, 2);
    EXPECT_EQ(roi->minRow, 1);
    EXPECT_EQ(roi->height, 3);
    EXPECT_EQ(roi->minCol, 2);
    EXPECT_EQ(roi->width, 4);
    EXPECT_EQ(roi->imageRows, 5);
    EXPECT_EQ(roi->imageCols, 7);
    EXPECT_EQ(roi->order, 2);
    EXPECT_EQ(roi->coords[0].x, 0);
    EXPECT_EQ(roi->coords[0].y, 0);
    EXPECT_EQ(roi->coords[1].x, 2);
    EXPECT_EQ(roi->coords[1].y, 3);
    EXPECT_EQ(roi->coords[1].aux, 0);
    EXPECT_EQ(roi->coords[1].flag, 0);
    // Pixel-interleaved values: band b of point k at [k * bands + b].
    const int expected[4] = {102, 1102, 305, 1305};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(roi->data[i], expected[i]) << i;
    delete roi;
}

TEST(BuildRoi, SinglePixelAndEmptyMask) {
    Image im(3, 3, 1);
    im.mask[2][1] = 7;
    ROI<int, xy>* one = buildRoi(3, 3, 1, im.cube(), im.mask, 7, false);
    EXPECT_EQ(one->count, 1);
    EXPECT_EQ(one->height, 1);
    EXPECT_EQ(one->width, 1);
    EXPECT_EQ(one->minRow, 2);
    EXPECT_EQ(one->minCol, 1);
    EXPECT_EQ(one->coords[0].x, 0);
    EXPECT_EQ(one->coords[0].y, 0);
    EXPECT_EQ(one->data[0], 201);
    delete one;

    for (bool shuffle : {false, true}) {
        ROI<int, xy>* none = buildRoi(3, 3, 1, im.cube(), im.mask, 5, shuffle);
        EXPECT_EQ(none->count, 0);
        EXPECT_EQ(none->height, 0);
        EXPECT_EQ(none->width, 0);
        EXPECT_EQ(none->minRow, -1);
        EXPECT_EQ(none->minCol, -1);
        delete none;
    }
}

TEST(BuildRoi, ShuffleIsTheSeededSwapSequence) {
    const int rows = 6, cols = 9, bands = 3;
    Image im(rows, cols, bands);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) im.mask[r][c] = (r * 7 + c * 3) % 4 == 0 ? 0 : 1;

    ROI<int, xy>* plain = buildRoi(rows, cols, bands, im.cube(), im.mask, 1, false);
    ROI<int, xy>* a = buildRoi(rows, cols, bands, im.cube(), im.mask, 1, true);
    const int afterA = std::rand();
    ROI<int, xy>* b = buildRoi(rows, cols, bands, im.cube(), im.mask, 1, true);
    const int n = plain->count;
    ASSERT_GT(n, 10);
    EXPECT_EQ(a->order, 1);
    EXPECT_EQ(plain->order, 2);

    // Reference: the raster list permuted by 10 * n swaps, i drawn before j.
    std::vector<int> perm(n);
    for (int k = 0; k < n; ++k) perm[k] = k;
    std::srand(3605118785u);
    for (int s = 0; s < 10 * n; ++s) {
        const int i = std::rand() % n;
        const int j = std::rand() % n;
        std::swap(perm[i], perm[j]);
    }
    // Exactly 20 * n draws were made: the generator continues from there.
    EXPECT_EQ(afterA, std::rand());

    int moved = 0;
    for (int k = 0; k < n; ++k) {
        const xy p = plain->coords[perm[k]];
        EXPECT_EQ(a->coords[k].x, p.x) << k;
        EXPECT_EQ(a->coords[k].y, p.y) << k;
        EXPECT_EQ(b->coords[k].x, a->coords[k].x) << k;  // same seed, same order
        EXPECT_EQ(b->coords[k].y, a->coords[k].y) << k;
        for (int v = 0; v < bands; ++v) {
            // Values travel with their point: band v of image (x + minRow, y + minCol).
            EXPECT_EQ(a->data[k * bands + v], 1000 * v + 100 * (p.x + a->minRow) + p.y + a->minCol);
        }
        if (perm[k] != k) ++moved;
    }
    EXPECT_GT(moved, n / 2);
    EXPECT_EQ(a->minRow, plain->minRow);
    EXPECT_EQ(a->width, plain->width);
    delete plain;
    delete a;
    delete b;
}

TEST(LabelsRoi, DistinctValuesAscending) {
    int values[] = {4, -1, 4, 9};
    int count = -1;
    int* labels = labelsRoi(values, 4, count);
    ASSERT_EQ(count, 3);
    EXPECT_EQ(labels[0], -1);
    EXPECT_EQ(labels[1], 4);
    EXPECT_EQ(labels[2], 9);
    delete[] labels;

    labels = labelsRoi(values + 3, 1, count);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(labels[0], 9);
    delete[] labels;

    labels = labelsRoi(values, 0, count);
    EXPECT_EQ(count, 0);
    delete[] labels;
}

TEST(LabelsRoi, AgreesWithASortedSet) {
    std::srand(12345u);
    for (int trial = 0; trial < 50; ++trial) {
        const int n = 2 + std::rand() % 40;
        std::vector<int> v(n);
        std::set<int> ref;
        for (int& x : v) {
            x = std::rand() % 61 - 30;
            ref.insert(x);
        }
        int count = 0;
        int* labels = labelsRoi(v.data(), n, count);
        ASSERT_EQ(count, static_cast<int>(ref.size()));
        EXPECT_EQ(std::vector<int>(labels, labels + count), std::vector<int>(ref.begin(), ref.end()));
        delete[] labels;
    }
}

// A ROI over a 6 x 8 image with points at image positions (2,3), (2,5), (4,4), (5,6).
ROI<int, xy>* sampleRoi() {
    Image im(6, 8, 1);
    im.mask[2][3] = im.mask[2][5] = im.mask[4][4] = im.mask[5][6] = 1;
    return buildRoi(6, 8, 1, im.cube(), im.mask, 1, false);
}

TEST(RoiLabels, ExtractLabROIReadsBoxOrFullFramePlanes) {
    ROI<int, xy>* roi = sampleRoi();
    ASSERT_EQ(roi->count, 4);
    // A full-frame plane padded by 1 and an unpadded 4 x 4 box plane (box at (2, 3)),
    // whose cells encode their own position.
    int*** full = ImageFile<int>::newCube(1, 8, 10);
    int*** box = ImageFile<int>::newCube(1, 4, 4);
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 8; ++c) full[0][r + 1][c + 1] = 10 * r + c;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) box[0][r][c] = 100 + 10 * r + c;

    ROI<int, xy>* abs = roi->extractLabROI(full[0], 1, true);
    ROI<int, xy>* rel = roi->extractLabROI(box[0], 0, false);
    const int imagePos[4] = {23, 25, 44, 56};
    const int boxPos[4] = {100, 102, 121, 133};
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(abs->data[k], imagePos[k]) << k;
        EXPECT_EQ(rel->data[k], boxPos[k]) << k;
        EXPECT_EQ(abs->coords[k].x, roi->coords[k].x);
        EXPECT_EQ(rel->coords[k].y, roi->coords[k].y);
    }
    EXPECT_EQ(std::make_tuple(abs->count, abs->bands, abs->minRow, abs->minCol, abs->height, abs->width,
                              abs->imageRows, abs->imageCols, abs->order),
              std::make_tuple(4, 1, 2, 3, 4, 4, 6, 8, 2));
    delete abs;
    delete rel;
    ImageFile<int>::deleteCube(full, 1, 8);
    ImageFile<int>::deleteCube(box, 1, 4);
    delete roi;
}

TEST(RoiLabels, WriteHRawInt32IsTheInverseOfExtract) {
    ROI<int, xy>* roi = sampleRoi();
    for (int k = 0; k < roi->count; ++k) roi->data[k] = 11 * (k + 1);
    const std::string path = tempPath("labels.hraw");
    for (bool absolute : {false, true}) {
        for (int offset : {0, 2}) {
            SCOPED_TRACE(std::to_string(absolute) + " " + std::to_string(offset));
            roi->writeHRawInt32(path, offset, absolute);
            int bands = 0, rows = 0, cols = 0;
            int*** cube = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
            EXPECT_EQ(bands, 1);
            EXPECT_EQ(rows, (absolute ? 6 : 4) + 2 * offset);
            EXPECT_EQ(cols, (absolute ? 8 : 4) + 2 * offset);
            ROI<int, xy>* back = roi->extractLabROI(cube[0], offset, absolute);
            int nonZero = 0;
            for (int r = 0; r < rows; ++r)
                for (int c = 0; c < cols; ++c) nonZero += cube[0][r][c] != 0;
            EXPECT_EQ(nonZero, 4);  // every other cell is 0
            for (int k = 0; k < 4; ++k) EXPECT_EQ(back->data[k], 11 * (k + 1));
            if (absolute && offset == 0) {
                EXPECT_EQ(cube[0][5][6], 44);  // image position of point 3
            }
            delete back;
            ImageFile<int>::deleteCube(cube, bands, rows);
        }
    }
    std::remove(path.c_str());
    delete roi;
}

}  // namespace
