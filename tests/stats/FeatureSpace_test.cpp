#include "stats/FeatureSpace.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

class Table {
  public:
    explicit Table(std::vector<std::vector<double>> rows) : rows_(std::move(rows)) {
        for (auto& r : rows_) ptrs_.push_back(r.data());
    }
    double** get() { return ptrs_.data(); }

  private:
    std::vector<std::vector<double>> rows_;
    std::vector<double*> ptrs_;
};

void freeRows(double** m, int rows) {
    for (int r = 0; r < rows; ++r) delete[] m[r];
    delete[] m;
}

TEST(FeatureSpaceStats, TwoPointExample) {
    Table t({{0, 0}, {2, 2}});
    FeatureSpace fs(1, 2);
    fs.addDomain(t.get(), 2);
    double* mu = fs.mean(0);
    EXPECT_EQ(mu[0], 1.0);
    EXPECT_EQ(mu[1], 1.0);
    double** cov = fs.covariance(0);
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j) EXPECT_EQ(cov[i][j], 1.0);
    double* sd = fs.getStDevs(0);
    EXPECT_EQ(sd[0], 1.0);
    EXPECT_EQ(sd[1], 1.0);
    delete[] mu;
    freeRows(cov, 2);
    delete[] sd;
}

TEST(FeatureSpaceStats, BiasedCovarianceAndStandardisation) {
    // x = (0, 2), y = (0, 4): var x = 1, var y = 4, cov = 2 (divided by n = 2).
    Table t({{0, 0}, {2, 4}});
    FeatureSpace fs(2, 2);
    fs.addDomain(t.get(), 2);
    t.get()[1][0] = 99.0;  // the space keeps its own copy
    double** cov = fs.getSigma(0);
    EXPECT_EQ(cov[0][0], 1.0);
    EXPECT_EQ(cov[1][1], 4.0);
    EXPECT_EQ(cov[0][1], 2.0);
    EXPECT_EQ(cov[1][0], 2.0);
    freeRows(cov, 2);
    double* mi = fs.getMi(0);
    EXPECT_EQ(mi[0], 1.0);
    EXPECT_EQ(mi[1], 2.0);
    delete[] mi;
    double** norm = fs.getNormData(0);
    EXPECT_EQ(norm[1][0], 2.0);
    EXPECT_EQ(norm[1][1], 2.0);
    EXPECT_EQ(norm[0][0], 0.0);
    EXPECT_TRUE(fs.normalized[0]);
    freeRows(norm, 2);

    // An empty domain has no statistics.
    EXPECT_EQ(fs.mean(1), nullptr);
    EXPECT_EQ(fs.covariance(1), nullptr);
    EXPECT_EQ(fs.getStDevs(1), nullptr);
    EXPECT_EQ(fs.getNormData(1), nullptr);
}

TEST(FeatureSpaceStats, IterationOverConcatenatedDomains) {
    Table a({{1, 2}, {3, 4}, {5, 6}});
    Table b({{10}, {20}, {60}});
    FeatureSpace fs(2, 3);
    fs.addDomain(a.get(), 2);
    fs.addDomain(b.get(), 1);
    EXPECT_EQ(fs.totalDims, 3);
    EXPECT_EQ(fs.nDomains, 2);
    int visited = 0;
    fs.start();
    do {
        const double* x = fs.get();
        EXPECT_EQ(x[0], 1.0 + 2 * visited);
        EXPECT_EQ(x[2], b.get()[visited][0]);
        EXPECT_EQ(fs.get(1)[0], b.get()[visited][0]);
        const double* z = fs.getzm();
        EXPECT_EQ(z[1], 2.0 * visited - 2.0);  // column mean 4
        EXPECT_EQ(z[2], b.get()[visited][0] - 30.0);
        EXPECT_EQ(fs.getzm(0)[0], 2.0 * visited - 2.0);
        ++visited;
    } while (fs.next());
    EXPECT_EQ(visited, 3);
}

TEST(FeatureSpaceDeathTest, FullSpaceEndsWithStatusMinusTen) {
    Table t({{1}, {2}});
    FeatureSpace fs(1, 2);
    fs.addDomain(t.get(), 1);
    EXPECT_EXIT(fs.addDomain(t.get(), 1), ::testing::ExitedWithCode(246), "");
}

