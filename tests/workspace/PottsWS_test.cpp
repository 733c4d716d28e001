#include "workspace/PottsWS.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "workspace/WorkspaceFixtures.h"

namespace {

using namespace wstest;

TEST(PottsWSStatsTest, IdentityForConstantPixelsAndExactLabelProducts) {
    // Constant pixels: the covariance, by whole workspace or by label, is repaired
    // to the identity so that it can still be inverted.
    auto flat = makeWS(3, 3, 3, [](int, int, int band) { return 7 * (band + 1); });
    double** byLabel = flat.ws->getSigma(kRoot);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            EXPECT_EQ(flat.ws->sigma[i][j], i == j ? 1.0 : 0.0);
            EXPECT_EQ(byLabel[i][j], i == j ? 1.0 : 0.0);
        }
    dhc::deleteRows(byLabel, 3);

    // Squares past the 32-bit range (50000^2 would wrap) are exact by label as
    // for the whole workspace: ((60000 - 50000) / 2)^2.
    auto b = makeWS(1, 2, 1, [](int, int c, int) { return c == 0 ? 50000 : 60000; });
    EXPECT_DOUBLE_EQ(b.ws->sigma[0][0], 25000000.0);
    double** s = b.ws->getSigma(kRoot);
    EXPECT_DOUBLE_EQ(s[0][0], 25000000.0);
    int count = 0, label = kRoot;
    b.ws->getSigma(1, &label, &count, &s);
    EXPECT_DOUBLE_EQ(s[0][0], 25000000.0);
    dhc::deleteRows(s, 1);

    // Near the int32 limits, with a cross term of opposite signs: 2^31 - 1 and
    // -2^31 + 1 alternate with 0 and 2.
    auto big = makeWS(1, 2, 2, [](int, int c, int band) {
        return band == 0 ? (c == 0 ? 2147483647 : -2147483647) : 2 * c;
    });
    double** t = big.ws->getSigma(kRoot);
    EXPECT_DOUBLE_EQ(t[0][0], 2147483647.0 * 2147483647.0);
    EXPECT_DOUBLE_EQ(t[0][1], -2147483647.0);
    EXPECT_DOUBLE_EQ(t[1][1], 1.0);
    dhc::deleteRows(t, 2);
}

TEST(PottsWSStatsTest, LabelStatisticsAndEmptyLabels) {
    // Band 0 = 3r + c, band 1 = 10 - 2 * band 0.  Label 6 holds band 0 values
    // 2, 3, 4: mean (3, 4), variances 2/3 and 8/3, cross term -4/3.
    auto b = makeWS(2, 3, 2, [](int r, int c, int band) { return band ? 10 - 2 * (3 * r + c) : 3 * r + c; });
    PottsWS& ws = *b.ws;
    paint(ws, {{5, 5, 6}, {6, 6, 9}});
    int labels[3] = {6, 5, 6};  // the second 6 gets no pixel
    int counts[3];
    double** means = dhc::newRows<double>(3, 2);
    ws.getMi(3, labels, counts, means);
    EXPECT_EQ(std::vector<int>(counts, counts + 3), (std::vector<int>{3, 2, 0}));
    EXPECT_DOUBLE_EQ(means[0][1], 4.0);
    EXPECT_DOUBLE_EQ(means[1][0], 0.5);
    double** covs[3] = {dhc::newRows<double>(2, 2), dhc::newRows<double>(2, 2), dhc::newRows<double>(2, 2)};
    ws.getSigma(3, labels, counts, covs);
    double** single = ws.getSigma(6);
    const double expected[2][2] = {{2.0 / 3.0, -4.0 / 3.0}, {-4.0 / 3.0, 8.0 / 3.0}};
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j) {
            EXPECT_NEAR(covs[0][i][j], expected[i][j], 1e-12);
            EXPECT_NEAR(single[i][j], expected[i][j], 1e-12);
        }
    // An empty label: zeros and the identity in the several-label forms, but
    // NaN in the single-label forms.
    EXPECT_EQ(means[2][0], 0.0);
    EXPECT_EQ(covs[2][0][0], 1.0);
    EXPECT_EQ(covs[2][0][1], 0.0);
    double* absentMean = ws.getMi(42);
    double** absentCov = ws.getSigma(42);
    EXPECT_TRUE(std::isnan(absentMean[1]));
    EXPECT_TRUE(std::isnan(absentCov[1][0]));

    // The class-array forms (the clustering's fast path) give the same bits as
    // the map forms when the classes agree with the map (raster pixel order).
    const int classOf[6] = {1, 1, 0, 0, 0, -1};
    int classCounts[3];
    double** classMeans = dhc::newRows<double>(3, 2);
    double** classCov = dhc::newRows<double>(2, 2);
    ws.getMiOfClasses(3, classOf, classCounts, classMeans);
    ws.getSigmaOfClass(0, classOf, classCov);
    EXPECT_EQ(std::vector<int>(classCounts, classCounts + 3), (std::vector<int>{3, 2, 0}));
    for (int i = 0; i < 2; ++i) {
        for (int j = 0; j < 3; ++j) EXPECT_EQ(classMeans[j][i], means[j][i]);
        for (int j = 0; j < 2; ++j) EXPECT_EQ(classCov[i][j], single[i][j]);
    }

    for (auto* c : {covs[0], covs[1], covs[2], single, absentCov, classCov}) dhc::deleteRows(c, 2);
    dhc::deleteRows(means, 3);
    dhc::deleteRows(classMeans, 3);
    delete[] absentMean;
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
