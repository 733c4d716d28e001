#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "data/ImageFile.h"
#include "data/PottsMapRegion.h"
#include "workspace/PottsWS.h"
#include "workspace/WorkspaceFixtures.h"

namespace {

using wstest::freeChildren;
using wstest::makeWS;
using wstest::paint;

// Labels the columns of a rows x cols grid.
std::vector<std::vector<int>> stripes(int rows, const std::vector<int>& columnLabels) {
    return std::vector<std::vector<int>>(rows, columnLabels);
}

TEST(PottsWSSplitTest, TwoHalvesAlongAStraightBorder) {
    auto b = makeWS(4, 6, 2, [](int r, int c, int band) { return 10 * r + c + 100 * band; });
    PottsWS& ws = *b.ws;
    paint(ws, stripes(4, {10, 10, 10, 11, 11, 11}));
    int labels[2] = {10, 11};
    PottsWS** children = nullptr;
    EXPECT_EQ(ws.split(labels, 2, children, true), 2);
    // Pairs across the border: 2 partners in rows 0 and 3, 3 in rows 1 and 2;
    // 10 pairs, each seen from both sides, halved.
    EXPECT_EQ(ws.edges, 10);
    for (int j = 0; j < 2; ++j) {
        PottsWS& ch = *children[j];
        EXPECT_EQ(ch.root->label, labels[j]);
        EXPECT_EQ(ch.root->area, 12);
        EXPECT_EQ(ch.loadedCount, 12);
        EXPECT_EQ(ch.fromRoi, 1);
        EXPECT_EQ(ch.root->map, ws.root->map);  // the shared label map
        for (int q = 0; q < 12; ++q) {
            const int r = q / 3, c = 3 * j + q % 3;
            ASSERT_EQ(ch.coords[q].x, r);
            ASSERT_EQ(ch.coords[q].y, c);
            EXPECT_EQ(ch.pixelIndex[q], r * 6 + c);
            EXPECT_EQ(ch.data[q * 2 + 1], 10 * r + c + 100);
            // Marked: pixels with a neighbour of another label (frame included).
            const bool inner = (r == 1 || r == 2) && (c == 1 || c == 4);
            EXPECT_EQ(ch.coords[q].aux, inner ? 0 : 1) << r << "," << c;
        }
        EXPECT_EQ(ch.root->contourCount, 10);
        ASSERT_EQ(ch.root->runCount, 4);  // one run per row, from the region
        EXPECT_EQ(ch.root->runs[3].row, 3);
        EXPECT_EQ(ch.root->runs[3].col, 3 * j);
        EXPECT_EQ(ch.root->runs[3].len, 3);
        EXPECT_EQ(ch.root->minCol, 3 * j);
        EXPECT_EQ(ch.root->maxRow, 3);
        EXPECT_DOUBLE_EQ(ch.mi[0], 15.0 + 3 * j + 1);
        EXPECT_DOUBLE_EQ(ch.sigma[0][0], 100 * 1.25 + 2.0 / 3.0);  // rows 0..3 and 3 columns
        // The parent's border list is shared out by label.
        for (int e = 0; e < ch.root->borderCount; ++e)
            EXPECT_EQ(ch.root->map[ch.root->border[e].x + 1][ch.root->border[e].y + 1], labels[j]);
    }
    EXPECT_EQ(children[0]->root->borderCount + children[1]->root->borderCount, ws.root->borderCount);
    freeChildren(children, 2);
}

TEST(PottsWSSplitTest, EmptyLabelMakesAnUncountedChildAndUncoveredPixelsMakeTheResultNegative) {
    auto b = makeWS(3, 4, 1, [](int r, int c, int) { return r + c; });
    PottsWS& ws = *b.ws;
    paint(ws, stripes(3, {10, 10, 11, 11}));
    int labels[3] = {10, 12, 11};
    PottsWS** children = nullptr;
    EXPECT_EQ(ws.split(labels, 3, children, true), 2);
    EXPECT_EQ(children[1]->root->area, 0);
    EXPECT_EQ(children[1]->envelopeCount, 0);
    EXPECT_EQ(children[1]->coords, nullptr);
    EXPECT_EQ(children[1]->pixelIndex, nullptr);
    EXPECT_EQ(children[1]->root->label, 12);
    EXPECT_EQ(children[2]->root->area, 6);
    freeChildren(children, 3);

    int only[1] = {11};
    EXPECT_EQ(ws.split(only, 1, children, true), -1);
    EXPECT_EQ(children[0]->root->area, 6);
    freeChildren(children, 1);

    // No label at all: no child, every pixel uncovered.
    EXPECT_EQ(ws.split(nullptr, 0, children, true), 0);
    EXPECT_EQ(ws.edges, 0);
    delete[] children;
}

TEST(PottsWSSplitTest, FewChildrenCountOnlyChildLabels) {
    // Stripes 10 | 11 | 12 | 13, children 10, 11, 13: only the 10|11 border
    // counts, 7 contacts from each side; 14 / 2 = 7.  Then 12 as a child too
    // makes the 11|12 and 12|13 borders count as well: 42 / 2 = 21.
    auto b = makeWS(3, 4, 1, [](int, int c, int) { return c; });
    PottsWS& ws = *b.ws;
    paint(ws, stripes(3, {10, 11, 12, 13}));
    int some[3] = {10, 11, 13};
    PottsWS** children = nullptr;
    EXPECT_EQ(ws.split(some, 3, children, true), -3);
    EXPECT_EQ(ws.edges, 7);
    freeChildren(children, 3);
    int all[4] = {10, 11, 12, 13};
    EXPECT_EQ(ws.split(all, 4, children, true), 4);
    EXPECT_EQ(ws.edges, 21);
    freeChildren(children, 4);
}

TEST(PottsWSSplitTest, NineChildrenUseTheLabelRange) {
    // Ten one-column stripes 20..29; 28 is not a child, but lies in [20, 29]:
    // the range test counts it as a neighbour.  Each border seen from one side
    // gives 2 + 3 + 2 = 7 contacts: column 20 and column 29 one side each,
    // columns 21..27 both sides: 7 + 7 * 14 + 7 = 112, halved 56.  (A per-label
    // count would give 49.)
    auto b = makeWS(3, 10, 1, [](int r, int c, int) { return r * c; });
    PottsWS& ws = *b.ws;
    paint(ws, stripes(3, {20, 21, 22, 23, 24, 25, 26, 27, 28, 29}));
    int labels[9] = {20, 21, 22, 23, 24, 25, 26, 27, 29};
    PottsWS** children = nullptr;
    EXPECT_EQ(ws.split(labels, 9, children, true), -9);
    EXPECT_EQ(ws.edges, 56);
    freeChildren(children, 9);
}

TEST(PottsWSSplitTest, WithoutStatisticsChildrenGetZeroStatisticsAndNoValues) {
    auto b = makeWS(2, 4, 2, [](int r, int c, int band) { return r + c + band; });
    PottsWS& ws = *b.ws;
    paint(ws, stripes(2, {10, 10, 11, 11}));
    int labels[2] = {10, 11};
    PottsWS** children = nullptr;
    EXPECT_EQ(ws.split(labels, 2, children, false), 2);
    for (int j = 0; j < 2; ++j) {
        ASSERT_NE(children[j]->mi, nullptr);
        ASSERT_NE(children[j]->sigma, nullptr);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(children[j]->mi[i], 0.0);
            EXPECT_EQ(children[j]->sigma[i][0], 0.0);
            EXPECT_EQ(children[j]->sigma[i][1], 0.0);
        }
        EXPECT_EQ(children[j]->data, nullptr);
        EXPECT_EQ(children[j]->root->area, 4);
    }
    freeChildren(children, 2);
}

