// The principal components and the mean shift on the regions a deep tree
// leaves: one to three pixels, all pixels equal, a band without spread,
// bands that are multiples of each other.  Their scatter matrices are zero or
// rank-deficient; every result must stay finite and the bases orthonormal.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "StatsTestSupport.h"
#include "stats/FMSC.h"
#include "stats/FeatureSpace.h"
#include "stats/OpMatrix.h"

namespace {

using stats_test::Rows;

// Rows of u (n x n) that are unit length, pairwise orthogonal and finite.
void expectOrthonormal(double** u, int rows, int n) {
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < n; ++c) ASSERT_TRUE(std::isfinite(u[r][c])) << "row " << r;
        for (int s = 0; s < rows; ++s)
            EXPECT_NEAR(OpMatrix::scalar(u[r], u[s], n), r == s ? 1.0 : 0.0, 1e-9) << r << " " << s;
    }
}

TEST(DegenerateGramSchmidt, ARowHoldingNaNIsRefusedAndNothingIsWritten) {
    // The weights of a NaN row compare false with everything, so before the
    // check every axis stayed available and the seeds ran past the n rows.
    for (int bad = 0; bad < 2; ++bad) {
        SCOPED_TRACE(bad);
        double row0[3] = {1.0, 0.0, 0.0};
        double row1[3] = {0.0, 1.0, 0.0};
        (bad == 0 ? row0 : row1)[1 - bad] = std::nan("");
        double* rows[2] = {row0, row1};
        double** u = rows;
        EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 2, 3));
        EXPECT_EQ(u, rows);
    }
    double inf[2] = {INFINITY, 0.0};
    double* one[1] = {inf};
    double** u = one;
    EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 1, 2));
}

TEST(DegenerateGramSchmidt, CompletesEveryNumberOfGivenRows) {
    for (int n = 2; n <= 5; ++n)
        for (int m = 1; m < n; ++m) {
            SCOPED_TRACE(std::to_string(m) + " of " + std::to_string(n));
            double** u = dhc::newRows<double>(n, n);
            // Rows mixing the last axes (the largest weights at the end).
            for (int r = 0; r < m; ++r) u[r][n - 1 - r] = 1.0;
            if (m == 1) {
                u[0][0] = std::sqrt(0.5);
                u[0][n - 1] = std::sqrt(0.5);
            }
            // The call releases the pointer array, not the rows.
            const std::vector<double*> oldRows(u, u + n);
            ASSERT_TRUE(OpMatrix::gramSchmidtCompletion(u, m, n));
            expectOrthonormal(u, n, n);
            dhc::deleteRows(u, n);
            for (double* row : oldRows) delete[] row;
        }
}

TEST(DegenerateEigen, ZeroAndRankDeficientMatricesGiveOrthonormalFiniteVectors) {
    struct Case {
        const char* what;
        Rows a;
        std::vector<double> values;  // by decreasing magnitude
    };
    Case cases[] = {
        {"zero", Rows(3, 0.0), {0, 0, 0}},
        {"rank one", Rows{{1, 2, 3}, {2, 4, 6}, {3, 6, 9}}, {14, 0, 0}},
        {"rank two", Rows{{2, 0, 0}, {0, 1, 0}, {0, 0, 0}}, {2, 1, 0}},
        {"one band constant", Rows{{0, 0, 0}, {0, 5, 1}, {0, 1, 5}}, {6, 4, 0}},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.what);
        double** u = nullptr;
        double* lambda = nullptr;
        const int found = OpMatrix::eig(c.a.get(), 3, 3, u, lambda);
        EXPECT_LE(found, 3);
        // The rows found are orthonormal; the zero matrix yields no pair but
        // finite rows all the same.
        expectOrthonormal(u, found > 0 ? found : 1, 3);
        for (int i = 0; i < found; ++i) EXPECT_NEAR(lambda[i], c.values[static_cast<size_t>(i)], 1e-6) << i;
        dhc::deleteRows(u, 3);
        delete[] lambda;
    }
}

// Points as rows of a matrix of `bands` columns.
Rows points(const std::vector<std::vector<double>>& values) {
    Rows r;
    for (const auto& v : values) r.add(v);
    return r;
}

TEST(DegeneratePCA, EveryDegenerateRegionProjectsToFiniteComponents) {
    const std::vector<std::pair<const char*, std::vector<std::vector<double>>>> regions = {
        {"one pixel", {{3, 1, 2}}},
        {"two pixels", {{3, 1, 2}, {5, 1, 7}}},
        {"three pixels", {{3, 1, 2}, {5, 1, 7}, {0, 4, 2}}},
        {"all equal", {{4, 4, 4}, {4, 4, 4}, {4, 4, 4}, {4, 4, 4}}},
        {"one band constant", {{1, 7, 2}, {2, 7, 0}, {3, 7, 5}, {0, 7, 1}}},
        {"collinear bands", {{1, 2, 3}, {2, 4, 6}, {3, 6, 9}, {0, 0, 0}}},
        {"two bands equal", {{1, 1, 5}, {2, 2, 3}, {7, 7, 0}, {4, 4, 4}}},
    };
    for (const auto& [what, values] : regions) {
        SCOPED_TRACE(what);
        Rows p = points(values);
        const int n = p.size();
        FeatureSpace fs(1, n);
        fs.addDomain(p.get(), 3);
        double** projected = fs.getPCAData(3, false);
        ASSERT_NE(projected, nullptr);
        // The projections keep the points' distances (an orthonormal basis).
        for (int i = 0; i < n; ++i) {
            for (int c = 0; c < 3; ++c) ASSERT_TRUE(std::isfinite(projected[i][c])) << i << " " << c;
            for (int j = 0; j < n; ++j) {
                double dx = 0, dy = 0;
                for (int c = 0; c < 3; ++c) {
                    dx += (values[i][c] - values[j][c]) * (values[i][c] - values[j][c]);
                    dy += (projected[i][c] - projected[j][c]) * (projected[i][c] - projected[j][c]);
                }
                EXPECT_NEAR(dx, dy, 1e-6) << i << " " << j;
            }
        }

        // The mean shift on them classifies every point into a finite mode.
        FMSC shift(projected, 3, n, n, 0.05, 100.0, 0, 0.05, 0.0, 0);
        int k = 0;
        double** modes = shift.getModes(k);
        ASSERT_GE(k, 1);
        for (int m = 0; m < k; ++m)
            for (int c = 0; c < 3; ++c) EXPECT_TRUE(std::isfinite(modes[m][c]));
        int modeCount = 0;
        int* classes = shift.getClassification(modeCount);
        ASSERT_NE(classes, nullptr);
        EXPECT_EQ(modeCount, k);
        for (int i = 0; i < n; ++i) EXPECT_TRUE(classes[i] >= 1 && classes[i] <= k) << i;
        dhc::deleteRows(modes, k);
        delete[] classes;
        dhc::deleteRows(projected, n);
    }
}

}  // namespace
