#include "workspace/PottsWS.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "workspace/WorkspaceFixtures.h"

namespace {

using namespace wstest;

TEST(PottsWSStatsTest, ConstantOrEmptyWorkspaceGetsTheIdentity) {
    // Constant pixels: the covariance, by whole workspace or by label, is repaired
    // to the identity so that it can still be inverted.
    auto flat = makeWS(3, 3, 3, [](int, int, int band) { return 7 * (band + 1); });
    double** byLabel = flat.ws->getSigma(kRoot);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            EXPECT_EQ(flat.ws->sigma[i][j], i == j ? 1.0 : 0.0);
            EXPECT_EQ(byLabel[i][j], i == j ? 1.0 : 0.0);
        }
    freeMatrix(byLabel, 3);

    // No pixels: zero mean, identity covariance; no bands: nothing allocated.
    PottsWS empty;
    EXPECT_EQ(empty.sigma, nullptr);
    empty.bands = 2;
    empty.init();
    empty.mi[0] = 5.0;
    empty.updateMi();
    empty.updateSigma();
    EXPECT_EQ(empty.mi[0], 0.0);
    EXPECT_EQ(empty.sigma[1][1], 1.0);
    EXPECT_EQ(empty.sigma[0][1], 0.0);
}

TEST(PottsWSStatsTest, LabelCovarianceWrapsThirtyTwoBitProducts) {
    auto b = makeWS(1, 2, 1, [](int, int c, int) { return c == 0 ? 50000 : 60000; });
    EXPECT_DOUBLE_EQ(b.ws->sigma[0][0], 25000000.0);  // exact: ((60000 - 50000) / 2)^2
    // 50000^2 wraps to 2.5e9 - 2^32 = -1794967296, 60000^2 to -694967296;
    // their mean -1244967296 minus 55000^2 = 3.025e9 gives -4269967296.
    double** s = b.ws->getSigma(kRoot);
    EXPECT_DOUBLE_EQ(s[0][0], -4269967296.0);
    freeMatrix(s, 1);
    int count = 0, label = kRoot;
    double** cov = newMatrix(1, 1);
    b.ws->getSigma(1, &label, &count, &cov);
    EXPECT_EQ(count, 2);
    EXPECT_DOUBLE_EQ(cov[0][0], -4269967296.0);
    freeMatrix(cov, 1);
}

TEST(PottsWSStatsTest, LabelStatisticsAndEmptyLabels) {
    // Band 0 = 3r + c, band 1 = 10 - 2 * band 0.  Label 6 holds band 0 values
    // 2, 3, 4: mean (3, 4), variances 2/3 and 8/3, cross term -4/3.
    auto b = makeWS(2, 3, 2, [](int r, int c, int band) { return band ? 10 - 2 * (3 * r + c) : 3 * r + c; });
    PottsWS& ws = *b.ws;
    paint(ws, {{5, 5, 6}, {6, 6, 9}});
    int labels[3] = {6, 5, 6};
    int areas[3], counts[3];
    ws.getAreas(3, labels, areas);
    EXPECT_EQ(std::vector<int>(areas, areas + 3), (std::vector<int>{3, 2, 0}));  // 9 is not asked for
    double rows[3][2];
    double* means[3] = {rows[0], rows[1], rows[2]};
    ws.getMi(3, labels, counts, means);
    EXPECT_EQ(std::vector<int>(counts, counts + 3), (std::vector<int>{3, 2, 0}));
    EXPECT_DOUBLE_EQ(rows[0][1], 4.0);
    EXPECT_DOUBLE_EQ(rows[1][0], 0.5);
    EXPECT_EQ(rows[2][0], 0.0);
    double** covs[3] = {newMatrix(2, 2), newMatrix(2, 2), newMatrix(2, 2)};
    covs[2][0][1] = 5.0;  // results replace whatever the caller's storage held
    ws.getSigma(3, labels, counts, covs);
    double** single = ws.getSigma(6);
    const double expected[2][2] = {{2.0 / 3.0, -4.0 / 3.0}, {-4.0 / 3.0, 8.0 / 3.0}};
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j) {
            EXPECT_NEAR(covs[0][i][j], expected[i][j], 1e-12);
            EXPECT_NEAR(single[i][j], expected[i][j], 1e-12);
        }
    // The second 6 has no pixel left: zeros and the identity in the several-label
    // forms, but NaN in the single-label forms for a label without pixels.
    EXPECT_EQ(counts[2], 0);
    EXPECT_EQ(covs[2][0][0], 1.0);
    EXPECT_EQ(covs[2][0][1], 0.0);
    for (auto* c : covs) freeMatrix(c, 2);
    freeMatrix(single, 2);
    double* absentMean = ws.getMi(42);
    double** absentCov = ws.getSigma(42);
    EXPECT_TRUE(std::isnan(absentMean[1]));
    EXPECT_TRUE(std::isnan(absentCov[1][0]));
    delete[] absentMean;
    freeMatrix(absentCov, 2);
}

