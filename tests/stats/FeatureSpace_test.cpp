#include "stats/FeatureSpace.h"

#include <gtest/gtest.h>

#include "StatsTestSupport.h"

namespace {

using stats_test::freeRows;
using stats_test::Rows;

TEST(FeatureSpaceStats, TwoPointExamplesWithBiasedCovariance) {
    // Covariances divide by n = 2; the standardised second point is (2, 4) / sd.
    struct Case {
        double second[2], mean[2], cov[2][2], sd[2], norm[2];
    };
    const Case cases[] = {{{2, 2}, {1, 1}, {{1, 1}, {1, 1}}, {1, 1}, {2, 2}},
                          {{2, 4}, {1, 2}, {{1, 2}, {2, 4}}, {1, 2}, {2, 2}}};
    for (const Case& t : cases) {
        SCOPED_TRACE(t.second[1]);
        Rows points{{0, 0}, {t.second[0], t.second[1]}};
        FeatureSpace fs(2, 2);
        fs.addDomain(points.get(), 2);
        points.get()[1][0] = 99.0;  // the space keeps its own copy
        double* mean = fs.mean(0);
        double** cov = fs.covariance(0);
        double* sd = fs.getStDevs(0);
        double** norm = fs.getNormData(0);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(mean[i], t.mean[i]);
            EXPECT_EQ(cov[i][0], t.cov[i][0]);
            EXPECT_EQ(cov[i][1], t.cov[i][1]);
            EXPECT_EQ(sd[i], t.sd[i]);
            EXPECT_EQ(norm[1][i], t.norm[i]);
        }
        delete[] mean;
        delete[] sd;
        freeRows(cov, 2);
        freeRows(norm, 2);
        // The second domain is still empty.
        EXPECT_EQ(fs.mean(1), nullptr);
        EXPECT_EQ(fs.covariance(1), nullptr);
    }
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
    freeRows(p, 4);

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

}  // namespace
