#include "workspace/PottsWS.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "stats/Mixture.h"
#include "workspace/WorkspaceFixtures.h"

namespace {

using wstest::makeWS;
using wstest::paint;

double** newMat(int n) {
    double** m = new double*[n];
    for (int i = 0; i < n; ++i) m[i] = new double[n]();
    return m;
}
void freeMat(double** m, int n) {
    for (int i = 0; i < n; ++i) delete[] m[i];
    delete[] m;
}

TEST(PottsWSStatsTest, InitDefaults) {
    PottsWS empty;
    EXPECT_EQ(empty.bands, 0);
    EXPECT_EQ(empty.mi, nullptr);
    EXPECT_EQ(empty.sigma, nullptr);
    EXPECT_EQ(empty.mixture, nullptr);
    EXPECT_EQ(empty.pixelIndex, nullptr);
    EXPECT_EQ(empty.splitState, 0);
    EXPECT_EQ(empty.edges, 0);
    EXPECT_FALSE(empty.processed);
    EXPECT_FALSE(empty.textureBased);
    EXPECT_EQ(empty.primaryGain, -1.0);
    EXPECT_EQ(empty.sqDeviation, 0.0);
    EXPECT_EQ(empty.likelihoodEnergy, 0.0);

    auto b = makeWS(2, 3, 2, [](int r, int c, int band) { return r + c + band; });
    PottsWS& ws = *b.ws;
    ASSERT_NE(ws.mi, nullptr);
    EXPECT_EQ(ws.mi[0], 0.0);
    EXPECT_EQ(ws.mi[1], 0.0);
    EXPECT_EQ(ws.sigma[1][0], 0.0);
    EXPECT_EQ(ws.root->label, wstest::kRoot);
    EXPECT_EQ(ws.root->area, 6);
    EXPECT_EQ(ws.loadedCount, 6);
}

TEST(PottsWSStatsTest, WholeWorkspaceMeanAndCovariance) {
    // Pixels (1, 2) and (3, 6): mean (2, 4), covariance [[1, 2], [2, 4]] (biased).
    auto b = makeWS(1, 2, 2, [](int, int c, int band) { return c == 0 ? (band ? 2 : 1) : (band ? 6 : 3); });
    PottsWS& ws = *b.ws;
    ws.updateMi();
    EXPECT_DOUBLE_EQ(ws.mi[0], 2.0);
    EXPECT_DOUBLE_EQ(ws.mi[1], 4.0);
    ws.updateSigma();
    EXPECT_DOUBLE_EQ(ws.sigma[0][0], 1.0);
    EXPECT_DOUBLE_EQ(ws.sigma[0][1], 2.0);
    EXPECT_DOUBLE_EQ(ws.sigma[1][0], 2.0);
    EXPECT_DOUBLE_EQ(ws.sigma[1][1], 4.0);

    // The copies are independent of the workspace.
    double* m = ws.getMi();
    double** s = ws.getSigma();
    m[0] = 99.0;
    s[1][1] = 99.0;
    EXPECT_DOUBLE_EQ(ws.mi[0], 2.0);
    EXPECT_DOUBLE_EQ(ws.sigma[1][1], 4.0);
    ws.setMi(m);
    ws.setSigma(s);
    EXPECT_EQ(ws.mi[0], 99.0);
    EXPECT_EQ(ws.sigma[1][1], 99.0);
    delete[] m;
    freeMat(s, 2);
}

TEST(PottsWSStatsTest, ConstantWorkspaceGetsAUnitDiagonal) {
    auto b = makeWS(3, 3, 3, [](int, int, int band) { return 7 * (band + 1); });
    PottsWS& ws = *b.ws;
    ws.updateMi();
    ws.updateSigma();
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(ws.sigma[i][j], i == j ? 1.0 : 0.0) << i << "," << j;
    double** byLabel = ws.getSigma(wstest::kRoot);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(byLabel[i][j], i == j ? 1.0 : 0.0);
    freeMat(byLabel, 3);
}

TEST(PottsWSStatsTest, EmptyWorkspaceHasZeroMeanAndIdentityCovariance) {
    PottsWS ws;
    ws.bands = 2;
    ws.init();
    ws.mi[0] = 5.0;
    ws.updateMi();
    ws.updateSigma();
    EXPECT_EQ(ws.mi[0], 0.0);
    EXPECT_EQ(ws.mi[1], 0.0);
    EXPECT_EQ(ws.sigma[0][0], 1.0);
    EXPECT_EQ(ws.sigma[1][1], 1.0);
    EXPECT_EQ(ws.sigma[0][1], 0.0);
}

TEST(PottsWSStatsTest, LabelCovarianceWrapsThirtyTwoBitProducts) {
    // One band, values 50000 and 60000: the squares leave the 32-bit range.
    auto b = makeWS(1, 2, 1, [](int, int c, int) { return c == 0 ? 50000 : 60000; });
    PottsWS& ws = *b.ws;
    ws.updateMi();
    ws.updateSigma();
    EXPECT_DOUBLE_EQ(ws.sigma[0][0], 25000000.0);  // exact: ((60000 - 50000) / 2)^2

    // 50000^2 = 2.5e9 wraps to 2.5e9 - 2^32 = -1794967296,
    // 60000^2 = 3.6e9 wraps to -694967296; mean of the two = -1244967296;
    // minus 55000^2 = 3.025e9 gives -4269967296.
    double** s = ws.getSigma(wstest::kRoot);
    EXPECT_DOUBLE_EQ(s[0][0], -4269967296.0);
    freeMat(s, 1);

    int count = 0;
    int label = wstest::kRoot;
    double** cov = newMat(1);
    double** covs[1] = {cov};
    ws.getSigma(1, &label, &count, covs);
    EXPECT_EQ(count, 2);
    EXPECT_DOUBLE_EQ(cov[0][0], -4269967296.0);
    freeMat(cov, 1);
}

TEST(PottsWSStatsTest, AbsentLabelGivesNaNInSingleFormsAndZerosOrIdentityInSeveralForms) {
    auto b = makeWS(2, 2, 2, [](int r, int c, int band) { return r * 3 + c + band; });
    PottsWS& ws = *b.ws;
    const int absent = 42;
    double* m = ws.getMi(absent);
    EXPECT_TRUE(std::isnan(m[0]));
    EXPECT_TRUE(std::isnan(m[1]));
    delete[] m;
    double** s = ws.getSigma(absent);
    EXPECT_TRUE(std::isnan(s[0][0]));
    EXPECT_TRUE(std::isnan(s[1][0]));
    freeMat(s, 2);

    int label = absent, count = -1;
    double mean[2] = {7.0, 7.0};
    double* means[1] = {mean};
    ws.getMi(1, &label, &count, means);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(mean[0], 0.0);
    EXPECT_EQ(mean[1], 0.0);

    double** cov = newMat(2);
    cov[0][1] = 5.0;
    double** covs[1] = {cov};
    count = -1;
    ws.getSigma(1, &label, &count, covs);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(cov[0][0], 1.0);
    EXPECT_EQ(cov[1][1], 1.0);
    EXPECT_EQ(cov[0][1], 0.0);
    freeMat(cov, 2);
}

TEST(PottsWSStatsTest, ALabelListedTwiceCountsOnlyForItsFirstEntry) {
    auto b = makeWS(2, 3, 1, [](int r, int c, int) { return r * 3 + c; });
    PottsWS& ws = *b.ws;
    paint(ws, {{5, 5, 6}, {6, 6, 9}});
    int labels[3] = {6, 5, 6};
    int areas[3] = {-1, -1, -1};
    ws.getAreas(3, labels, areas);
    EXPECT_EQ(areas[0], 3);
    EXPECT_EQ(areas[1], 2);
    EXPECT_EQ(areas[2], 0);

    int counts[3];
    double rows[3][1];
    double* means[3] = {rows[0], rows[1], rows[2]};
    ws.getMi(3, labels, counts, means);
    EXPECT_EQ(counts[0], 3);
    EXPECT_EQ(counts[2], 0);
    EXPECT_DOUBLE_EQ(means[0][0], (2 + 3 + 4) / 3.0);
    EXPECT_DOUBLE_EQ(means[1][0], 0.5);
    EXPECT_EQ(means[2][0], 0.0);

    double** c0 = newMat(1);
    double** c1 = newMat(1);
    double** c2 = newMat(1);
    double** covs[3] = {c0, c1, c2};
    ws.getSigma(3, labels, counts, covs);
    EXPECT_EQ(counts[0], 3);
    EXPECT_EQ(counts[2], 0);
    EXPECT_NEAR(c0[0][0], 2.0 / 3.0, 1e-12);  // values 2, 3, 4
    EXPECT_EQ(c2[0][0], 1.0);               // empty: identity
    freeMat(c0, 1);
    freeMat(c1, 1);
    freeMat(c2, 1);
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
        for (int& l : row) l = 10 + std::rand() % 4;  // labels 10..13; 13 is not asked for
    paint(ws, grid);

    int labels[3] = {12, 10, 11};
    int counts[3];
    std::vector<std::vector<double>> meanRows(3, std::vector<double>(d));
    double* means[3] = {meanRows[0].data(), meanRows[1].data(), meanRows[2].data()};
    double** covs[3] = {newMat(d), newMat(d), newMat(d)};
    ws.getMi(3, labels, counts, means);
    int counts2[3];
    ws.getSigma(3, labels, counts2, covs);

    for (int j = 0; j < 3; ++j) {
        // Reference: two-pass mean and covariance with exact integer sums.
        std::vector<int64_t> sum(d, 0);
        int n = 0;
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                if (grid[r][c] == labels[j]) {
                    ++n;
                    for (int i = 0; i < d; ++i) sum[i] += vals[(r * cols + c) * d + i];
                }
        ASSERT_EQ(counts[j], n);
        ASSERT_EQ(counts2[j], n);
        std::vector<double> mu(d);
        for (int i = 0; i < d; ++i) mu[i] = static_cast<double>(sum[i]) / n;
        double* single = ws.getMi(labels[j]);
        double** singleCov = ws.getSigma(labels[j]);
        for (int i = 0; i < d; ++i) {
            EXPECT_NEAR(means[j][i], mu[i], 1e-9);
            EXPECT_NEAR(single[i], mu[i], 1e-9);
            for (int k = 0; k < d; ++k) {
                double acc = 0.0;
                for (int r = 0; r < rows; ++r)
                    for (int c = 0; c < cols; ++c)
                        if (grid[r][c] == labels[j])
                            acc += (vals[(r * cols + c) * d + i] - mu[i]) * (vals[(r * cols + c) * d + k] - mu[k]);
                EXPECT_NEAR(covs[j][i][k], acc / n, 1e-6);
                EXPECT_NEAR(singleCov[i][k], acc / n, 1e-6);
            }
        }
        delete[] single;
        freeMat(singleCov, d);
        freeMat(covs[j], d);
    }
    EXPECT_EQ(ws.cursor, rows * cols - 1);  // scans leave the cursor at the last pixel
}

TEST(PottsWSStatsTest, FeaturesFromMeanAndCovariance) {
    // Corners of a square around (1, 1): covariance = identity, so the
    // Mahalanobis distance of each pixel is 2 and the energy 0.5 * 4 * 2.
    auto b = makeWS(2, 2, 2, [](int r, int c, int band) { return 2 * (band ? c : r); });
    PottsWS& ws = *b.ws;
    ws.updateMi();
    ws.updateSigma();
    ws.updateFeatures();
    EXPECT_DOUBLE_EQ(ws.sqDeviation, 8.0);
    EXPECT_DOUBLE_EQ(ws.likelihoodEnergy, 4.0);

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
    auto b = makeWS(1, 2, 1, [](int, int c, int) { return c; });
    Mixture parent(3, 1);
    for (int k = 0; k < 3; ++k) {
        parent.mi[k][0] = 10.0 * k;
        parent.sigma[k][0][0] = 1.0 + k;
    }
    parent.inv();
    parent.updateInv();
    int first[1] = {1};
    b.ws->linkMixture(&parent, 1, first);
    int idx[2] = {0, 2};
    b.ws->linkMixture(&parent, 2, idx);  // replaces the previous model
    ASSERT_NE(b.ws->mixture, nullptr);
    EXPECT_EQ(b.ws->mixture->k, 2);
    EXPECT_EQ(b.ws->mixture->mi[1], parent.mi[2]);
    EXPECT_EQ(b.ws->mixture->storage, 1);
}

class ExportTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/dhc_ws_exportXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        char buf[4096];
        ASSERT_NE(getcwd(buf, sizeof buf), nullptr);
        old_ = buf;
        ASSERT_EQ(chdir(dir_.c_str()), 0);
    }
    void TearDown() override {
        ASSERT_EQ(chdir(old_.c_str()), 0);
        std::remove((dir_ + "/mi4.dat").c_str());
        std::remove((dir_ + "/sigma4.dat").c_str());
        rmdir(dir_.c_str());
    }
    static std::string slurp(const std::string& name) {
        std::ifstream in(name);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::string dir_, old_;
};

TEST_F(ExportTest, MeanAndCovarianceTextFiles) {
    auto b = makeWS(1, 2, 2, [](int, int c, int band) { return c == 0 ? (band ? 2 : 1) : (band ? 7 : 2); });
    b.ws->updateMi();
    b.ws->updateSigma();
    b.ws->exportMi(4);
    b.ws->exportSigma(4);
    EXPECT_EQ(slurp("mi4.dat"), "1.5 4.5 ");
    EXPECT_EQ(slurp("sigma4.dat"), "0.25 1.25 \n1.25 6.25 \n");
    b.ws->exportMi(4);  // truncates
    EXPECT_EQ(slurp("mi4.dat"), "1.5 4.5 ");
}

}  // namespace