TEST(PottsWSStatsTest, ClassArrayFormsMatchTheMapForms) {
    // A class array that agrees with the map (first matching label) gives the
    // very same bits as the map forms; a pixel outside every class (-1) is skipped.
    auto b = makeWS(3, 4, 3, [](int r, int c, int band) { return (7 * r + 3 * c) * (band + 1) + r * c * band; });
    PottsWS& ws = *b.ws;
    paint(ws, {{5, 5, 6, 9}, {6, 8, 8, 5}, {9, 6, 5, 8}});
    int labels[4] = {6, 5, 8, 6};
    std::vector<int> classOf(ws.loadedCount);
    for (int p = 0; p < ws.loadedCount; ++p) {
        const int l = mapLabel(ws, ws.coords[p].x, ws.coords[p].y);
        classOf[p] = l == 6 ? 0 : l == 5 ? 1 : l == 8 ? 2 : -1;
    }
    int byMap[4], byClass[4];
    double** meansMap = newMatrix(4, 3);
    double** meansClass = newMatrix(4, 3);
    ws.getMi(4, labels, byMap, meansMap);
    ws.getMiOfClasses(4, classOf.data(), byClass, meansClass);
    EXPECT_EQ(std::vector<int>(byClass, byClass + 4), (std::vector<int>{3, 4, 3, 0}));
    EXPECT_EQ(std::vector<int>(byMap, byMap + 4), std::vector<int>(byClass, byClass + 4));
    for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 3; ++i) EXPECT_EQ(meansMap[j][i], meansClass[j][i]) << j << " " << i;
    // Label 6 holds pixels (0,2), (1,0), (2,1): band 0 values 6, 7, 17.
    EXPECT_DOUBLE_EQ(meansClass[0][0], 10.0);
    for (int j = 0; j < 3; ++j) {
        double** sMap = newMatrix(3, 3);
        double** sClass = newMatrix(3, 3);
        ws.getSigma(labels[j], sMap);
        ws.getSigmaOfClass(j, classOf.data(), sClass);
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) EXPECT_EQ(sMap[r][c], sClass[r][c]) << j << " " << r << " " << c;
        freeMatrix(sMap, 3);
        freeMatrix(sClass, 3);
    }
    // The array alone decides: everything in class 1 gives the whole-workspace mean.
    std::fill(classOf.begin(), classOf.end(), 1);
    ws.getMiOfClasses(2, classOf.data(), byClass, meansClass);
    EXPECT_EQ(byClass[0], 0);
    EXPECT_EQ(byClass[1], 12);
    for (int i = 0; i < 3; ++i) EXPECT_DOUBLE_EQ(meansClass[1][i], ws.mi[i]);
    freeMatrix(meansMap, 4);
    freeMatrix(meansClass, 4);
}

TEST(PottsWSStatsTest, FeaturesFromMeanAndCovariance) {
    // Corners of a square around (1, 1): identity covariance, Mahalanobis 2 per pixel.
    auto b = makeWS(2, 2, 2, [](int r, int c, int band) { return 2 * (band ? c : r); });
    b.ws->updateFeatures();
    EXPECT_DOUBLE_EQ(b.ws->sqDeviation, 8.0);
    EXPECT_DOUBLE_EQ(b.ws->likelihoodEnergy, 4.0);
    // A singular covariance leaves the energy at 0; the deviation is still summed.
    auto s = makeWS(1, 2, 2, [](int, int c, int band) { return c == 0 ? (band ? 2 : 1) : (band ? 6 : 3); });
    s.ws->likelihoodEnergy = 123.0;
    s.ws->updateFeatures();
    EXPECT_DOUBLE_EQ(s.ws->sqDeviation, 10.0);
    EXPECT_EQ(s.ws->likelihoodEnergy, 0.0);
}

}  // namespace
