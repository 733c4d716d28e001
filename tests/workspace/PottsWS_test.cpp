#include "workspace/PottsWS.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "stats/Mixture.h"
#include "workspace/WorkspaceFixtures.h"

namespace {

using wstest::freeMat;
using wstest::makeWS;
using wstest::newMat;
using wstest::paint;

TEST(PottsWSStatsTest, InitDefaults) {
    PottsWS empty;
    EXPECT_EQ(empty.mi, nullptr);  // no bands: nothing allocated
    EXPECT_EQ(empty.sigma, nullptr);
    EXPECT_EQ(empty.pixelIndex, nullptr);
    EXPECT_EQ(empty.splitState, 0);
    EXPECT_EQ(empty.primaryGain, -1.0);
    auto b = makeWS(2, 3, 2, [](int r, int c, int band) { return r + c + band; });
    ASSERT_NE(b.ws->mi, nullptr);
    EXPECT_EQ(b.ws->mi[1], 0.0);
    EXPECT_EQ(b.ws->sigma[1][0], 0.0);
    EXPECT_EQ(b.ws->root->area, 6);
}

TEST(PottsWSStatsTest, WholeWorkspaceMeanAndCovariance) {
    // Pixels (1, 2) and (3, 6): mean (2, 4), biased covariance [[1, 2], [2, 4]].
    auto b = makeWS(1, 2, 2, [](int, int c, int band) { return c == 0 ? (band ? 2 : 1) : (band ? 6 : 3); });
    PottsWS& ws = *b.ws;
    ws.updateMi();
    ws.updateSigma();
    EXPECT_DOUBLE_EQ(ws.mi[0], 2.0);
    EXPECT_DOUBLE_EQ(ws.mi[1], 4.0);
    EXPECT_DOUBLE_EQ(ws.sigma[0][0], 1.0);
    EXPECT_DOUBLE_EQ(ws.sigma[0][1], 2.0);
    EXPECT_DOUBLE_EQ(ws.sigma[1][1], 4.0);
    double** s = ws.getSigma();
    s[1][1] = 99.0;  // a copy
    EXPECT_DOUBLE_EQ(ws.sigma[1][1], 4.0);
    freeMat(s, 2);
}

TEST(PottsWSStatsTest, ConstantOrEmptyWorkspaceGetsTheIdentity) {
    auto b = makeWS(3, 3, 3, [](int, int, int band) { return 7 * (band + 1); });
    b.ws->updateMi();
    b.ws->updateSigma();
    double** byLabel = b.ws->getSigma(wstest::kRoot);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            EXPECT_EQ(b.ws->sigma[i][j], i == j ? 1.0 : 0.0);
            EXPECT_EQ(byLabel[i][j], i == j ? 1.0 : 0.0);
        }
    freeMat(byLabel, 3);

    PottsWS empty;
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
    PottsWS& ws = *b.ws;
    ws.updateMi();
    ws.updateSigma();
    EXPECT_DOUBLE_EQ(ws.sigma[0][0], 25000000.0);  // exact: ((60000 - 50000) / 2)^2
    // 50000^2 wraps to 2.5e9 - 2^32 = -1794967296, 60000^2 to -694967296;
    // their mean -1244967296 minus 55000^2 = 3.025e9 gives -4269967296.
    double** s = ws.getSigma(wstest::kRoot);
    EXPECT_DOUBLE_EQ(s[0][0], -4269967296.0);
    freeMat(s, 1);
    int count = 0, label = wstest::kRoot;
    double** cov = newMat(1);
    ws.getSigma(1, &label, &count, &cov);
    EXPECT_EQ(count, 2);
    EXPECT_DOUBLE_EQ(cov[0][0], -4269967296.0);
    freeMat(cov, 1);
}

TEST(PottsWSStatsTest, AbsentLabelGivesNaNInSingleFormsAndZerosOrIdentityInSeveralForms) {
    auto b = makeWS(2, 2, 2, [](int r, int c, int band) { return r * 3 + c + band; });
    int absent = 42, count = -1;
    double* m = b.ws->getMi(absent);
    double** s = b.ws->getSigma(absent);
    EXPECT_TRUE(std::isnan(m[1]));
    EXPECT_TRUE(std::isnan(s[1][0]));
    delete[] m;
    freeMat(s, 2);
    double mean[2] = {7.0, 7.0};
    double* means[1] = {mean};
    b.ws->getMi(1, &absent, &count, means);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(mean[0], 0.0);
    double** cov = newMat(2);
    cov[0][1] = 5.0;
    b.ws->getSigma(1, &absent, &count, &cov);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(cov[0][0], 1.0);
    EXPECT_EQ(cov[0][1], 0.0);
    freeMat(cov, 2);
}

TEST(PottsWSStatsTest, ALabelListedTwiceCountsOnlyForItsFirstEntry) {
    auto b = makeWS(2, 3, 1, [](int r, int c, int) { return r * 3 + c; });
    PottsWS& ws = *b.ws;
    paint(ws, {{5, 5, 6}, {6, 6, 9}});
    int labels[3] = {6, 5, 6};
    int areas[3], counts[3];
    ws.getAreas(3, labels, areas);
    EXPECT_EQ(std::vector<int>(areas, areas + 3), (std::vector<int>{3, 2, 0}));
    double rows[3][1];
    double* means[3] = {rows[0], rows[1], rows[2]};
    ws.getMi(3, labels, counts, means);
    EXPECT_EQ(std::vector<int>(counts, counts + 3), (std::vector<int>{3, 2, 0}));
    EXPECT_DOUBLE_EQ(rows[0][0], 3.0);  // values 2, 3, 4
    EXPECT_EQ(rows[2][0], 0.0);
    double** covs[3] = {newMat(1), newMat(1), newMat(1)};
    ws.getSigma(3, labels, counts, covs);
    EXPECT_EQ(counts[2], 0);
    EXPECT_NEAR(covs[0][0][0], 2.0 / 3.0, 1e-12);
    EXPECT_EQ(covs[2][0][0], 1.0);
    for (auto* c : covs) freeMat(c, 1);
}

