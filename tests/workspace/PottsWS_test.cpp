#include "workspace/PottsWS.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <vector>

#include "settings/Workers.h"
#include "workspace/WorkspaceFixtures.h"

namespace {

using namespace wstest;

TEST(PottsWSStatsTest, IdentityForConstantPixels) {
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
}

// Every form of the label covariance: one label, several labels, class array.
std::vector<double> labelCovariances(PottsWS& ws, int d) {
    std::vector<double> out;
    double** s = ws.getSigma(kRoot);
    int count = 0, label = kRoot;
    double** several = dhc::newRows<double>(d, d);
    ws.getSigma(1, &label, &count, &several);
    double** byClass = dhc::newRows<double>(d, d);
    std::vector<int> classOf(static_cast<size_t>(count), 0);
    ws.getSigmaOfClass(0, classOf.data(), byClass);
    for (double** m : {s, several, byClass}) {
        for (int i = 0; i < d; ++i) out.insert(out.end(), m[i], m[i] + d);
        dhc::deleteRows(m, d);
    }
    return out;
}

TEST(PottsWSStatsTest, LabelProductsAreExactForSixteenBitAndNearLimitValues) {
    // 16-bit digital numbers: squares up to 65535^2 leave the 32-bit range.
    // Two pixels 0 and 65535 in band 0, 65535 and 1 in band 1: variances
    // (65535/2)^2 and (65534/2)^2, covariance -(65535/2)(65534/2), all exact in double.
    auto b =
        makeWS(1, 2, 2, [](int, int c, int band) { return band == 0 ? (c ? 65535 : 0) : (c ? 1 : 65535); });
    const double v0 = 32767.5 * 32767.5, v1 = 32767.0 * 32767.0, c01 = -32767.5 * 32767.0;
    const std::vector<double> sixteen = labelCovariances(*b.ws, 2);
    for (size_t f = 0; f < 3; ++f) {
        EXPECT_EQ(sixteen[4 * f + 0], v0);
        EXPECT_EQ(sixteen[4 * f + 1], c01);
        EXPECT_EQ(sixteen[4 * f + 2], c01);
        EXPECT_EQ(sixteen[4 * f + 3], v1);
    }
    EXPECT_EQ(b.ws->sigma[0][0], v0);  // the whole-workspace form agrees

    // The ends of the int32 range: mean 0 and variance (2^31 - 1)^2 within the
    // rounding of double (a wrapped square would give 1).
    auto edge = makeWS(2, 2, 1, [](int r, int c, int) { return (r + c) % 2 ? INT32_MAX : -INT32_MAX; });
    const double big = static_cast<double>(INT32_MAX) * INT32_MAX;
    for (double v : labelCovariances(*edge.ws, 1)) EXPECT_NEAR(v / big, 1.0, 1e-15);

    // 256 near-limit squares sum past 2^63: the sums must not wrap.  The true
    // variance is about 4/256; what is left after the cancellation of E[x^2] and
    // the squared mean is double rounding, far below the square of the values.
    auto many =
        makeWS(16, 16, 1, [](int r, int c, int) { return r == 0 && c == 0 ? INT32_MAX - 2 : INT32_MAX; });
    for (double v : labelCovariances(*many.ws, 1)) {
        EXPECT_TRUE(std::isfinite(v));
        EXPECT_LT(std::fabs(v), 1e-6 * big);
    }
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
    // The class array read from the map is that one, and the several-class
    // covariance form gives the several-label form's bits (identity when empty).
    int read[6];
    ws.classesOf(3, labels, read);
    EXPECT_EQ(std::vector<int>(read, read + 6), std::vector<int>(classOf, classOf + 6));
    double** classCovs[3] = {dhc::newRows<double>(2, 2), dhc::newRows<double>(2, 2),
                             dhc::newRows<double>(2, 2)};
    int covCounts[3];
    ws.getSigmaOfClasses(3, classOf, covCounts, classCovs);
    EXPECT_EQ(std::vector<int>(covCounts, covCounts + 3), (std::vector<int>{3, 2, 0}));
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i < 2; ++i)
            for (int l = 0; l < 2; ++l) EXPECT_EQ(classCovs[j][i][l], covs[j][i][l]) << j;
    for (auto* c : classCovs) dhc::deleteRows(c, 2);
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

TEST(PottsWSStatsTest, AskingAgainAfterTheInputsChangedRecomputes) {
    // Asked twice with nothing changed, the statistics are those of the first
    // time; once mi, sigma or the features are written from outside, the next
    // request gives what a fresh computation from the new inputs gives.
    auto b = makeWS(3, 4, 2, [](int r, int c, int band) { return (band + 1) * (r * 5 + c * c); });
    auto fresh = makeWS(3, 4, 2, [](int r, int c, int band) { return (band + 1) * (r * 5 + c * c); });
    auto sigmaOf = [](PottsWS& ws) {
        return std::vector<double>{ws.sigma[0][0], ws.sigma[0][1], ws.sigma[1][1]};
    };
    b.ws->updateSigma();
    b.ws->updateFeatures();
    const std::vector<double> sigma = sigmaOf(*b.ws);
    const double energy = b.ws->likelihoodEnergy;
    b.ws->updateSigma();
    b.ws->updateFeatures();
    EXPECT_EQ(sigmaOf(*b.ws), sigma);
    EXPECT_EQ(b.ws->likelihoodEnergy, energy);

    double shifted[2] = {b.ws->mi[0] + 1.0, b.ws->mi[1] - 2.0};
    b.ws->setMi(shifted);
    fresh.ws->setMi(shifted);
    b.ws->updateSigma();
    fresh.ws->updateSigma();
    EXPECT_EQ(sigmaOf(*b.ws), sigmaOf(*fresh.ws));
    EXPECT_NE(sigmaOf(*b.ws), sigma);

    b.ws->sigma[0][0] = 1e6;  // mi unchanged: the covariance is computed again
    b.ws->updateSigma();
    EXPECT_EQ(sigmaOf(*b.ws), sigmaOf(*fresh.ws));

    b.ws->updateFeatures();
    fresh.ws->updateFeatures();
    EXPECT_EQ(b.ws->likelihoodEnergy, fresh.ws->likelihoodEnergy);
    b.ws->likelihoodEnergy = 0.0;
    b.ws->sqDeviation = 0.0;
    b.ws->updateFeatures();
    EXPECT_EQ(b.ws->likelihoodEnergy, fresh.ws->likelihoodEnergy);
    EXPECT_EQ(b.ws->sqDeviation, fresh.ws->sqDeviation);
    EXPECT_GT(b.ws->sqDeviation, 0.0);
}

}  // namespace

