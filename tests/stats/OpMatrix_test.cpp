#include "stats/OpMatrix.h"

#include <gtest/gtest.h>

#include <cmath>

#include "StatsTestSupport.h"

namespace {

using stats_test::Rows;

TEST(OpMatrixLU, PivotTieGoesToTheLastRow) {
    // Both rows have scaled merit 1 in column 0: the second row must be the pivot.
    Rows a{{1.0, 0.5}, {1.0, 0.25}};
    int indx[2];
    double d;
    int ok;
    OpMatrix::ludcmp(a.get(), 2, indx, &d, ok);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(indx[0], 1);
    EXPECT_EQ(d, -1.0);
    EXPECT_DOUBLE_EQ(a.at(1, 1), 0.25);  // U[1][1] = 0.5 - 0.25 after the exchange
}

TEST(OpMatrixSingular, InverseLeavesTheOutputUntouchedAndLogDetHandlesZeros) {
    Rows singular{{1, 2}, {0, 0}};
    Rows untouched(2, 7.0);
    int ok = -1;
    OpMatrix::inv(singular.get(), 2, untouched.get(), ok);
    EXPECT_EQ(ok, 0);
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 2; ++c) EXPECT_EQ(untouched.at(r, c), 7.0);

    Rows identity{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    EXPECT_EQ(OpMatrix::ldet(identity.get(), 3, &ok), 0.0);
    EXPECT_EQ(ok, 1);

    Rows zeroRow{{2, 1, 0}, {0, 0, 0}, {1, 1, 1}};
    const double l = OpMatrix::ldet(zeroRow.get(), 3, &ok);
    EXPECT_EQ(ok, 0);
    EXPECT_TRUE(std::isinf(l) && l < 0);

    // No zero row, but the last pivot is exactly zero (rows 2 and 3 are equal):
    // it becomes 1e-19, so log|det| = log 3 + log 1e-19.
    Rows zeroPivot{{3, 0, 0}, {0, 1, 1}, {0, 1, 1}};
    EXPECT_NEAR(OpMatrix::ldet(zeroPivot.get(), 3, &ok), std::log(3.0) + std::log(1e-19), 1e-12);
    EXPECT_EQ(ok, 1);
}

TEST(OpMatrixPowerIteration, ZeroMatrixAndRetryBudget) {
    int status = 9;
    double lambda = 9.0;
    double v[3];
    // With a budget of one iteration a run that did not stop at once would report -1.
    Rows zero(3, 0.0);
    OpMatrix::maxEig_PWM(1e-20, 1e-9, 1, 3, zero.get(), &status, &lambda, v);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lambda, 0.0);
    EXPECT_TRUE(std::isnan(v[0]));  // 0/0 on normalisation

    // From x = (1, 1/sqrt 2) on diag(1, r) the change after t steps is
    // r^(t-1) (1 - r) / sqrt 2: below 1e-9 after ~4850 steps for r = 0.997
    // (inside the last budget of 6400, not the 3200 before it) and after ~7070
    // for r = 0.998 (beyond every budget).
    Rows slow{{1, 0}, {0, 0.997}};
    Rows tooSlow{{1, 0}, {0, 0.998}};
    OpMatrix::maxEig_PWM(1e-20, 1e-9, 3200, 2, slow.get(), &status, &lambda, v);
    EXPECT_EQ(status, -1);
    OpMatrix::maxEig_PWM(2, slow.get(), &status, &lambda, v);
    EXPECT_EQ(status, 1);
    EXPECT_NEAR(lambda, 1.0, 1e-8);
    OpMatrix::maxEig_PWM(2, tooSlow.get(), &status, &lambda, v);
    EXPECT_EQ(status, -1);
    EXPECT_NEAR(v[0] * v[0] + v[1] * v[1], 1.0, 1e-12);  // normalised all the same
}

TEST(OpMatrixEigen, AllPairsOfADiagonalMatrixByDecreasingMagnitude) {
    Rows a{{1, 0, 0}, {0, -5, 0}, {0, 0, 3}};
    double** u = nullptr;
    double* lambda = nullptr;
    ASSERT_EQ(OpMatrix::eig(a.get(), 3, 3, u, lambda), 3);
    const double values[3] = {-5.0, 3.0, 1.0};
    const int axis[3] = {1, 2, 0};
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(lambda[i], values[i], 1e-7);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(std::fabs(u[i][c]), c == axis[i] ? 1.0 : 0.0, 1e-7);
    }
    dhc::deleteRows(u, 3);
    delete[] lambda;
}

TEST(OpMatrixGramSchmidt, RefusesRowsThatAreNotOrthonormal) {
    double row0[3] = {1.0 + 2e-6, 0.0, 0.0};
    double row1[3] = {0.6, 0.8, 0.0};  // unit length, not orthogonal to e_0
    double* rows[2] = {row0, row1};
    double** u = rows;
    EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 1, 3));  // not unit length
    EXPECT_EQ(row0[0], 1.0 + 2e-6);
    row0[0] = 1.0;
    EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 2, 3));
    EXPECT_EQ(u, rows);
}

}  // namespace