TEST(PottsWSSplitTest, GrandchildrenKeepRootIndices) {
    auto b = makeWS(4, 4, 1, [](int r, int c, int) { return 100 + 4 * r + c; });
    PottsWS& ws = *b.ws;
    paint(ws, stripes(4, {10, 10, 11, 11}));
    int labels[2] = {10, 11};
    PottsWS** children = nullptr;
    ASSERT_EQ(ws.split(labels, 2, children, true), 2);
    PottsWS& right = *children[1];
    // Split the right half into top and bottom.
    for (int r = 0; r < 4; ++r)
        for (int c = 2; c < 4; ++c) right.root->setPixel(r, c, r < 2 ? 20 : 21);
    int sub[2] = {20, 21};
    PottsWS** grand = nullptr;
    ASSERT_EQ(right.split(sub, 2, grand, true), 2);
    // Across the row 1 | row 2 border of the two columns: each pixel touches
    // two of the other part (the third neighbour is the left half or the
    // frame), 4 contacts per side, 8 / 2.
    EXPECT_EQ(right.edges, 4);
    // Bottom-right quarter: root pixels (2, 2), (2, 3), (3, 2), (3, 3).
    const int expected[4] = {10, 11, 14, 15};
    for (int q = 0; q < 4; ++q) {
        EXPECT_EQ(grand[1]->pixelIndex[q], expected[q]);
        EXPECT_EQ(grand[1]->data[q], 100 + expected[q]);
    }
    EXPECT_DOUBLE_EQ(grand[1]->mi[0], 100 + 12.5);
    freeChildren(grand, 2);
    freeChildren(children, 2);
}