TEST(FeatureSpacePCA, AxisAlignedCrossByHand) {
    // Scatter diag(2, 0.5): components e_0 (eigenvalue 2) and e_1 (0.5); the
    // power iteration starts from a positive vector, so both come out positive.
    Table t({{2, 0}, {-2, 0}, {0, 1}, {0, -1}});
    FeatureSpace fs(1, 4);
    fs.addDomain(t.get(), 2);
    double** p = fs.getPCAData(2, false);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(fs.nComponents, 2);
    const double expected[4][2] = {{2, 0}, {-2, 0}, {0, 1}, {0, -1}};
    for (int i = 0; i < 4; ++i)
        for (int c = 0; c < 2; ++c) EXPECT_NEAR(p[i][c], expected[i][c], 1e-9);
    freeRows(p, 4);
    EXPECT_NEAR(fs.pcaMax[0], 2.0, 1e-9);
    EXPECT_NEAR(fs.pcaMin[1], -1.0, 1e-9);

    // Normalised by the eigenvalue itself, not its square root.
    double** n = fs.getPCAData(2, true);
    EXPECT_NEAR(n[0][0], 1.0, 1e-9);
    EXPECT_NEAR(n[2][1], 2.0, 1e-9);
    freeRows(n, 4);

    // Fewer components come from the same analysis; more are refused.
    EXPECT_EQ(fs.getPCAData(3, false), nullptr);
    double** one = fs.getPCAData(1, false);
    ASSERT_NE(one, nullptr);
    EXPECT_NEAR(one[1][0], -2.0, 1e-9);
    EXPECT_EQ(fs.nComponents, 2);
    freeRows(one, 4);
}

TEST(FeatureSpacePCA, ComponentsAreUncorrelatedWithTheirEigenvalueAsVariance) {
    // Three features over two domains, with distinct variances along rotated axes.
    std::mt19937 gen(8);
    std::normal_distribution<double> g(0.0, 1.0);
    const int n = 400;
    std::vector<std::vector<double>> ab, c;
    for (int i = 0; i < n; ++i) {
        const double s = 3.0 * g(gen), t = 1.5 * g(gen), u = 0.5 * g(gen);
        ab.push_back({s + t + 5.0, s - t + u});
        c.push_back({u - 0.3 * s - 2.0});
    }
    Table ta(ab), tc(c);
    FeatureSpace fs(2, n);
    fs.addDomain(ta.get(), 2);
    fs.addDomain(tc.get(), 1);
    double** p = fs.getPCAData(3, false);
    ASSERT_NE(p, nullptr);
    for (int a = 0; a < 3; ++a) {
        for (int b = 0; b < 3; ++b) {
            double m = 0.0;
            for (int i = 0; i < n; ++i) m += p[i][a] * p[i][b];
            m /= n;
            const double expected = a == b ? fs.eigenvalues[a] : 0.0;
            EXPECT_NEAR(m, expected, 1e-8 * fs.eigenvalues[0]) << a << "," << b;
        }
    }
    EXPECT_GT(fs.eigenvalues[0], fs.eigenvalues[1]);
    EXPECT_GT(fs.eigenvalues[1], fs.eigenvalues[2]);
    // Total variance is preserved by the rotation.
    double trace = 0.0;
    for (int d = 0; d < 2; ++d) {
        double** cov = fs.getSigma(d);
        for (int i = 0; i < fs.dims[d]; ++i) trace += cov[i][i];
        freeRows(cov, fs.dims[d]);
    }
    EXPECT_NEAR(fs.eigenvalues[0] + fs.eigenvalues[1] + fs.eigenvalues[2], trace, 1e-8 * trace);
    freeRows(p, n);
}

TEST(FeatureSpacePCA, ComponentsBeyondTheFeaturesAreZero) {
    Table t({{2, 0}, {-2, 0}, {0, 1}, {0, -1}});
    FeatureSpace fs(1, 4);
    fs.addDomain(t.get(), 2);
    double** p = fs.getPCAData(3, false);
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(p[i][2], 0.0);
    EXPECT_NEAR(p[0][0], 2.0, 1e-9);
    freeRows(p, 4);
}

}  // namespace