namespace {

// The whole-workspace and label statistics as plain double sums in pixel
// order, the arithmetic the integer sums must reproduce bit for bit.
struct Plain {
    std::vector<double> mean, products;
    explicit Plain(const PottsWS& ws) : mean(ws.bands, 0.0), products(ws.bands * ws.bands, 0.0) {
        const int d = ws.bands;
        for (int p = 0; p < ws.loadedCount; ++p) {
            const int* x = ws.data + static_cast<size_t>(p) * d;
            for (int i = 0; i < d; ++i) {
                mean[i] += static_cast<double>(x[i]);
                for (int j = i; j < d; ++j) products[i * d + j] += static_cast<double>(x[i]) * x[j];
            }
        }
        for (int i = 0; i < d; ++i) mean[i] /= ws.loadedCount;
    }
};

}  // namespace

TEST(PottsWSStatsTest, StatisticsCutAmongThreadsEqualPlainDoubleSums) {
    // 200 x 200 (above the size cut among threads): ordinary values, values
    // whose squares summed in double are no longer exact, and int32 extremes.
    for (int scale : {1, 4000, 1 << 20}) {
        auto built = makeWS(200, 200, 3, [scale](int r, int c, int b) {
            const int64_t v = (static_cast<int64_t>(r) * 7919 + c * 104729 + b * 31) % 2001 - 1000;
            return static_cast<int>(std::max<int64_t>(std::min<int64_t>(v * scale, INT32_MAX), -INT32_MAX));
        });
        PottsWS& ws = *built.ws;
        const Plain plain(ws);
        std::vector<double> mi(ws.mi, ws.mi + 3), sigma;
        for (int i = 0; i < 3; ++i) sigma.insert(sigma.end(), ws.sigma[i], ws.sigma[i] + 3);
        const std::vector<double> byLabel = labelCovariances(ws, 3);
        dhc::Workers team(2);
        dhc::UseWorkers use(team);
        ws.updateMi();
        ws.updateSigma();
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(ws.mi[i], mi[i]) << scale;
            EXPECT_EQ(ws.mi[i], plain.mean[i]) << scale;
            for (int j = 0; j < 3; ++j) {
                EXPECT_EQ(ws.sigma[i][j], sigma[3 * i + j]) << scale;
                const double s = plain.products[std::min(i, j) * 3 + std::max(i, j)] / ws.loadedCount -
                                 plain.mean[i] * plain.mean[j];
                if (std::fabs(s) >= 0.01 || i != j) {
                    EXPECT_EQ(ws.sigma[i][j], s) << scale << " " << i << j;
                }
            }
        }
        EXPECT_EQ(labelCovariances(ws, 3), byLabel) << scale;
    }
}