TEST(PottsWSSplitTest, ChildrenOfAFileImageReadTheirValuesFromTheFile) {
    const std::string file = "/tmp/dhc_ws_split_" + std::to_string(getpid()) + ".hraw";
    int*** cube = ImageFile<int>::newCube(2, 3, 4);
    for (int b = 0; b < 2; ++b)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c) cube[b][r][c] = 1000 * b + 10 * r + c;
    ImageFile<int>::writeHRawInt32(file, cube, 2, 3, 4);
    ImageFile<int>::deleteCube(cube, 2, 3);
    {
        // Half the pixels loaded: the children cannot copy, they read the file.
        PottsWS ws(false, 50.0f, file, wstest::kPad, wstest::kBorder, wstest::kRoot);
        ASSERT_EQ(ws.loadedCount, 6);
        paint(ws, stripes(3, {10, 11, 11, 11}));
        int labels[2] = {10, 11};
        PottsWS** children = nullptr;
        ASSERT_EQ(ws.split(labels, 2, children, true), 2);
        PottsWS& right = *children[1];
        EXPECT_EQ(right.hrawFileName, file);
        EXPECT_EQ(right.fromRoi, 0);
        ASSERT_EQ(right.loadedCount, 9);
        for (int q = 0; q < 9; ++q) {
            const int r = right.coords[q].x, c = right.coords[q].y;
            EXPECT_EQ(c, 1 + q % 3);
            EXPECT_EQ(right.data[2 * q], 10 * r + c);
            EXPECT_EQ(right.data[2 * q + 1], 1000 + 10 * r + c);
        }
        EXPECT_DOUBLE_EQ(right.mi[0], 10 + 2);
        freeChildren(children, 2);
    }
    std::remove(file.c_str());
}

TEST(PottsWSSplitTest, MaximumLikelihoodCompletion) {
    // One band.  Class 1 is labelled at values 0 and 2 (mean 1, variance 1),
    // class 2 at 100 and 102 (mean 101, variance 1); 0 marks unlabelled pixels.
    // Class 3 has one pixel: its covariance is singular and it drops out.
    const std::vector<int> values{0, 2, 100, 102, 1, 101, 3, 99, 51, 60};
    const std::vector<int> labels{1, 1, 2, 2, 0, 0, 0, 0, 0, 3};
    auto b = makeWS(1, 10, 1, [&](int, int c, int) { return values[c]; });
    PottsWS& ws = *b.ws;
    paint(ws, {labels});
    double m0[1], m1[1], m2[1];
    double* means[3] = {m0, m1, m2};
    double c0 = 0, c1 = 0, c2 = 0;
    double* r0[1] = {&c0};
    double* r1[1] = {&c1};
    double* r2[1] = {&c2};
    double** covs[3] = {r0, r1, r2};
    ws.MLMapCompletion(means, covs);
    // Score = log|var| + (x - mean)^2 / var; 51 is equidistant: the first class wins.
    const std::vector<int> expected{1, 1, 2, 2, 1, 2, 1, 2, 1, 2};
    for (int c = 0; c < 10; ++c) EXPECT_EQ(ws.root->map[1][c + 1], expected[c]) << "pixel " << c;
    EXPECT_DOUBLE_EQ(m0[0], 1.0);
    EXPECT_DOUBLE_EQ(m1[0], 101.0);
    EXPECT_DOUBLE_EQ(m2[0], 60.0);
    EXPECT_DOUBLE_EQ(c0, 1.0);
    EXPECT_DOUBLE_EQ(c1, 1.0);
    EXPECT_DOUBLE_EQ(c2, 0.0);  // no repair of a degenerate class here
}

TEST(PottsWSSplitTest, CompletionWithoutEligibleClassWritesZero) {
    auto b = makeWS(1, 3, 1, [](int, int c, int) { return 5 + c; });
    PottsWS& ws = *b.ws;
    paint(ws, {{0, 4, 0}});  // a single labelled pixel: singular class
    ws.MLMapCompletion(nullptr, nullptr);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(ws.root->map[1][c + 1], 0);
}

}  // namespace
