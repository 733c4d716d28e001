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

TEST(PottsData, ShuffledBandFileSamplesAreSeeded) {
    int*** cube = ImageFile<int>::newCube(3, 4, 5);
    std::vector<std::string> names;
    for (int b = 0; b < 3; ++b) {
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 5; ++c) cube[b][r][c] = valueAt(b, r, c);
        names.push_back(dhc::test::tmpPath("pottsdata_band" + std::to_string(b) + ".raw"));
        ImageFile<int>::writeRawInt32(names.back(), cube[b], 4, 5, 0);
    }
    ImageFile<int>::deleteCube(cube, 3, 4);
    char* files[3] = {names[0].data(), names[1].data(), names[2].data()};
    std::srand(1);
    PottsData a(4, 5, 3, true, 40.0f, files, 1, -1, 2);
    std::srand(2);  // the constructor reseeds: the draw state before it does not matter
    PottsData b(4, 5, 3, true, 40.0f, files, 1, -1, 2);
    EXPECT_EQ(cellsOf(a.coords, 20), cellsOf(b.coords, 20));
    EXPECT_FALSE(a.rasterOrder);
    EXPECT_EQ(a.loadedCount, 8);
    expectValuesMatchCoords(a);

    // Ten swaps per pixel, each from four draws in order r1, r2, r3, r4.
    Cells expected;
    for (int k = 0; k < 20; ++k) expected.emplace_back(k / 5, k % 5);
    std::srand(3605118785u);
    for (int s = 0; s < 200; ++s) {
        const int r1 = std::rand(), r2 = std::rand(), r3 = std::rand(), r4 = std::rand();
        std::swap(expected[5 * (r1 % 4) + r2 % 5], expected[5 * (r3 % 4) + r4 % 5]);
    }
    EXPECT_EQ(cellsOf(a.coords, 20), expected);
}

TEST(PottsData, FromRoiKeepsPointsAndBuildsTheRootRegion) {
    ROI<int, xy>* roi = pointsRoi({{0, 1}, {0, 2}, {1, 2}, {2, 0}}, 3, 4);
    roi->order = 1;
    PottsData d(roi, 1, 7, 3, 7);
    delete roi;  // the data keeps its own copies
    EXPECT_EQ(std::make_tuple(d.rows, d.cols, d.bands, d.envelopeCount, d.loadedCount),
              std::make_tuple(3, 4, 2, 4, 4));
    expectValuesMatchCoords(d);
    // The root is the label-3 region of the points; the other cells carry aux (7).
    EXPECT_EQ(mapOf(*d.root), (Grid{{7, 3, 3, 7}, {7, 7, 3, 7}, {3, 7, 7, 7}}));
    EXPECT_EQ(std::make_tuple(d.root->label, d.root->area, d.root->runCount), std::make_tuple(3, 4, 3));
    EXPECT_EQ(d.getEnvelopeArea(), 9);  // margins rows 0..2, columns 0..2
}

TEST(PottsData, FirstNaturalsTakeUnmarkedPixelsFirst) {
    ROI<int, xy>* roi = pointsRoi({{0, 0}, {0, 1}, {0, 2}, {1, 0}, {1, 1}}, 2, 3);
    PottsData d(roi, 1, 7, 3, 7);
    delete roi;
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
            delete[] values[k];
        }
        delete[] values;
        delete[] taken;
    }
    EXPECT_EQ(d.coords[2].flag, 3);  // the list itself is not changed
}

}  // namespace