TEST(PottsWSStatsTest, LabelStatisticsMatchASlowReference) {
    const int rows = 7, cols = 9, d = 3;
    std::srand(7);
    std::vector<int> vals(rows * cols * d);
    for (int& v : vals) v = std::rand() % 2000 - 1000;
    auto b = makeWS(rows, cols, d, [&](int r, int c, int band) { return vals[(r * cols + c) * d + band]; });
    PottsWS& ws = *b.ws;
    std::vector<std::vector<int>> grid(rows, std::vector<int>(cols));
    for (auto& row : grid)
        for (int& l : row) l = 10 + std::rand() % 4;  // 13 is not asked for
    paint(ws, grid);

    int labels[3] = {12, 10, 11}, counts[3];
    std::vector<std::vector<double>> meanRows(3, std::vector<double>(d));
    double* means[3] = {meanRows[0].data(), meanRows[1].data(), meanRows[2].data()};
    double** covs[3] = {newMat(d), newMat(d), newMat(d)};
    ws.getMi(3, labels, counts, means);
    ws.getSigma(3, labels, counts, covs);
    for (int j = 0; j < 3; ++j) {
        // Two-pass reference over the pixels of the label.
        std::vector<const int*> px;
        for (int p = 0; p < rows * cols; ++p)
            if (grid[p / cols][p % cols] == labels[j]) px.push_back(&vals[p * d]);
        ASSERT_EQ(counts[j], static_cast<int>(px.size()));
        std::vector<double> mu(d, 0.0);
        for (const int* x : px)
            for (int i = 0; i < d; ++i) mu[i] += x[i] / static_cast<double>(px.size());
        double* single = ws.getMi(labels[j]);
        double** singleCov = ws.getSigma(labels[j]);
        for (int i = 0; i < d; ++i) {
            EXPECT_NEAR(means[j][i], mu[i], 1e-9);
            EXPECT_NEAR(single[i], mu[i], 1e-9);
            for (int k = 0; k < d; ++k) {
                double acc = 0.0;
                for (const int* x : px) acc += (x[i] - mu[i]) * (x[k] - mu[k]);
                EXPECT_NEAR(covs[j][i][k], acc / px.size(), 1e-6);
                EXPECT_NEAR(singleCov[i][k], acc / px.size(), 1e-6);
            }
        }
        delete[] single;
        freeMat(singleCov, d);
        freeMat(covs[j], d);
    }
    EXPECT_EQ(ws.cursor, rows * cols - 1);  // scans leave the cursor at the last pixel
}

TEST(PottsWSStatsTest, FeaturesFromMeanAndCovariance) {
    // Corners of a square around (1, 1): identity covariance, Mahalanobis 2 per pixel.
    auto b = makeWS(2, 2, 2, [](int r, int c, int band) { return 2 * (band ? c : r); });
    b.ws->updateMi();
    b.ws->updateSigma();
    b.ws->updateFeatures();
    EXPECT_DOUBLE_EQ(b.ws->sqDeviation, 8.0);
    EXPECT_DOUBLE_EQ(b.ws->likelihoodEnergy, 4.0);
    // A singular covariance leaves the energy at 0; the deviation is still summed.
    auto s = makeWS(1, 2, 2, [](int, int c, int band) { return c == 0 ? (band ? 2 : 1) : (band ? 6 : 3); });
    s.ws->updateMi();
    s.ws->updateSigma();
    s.ws->likelihoodEnergy = 123.0;
    s.ws->updateFeatures();
    EXPECT_DOUBLE_EQ(s.ws->sqDeviation, 10.0);
    EXPECT_EQ(s.ws->likelihoodEnergy, 0.0);
}

TEST(PottsWSStatsTest, LinkMixtureTakesTheSelectedClasses) {
    Mixture parent(3, 1);  // outlives the linked view
    PottsWS ws;
    for (int k = 0; k < 3; ++k) parent.sigma[k][0][0] = 1.0 + k;
    parent.inv();
    parent.updateInv();
    int first[1] = {1}, idx[2] = {0, 2};
    ws.linkMixture(&parent, 1, first);
    ws.linkMixture(&parent, 2, idx);  // replaces the previous model
    EXPECT_EQ(ws.mixture->k, 2);
    EXPECT_EQ(ws.mixture->mi[1], parent.mi[2]);
}

TEST(PottsWSStatsTest, ExportsMeanAndCovarianceAsText) {
    char dir[] = "/tmp/dhc_ws_exportXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    char old[4096];
    ASSERT_NE(getcwd(old, sizeof old), nullptr);
    ASSERT_EQ(chdir(dir), 0);
    auto b = makeWS(1, 2, 2, [](int, int c, int band) { return c == 0 ? (band ? 2 : 1) : (band ? 7 : 2); });
    b.ws->updateMi();
    b.ws->updateSigma();
    b.ws->exportMi(4);
    b.ws->exportMi(4);  // truncates
    b.ws->exportSigma(4);
    auto slurp = [](const char* name) {
        std::stringstream ss;
        ss << std::ifstream(name).rdbuf();
        std::remove(name);
        return ss.str();
    };
    EXPECT_EQ(slurp("mi4.dat"), "1.5 4.5 ");
    EXPECT_EQ(slurp("sigma4.dat"), "0.25 1.25 \n1.25 6.25 \n");
    ASSERT_EQ(chdir(old), 0);
    rmdir(dir);
}

}  // namespace
