#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "workspace/PottsWS.h"
#include "workspace/WorkspaceFixtures.h"

namespace {

using namespace wstest;

TEST(PottsWSSplitTest, TwoHalvesAlongAStraightBorder) {
    auto b = makeWS(4, 6, 2, [](int r, int c, int band) { return 10 * r + c + 100 * band; });
    PottsWS& ws = *b.ws;
    paint(ws, std::vector<std::vector<int>>(4, {10, 10, 10, 11, 11, 11}));
    int labels[2] = {10, 11};
    PottsWS** children = nullptr;
    EXPECT_EQ(ws.split(labels, 2, children, true), 2);
    // Pairs across the border: 2 partners in rows 0 and 3, 3 in rows 1 and 2;
    // 10 pairs, each seen from both sides, halved.
    EXPECT_EQ(ws.edges, 10);
    for (int j = 0; j < 2; ++j) {
        PottsWS& ch = *children[j];
        ASSERT_EQ(ch.loadedCount, 12);
        EXPECT_DOUBLE_EQ(ch.mi[1], 100 + 15 + 3 * j + 1);          // mean row 1.5, mean column 3j + 1
        EXPECT_DOUBLE_EQ(ch.sigma[0][0], 100 * 1.25 + 2.0 / 3.0);  // rows 0..3 and 3 columns
        for (int q = 0; q < 12; ++q) {
            const int r = ch.coords[q].x, c = ch.coords[q].y;
            EXPECT_EQ(ch.pixelIndex[q], r * 6 + c);
            // Marked: pixels with a neighbour of another label (frame included).
            const bool inner = (r == 1 || r == 2) && (c == 1 || c == 4);
            EXPECT_EQ(ch.coords[q].aux, inner ? 0 : 1) << r << "," << c;
        }
        // The parent's border list is shared out by label.
        for (int e = 0; e < ch.root->borderCount; ++e)
            EXPECT_EQ(ch.root->map[ch.root->border[e].x + 1][ch.root->border[e].y + 1], labels[j]);
    }
    EXPECT_EQ(children[0]->root->borderCount + children[1]->root->borderCount, ws.root->borderCount);
    freeChildren(children, 2);
}

TEST(PottsWSSplitTest, ResultCountsNonEmptyChildrenAndEdgesCountPairsAcrossChildren) {
    struct Case {
        std::vector<int> columns, children;
        int result, edges;
    };
    // Three-row stripes.  One border column pair gives 2 + 3 + 2 = 7 contacts
    // per side: 14 / 2 = 7 per border between two children.  From 9 children
    // on, a neighbour whose label lies in the children's label range counts
    // even when it is no child: label 28 below, so 16 one-sided borders of 7
    // contacts make 56 (a per-label count would give 49).
    const std::vector<int> ten{20, 21, 22, 23, 24, 25, 26, 27, 28, 29};
    const Case cases[] = {
        {{10, 10, 11, 11}, {10, 12, 11}, 2, 7},   // 12 has no pixel: area 0, not counted
        {{10, 10, 11, 11}, {11}, -1, 0},          // uncovered pixels make the result negative
        {{10, 11, 12, 13}, {10, 11, 13}, -3, 7},  // only the 10 | 11 border
        {ten, {20, 21, 22, 23, 24, 25, 26, 27, 29}, -9, 56},
    };
    for (const Case& t : cases) {
        SCOPED_TRACE(::testing::PrintToString(t.children));
        auto b = makeWS(3, static_cast<int>(t.columns.size()), 1, [](int r, int c, int) { return r * c; });
        paint(*b.ws, std::vector<std::vector<int>>(3, t.columns));
        std::vector<int> labels = t.children;
        const int n = static_cast<int>(labels.size());
        PottsWS** children = nullptr;
        EXPECT_EQ(b.ws->split(labels.data(), n, children, true), t.result);
        EXPECT_EQ(b.ws->edges, t.edges);
        for (int j = 0; j < n; ++j) {
            const int area = 3 * static_cast<int>(std::count(t.columns.begin(), t.columns.end(), labels[j]));
            EXPECT_EQ(children[j]->root->area, area);
            EXPECT_EQ(children[j]->envelopeCount, area);
        }
        freeChildren(children, n);
    }
}

TEST(PottsWSSplitTest, MaximumLikelihoodCompletion) {
    // One band.  Class 1 is labelled at values 0 and 2 (mean 1, variance 1),
    // class 2 at 100 and 102 (mean 101, variance 1); 0 marks unlabelled pixels.
    // Class 3 has one pixel: its covariance is singular and it drops out.
    const std::vector<int> values{0, 2, 100, 102, 1, 101, 3, 99, 51, 60};
    auto b = makeWS(1, 10, 1, [&](int, int c, int) { return values[c]; });
    PottsWS& ws = *b.ws;
    paint(ws, {{1, 1, 2, 2, 0, 0, 0, 0, 0, 3}});
    double m[3];
    double* means[3] = {&m[0], &m[1], &m[2]};
    ws.MLMapCompletion(means, nullptr);
    // Score = log|var| + (x - mean)^2 / var; 51 is equidistant: the first class
    // wins.  Repairing class 3's covariance would have given it pixel 9.
    const std::vector<int> expected{1, 1, 2, 2, 1, 2, 1, 2, 1, 2};
    for (int c = 0; c < 10; ++c) EXPECT_EQ(mapLabel(ws, 0, c), expected[c]) << "pixel " << c;
    EXPECT_DOUBLE_EQ(m[1], 101.0);
    EXPECT_DOUBLE_EQ(m[2], 60.0);
}

TEST(PottsWSSplitTest, ChildrenLeftInTheParentsListMatchCopiedChildrenAndGetTheSameValuesLater) {
    // Three irregular labels and a patch of no child; the same split once
    // with copies and once leaving the values with the parent.
    auto value = [](int r, int c, int b) { return (r * 7919 + c * 104729 + b * 31) % 2001 - 1000; };
    auto copied = makeWS(30, 40, 3, value);
    auto left = makeWS(30, 40, 3, value);
    std::vector<std::vector<int>> grid(30, std::vector<int>(40));
    for (int r = 0; r < 30; ++r)
        for (int c = 0; c < 40; ++c) grid[r][c] = (r * r + 3 * c) % 7 < 3 ? 10 : (c < 25 ? 11 : 12);
    grid[5][5] = grid[5][6] = 13;
    paint(*copied.ws, grid);
    paint(*left.ws, grid);
    int labels[3] = {10, 11, 12};
    PottsWS** a = nullptr;
    PottsWS** b = nullptr;
    EXPECT_EQ(copied.ws->split(labels, 3, a, true), -3);
    EXPECT_EQ(left.ws->split(labels, 3, b, true, true), -3);
    const int* parentValues = left.ws->data;
    for (int j = 0; j < 3; ++j) {
        a[j]->updateFeatures();
        b[j]->updateFeatures();
        EXPECT_TRUE(b[j]->valuesWithParent);
        EXPECT_EQ(b[j]->data, nullptr);
        EXPECT_EQ(b[j]->loadedCount, 0);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(b[j]->mi[i], a[j]->mi[i]);
            for (int k = 0; k < 3; ++k) EXPECT_EQ(b[j]->sigma[i][k], a[j]->sigma[i][k]);
        }
        EXPECT_EQ(b[j]->sqDeviation, a[j]->sqDeviation);
        EXPECT_EQ(b[j]->likelihoodEnergy, a[j]->likelihoodEnergy);
    }

    left.ws->handValuesToChildren(b, 3);
    left.ws->releasePixels();
    int largest = 0;
    for (int j = 1; j < 3; ++j)
        if (a[j]->loadedCount > a[largest]->loadedCount) largest = j;
    EXPECT_EQ(b[largest]->data, parentValues) << "the largest child's range starts the list";
    for (int j = 0; j < 3; ++j) {
        EXPECT_FALSE(b[j]->valuesWithParent);
        EXPECT_EQ(b[j]->sharedValues.get(), parentValues);
        ASSERT_EQ(b[j]->loadedCount, a[j]->loadedCount);
        EXPECT_TRUE(std::equal(a[j]->data, a[j]->data + a[j]->loadedCount * 3, b[j]->data)) << j;
        // The values are the children's own now: their statistics read them.
        b[j]->updateMi();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(b[j]->mi[i], a[j]->mi[i]);
    }
    freeChildren(a, 3);
    freeChildren(b, 3);
}

}  // namespace
