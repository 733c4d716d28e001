#include "stats/FeatureSpace.h"

#include <gtest/gtest.h>

#include "StatsTestSupport.h"

namespace {

using stats_test::Rows;

TEST(FeatureSpaceStats, TwoPointExampleWithBiasedCovariance) {
    // Covariances divide by n = 2.
    Rows points{{0, 0}, {2, 4}};
    FeatureSpace fs(2, 2);
    fs.addDomain(points.get(), 2);
    points.get()[1][0] = 99.0;  // the space keeps its own copy
    double* mean = fs.mean(0);
    double** cov = fs.covariance(0);
    double* sd = fs.getStDevs(0);
    const double expectedCov[2][2] = {{1, 2}, {2, 4}};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(mean[i], i + 1.0);
        EXPECT_EQ(sd[i], i + 1.0);
        EXPECT_EQ(cov[i][0], expectedCov[i][0]);
        EXPECT_EQ(cov[i][1], expectedCov[i][1]);
    }
    delete[] mean;
    delete[] sd;
    dhc::deleteRows(cov, 2);
    EXPECT_EQ(fs.mean(1), nullptr);  // the second domain is still empty
}

TEST(FeatureSpaceDeathTest, FullSpaceEndsWithStatusMinusTen) {
    Rows t{{1}, {2}};
    FeatureSpace fs(1, 2);
    fs.addDomain(t.get(), 1);
    EXPECT_EXIT(fs.addDomain(t.get(), 1), ::testing::ExitedWithCode(246), "");
}

TEST(FeatureSpacePCA, AxisAlignedCrossOverTwoDomainsByHand) {
    // The cross (2, 0), (-2, 0), (0, 1), (0, -1), shifted by the means (5, -3)
    // and held as two one-feature domains.  Zero-mean concatenated features give
    // scatter diag(2, 0.5): components e_0 (eigenvalue 2) and e_1 (0.5); the
    // power iteration starts from a positive vector, so both come out positive
    // and the projections are the unshifted points themselves.
    const double cross[4][2] = {{2, 0}, {-2, 0}, {0, 1}, {0, -1}};
    Rows x{{7}, {3}, {5}, {5}};
    Rows y{{-3}, {-3}, {-2}, {-4}};
    FeatureSpace fs(2, 4);
    fs.addDomain(x.get(), 1);
    fs.addDomain(y.get(), 1);
    double** p = fs.getPCAData(2, false);
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 4; ++i)
        for (int c = 0; c < 2; ++c) EXPECT_NEAR(p[i][c], cross[i][c], 1e-9);
    dhc::deleteRows(p, 4);
    EXPECT_EQ(fs.getPCAData(3, false), nullptr);  // more components than features
}

}  // namespace
