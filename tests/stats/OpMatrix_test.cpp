#include "stats/OpMatrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <limits>
#include <vector>

namespace {

// Zero-based row-pointer matrix built from literal rows; owns its storage.
class Rows {
  public:
    Rows(std::initializer_list<std::initializer_list<double>> values) {
        for (const auto& row : values) data_.emplace_back(row);
        for (auto& row : data_) ptrs_.push_back(row.data());
    }
    Rows(int n, double fill) : data_(n, std::vector<double>(n, fill)) {
        for (auto& row : data_) ptrs_.push_back(row.data());
    }
    double** get() { return ptrs_.data(); }
    double at(int r, int c) const { return data_[r][c]; }

  private:
    std::vector<std::vector<double>> data_;
    std::vector<double*> ptrs_;
};

void freeRows(double** m, int rows) {
    for (int r = 0; r < rows; ++r) delete[] m[r];
    delete[] m;
}

TEST(OpMatrixStorage, RangesHonourTheirBounds) {
    auto v = OpMatrix::vector(-2, 3);
    for (int i = -2; i <= 3; ++i) v[i] = i * 10.0;
    EXPECT_EQ(v.lo(), -2);
    EXPECT_EQ(v.hi(), 3);
    EXPECT_EQ(v.data()[0], -20.0);
    EXPECT_EQ(v[3], 30.0);

    auto iv = OpMatrix::ivector(1, 2);
    iv[1] = 7;
    iv[2] = 9;
    EXPECT_EQ(iv.data()[1], 9);

    auto m = OpMatrix::matrix(1, 3, 5, 6);
    for (int r = 1; r <= 3; ++r)
        for (int c = 5; c <= 6; ++c) m(r, c) = r * 100 + c;
    EXPECT_EQ(m.rows()[0][0], 105.0);
    EXPECT_EQ(m.rows()[2][1], 306.0);

    auto none = OpMatrix::matrix(0, -1, 0, 3);
    EXPECT_EQ(none.rows(), nullptr);
}

TEST(OpMatrixLU, PivotTieGoesToTheLastRow) {
    // Both rows have scaled merit 1 in column 0: the second row must be the pivot.
    Rows a{{1.0, 0.5}, {1.0, 0.25}};
    int indx[2];
    double d;
    int ok;
    OpMatrix::ludcmp(a.get(), 2, indx, &d, ok);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(indx[0], 1);
    EXPECT_EQ(indx[1], 1);
    EXPECT_EQ(d, -1.0);
    // Rows exchanged: L = [1 0; 1 1], U = [1 0.25; 0 0.25].
    EXPECT_DOUBLE_EQ(a.at(0, 0), 1.0);
    EXPECT_DOUBLE_EQ(a.at(0, 1), 0.25);
    EXPECT_DOUBLE_EQ(a.at(1, 0), 1.0);
    EXPECT_DOUBLE_EQ(a.at(1, 1), 0.25);

    // The factors solve the original system: [1 .5; 1 .25] x = (1, 2) gives x = (3, -4).
    double b[2] = {1.0, 2.0};
    OpMatrix::lubksb(a.get(), 2, indx, b);
    EXPECT_NEAR(b[0], 3.0, 1e-12);
    EXPECT_NEAR(b[1], -4.0, 1e-12);
}

TEST(OpMatrixLU, ZeroRowStopsBeforeTouchingTheMatrix) {
    Rows a{{0.0, 0.0, 0.0}, {4.0, 1.0, 2.0}, {1.0, 5.0, 0.0}};
    int indx[3] = {-7, -7, -7};
    double d = 0.0;
    int ok = 5;
    OpMatrix::ludcmp(a.get(), 3, indx, &d, ok);
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(d, 1.0);
    EXPECT_EQ(a.at(1, 0), 4.0);
    EXPECT_EQ(a.at(2, 1), 5.0);
    EXPECT_EQ(indx[0], -7);
}

TEST(OpMatrixLU, SolveSkipsLeadingZerosCorrectly) {
    // A = [2 1 0; 1 3 1; 0 1 4], b = e_3: x is the third column of A^-1 = (1, -2, 5) / 18.
    Rows a{{2.0, 1.0, 0.0}, {1.0, 3.0, 1.0}, {0.0, 1.0, 4.0}};
    int indx[3];
    double d;
    int ok;
    OpMatrix::ludcmp(a.get(), 3, indx, &d, ok);
    ASSERT_EQ(ok, 1);
    double b[3] = {0.0, 0.0, 1.0};
    OpMatrix::lubksb(a.get(), 3, indx, b);
    EXPECT_NEAR(b[0], 1.0 / 18.0, 1e-14);
    EXPECT_NEAR(b[1], -2.0 / 18.0, 1e-14);
    EXPECT_NEAR(b[2], 5.0 / 18.0, 1e-14);
}

TEST(OpMatrixInverse, KnownInverseAndInputKept) {
    Rows a{{2.0, 1.0, 0.0}, {1.0, 3.0, 1.0}, {0.0, 1.0, 4.0}};
    // Adjugate / det, det = 18.
    const double expected[3][3] = {{11, -4, 1}, {-4, 8, -2}, {1, -2, 5}};
    Rows y(3, 0.0);
    int ok = 0;
    OpMatrix::inv(a.get(), 3, y.get(), ok);
    EXPECT_EQ(ok, 1);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(y.at(r, c), expected[r][c] / 18.0, 1e-14);
    EXPECT_EQ(a.at(0, 0), 2.0);
    EXPECT_EQ(a.at(1, 2), 1.0);
}

TEST(OpMatrixInverse, SingularInputLeavesOutputUntouched) {
    Rows a{{1.0, 2.0}, {0.0, 0.0}};
    Rows y(2, 7.0);
    int ok = 1;
    OpMatrix::inv(a.get(), 2, y.get(), ok);
    EXPECT_EQ(ok, 0);
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 2; ++c) EXPECT_EQ(y.at(r, c), 7.0);
}

TEST(OpMatrixLogDet, IdentityZeroRowAndZeroPivot) {
    Rows identity{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    int ok = -1;
    EXPECT_EQ(OpMatrix::ldet(identity.get(), 3, &ok), 0.0);
    EXPECT_EQ(ok, 1);

    Rows zeroRow{{2, 1, 0}, {0, 0, 0}, {1, 1, 1}};
    const double l = OpMatrix::ldet(zeroRow.get(), 3, &ok);
    EXPECT_EQ(ok, 0);
    EXPECT_TRUE(std::isinf(l) && l < 0);
    EXPECT_EQ(zeroRow.at(0, 0), 2.0);

    // No zero row, but the last pivot is exactly zero (rows 2 and 3 are equal):
    // it becomes 1e-19, so log|det| = log 3 + log 1e-19.
    Rows zeroPivot{{3, 0, 0}, {0, 1, 1}, {0, 1, 1}};
    const double lp = OpMatrix::ldet(zeroPivot.get(), 3, &ok);
    EXPECT_EQ(ok, 1);
    EXPECT_NEAR(lp, std::log(3.0) + std::log(1e-19), 1e-12);

    // log|det| drops the sign: det [0 2; 3 0] = -6.
    Rows swapped{{0, 2}, {3, 0}};
    EXPECT_NEAR(OpMatrix::ldet(swapped.get(), 2), std::log(6.0), 1e-14);

    EXPECT_EQ(OpMatrix::ldet(nullptr, 0, &ok), 0.0);
}

TEST(OpMatrixPowerIteration, ZeroMatrixStopsAtFirstIteration) {
    Rows zero(3, 0.0);
    int status = 9;
    double lambda = 9.0;
    double v[3];
    // With a budget of one iteration a non-converged run would report -1.
    OpMatrix::maxEig_PWM(1e-20, 1e-9, 1, 3, zero.get(), &status, &lambda, v);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lambda, 0.0);
    EXPECT_TRUE(std::isnan(v[0]));  // 0/0 on normalisation

    OpMatrix::maxEig_PWM(3, zero.get(), &status, &lambda, v);
    EXPECT_EQ(status, 0);
}

TEST(OpMatrixPowerIteration, DominantPairWithSign) {
    Rows a{{1, 0, 0}, {0, -5, 0}, {0, 0, 3}};
    int status;
    double lambda;
    double v[3];
    OpMatrix::maxEig_PWM(3, a.get(), &status, &lambda, v);
    EXPECT_EQ(status, 1);
    EXPECT_NEAR(lambda, -5.0, 1e-7);
    EXPECT_NEAR(std::fabs(v[1]), 1.0, 1e-9);
    EXPECT_NEAR(v[0] * v[0] + v[1] * v[1] + v[2] * v[2], 1.0, 1e-12);

    double w[3];
    OpMatrix::maxEig(a.get(), 3, w, &status);
    EXPECT_EQ(status, 1);
    EXPECT_NEAR(std::fabs(w[1]), 1.0, 1e-9);
}

TEST(OpMatrixPowerIteration, RetryBudgetEndsAt6400) {
    // From x = (1, 1/sqrt 2) on diag(1, r) the change after t steps is
    // r^(t-1) (1 - r) / sqrt 2: below 1e-9 after ~4850 steps for r = 0.997
    // (inside the last budget) and ~7070 for r = 0.998 (beyond it).
    Rows slow{{1, 0}, {0, 0.997}};
    Rows tooSlow{{1, 0}, {0, 0.998}};
    int status;
    double lambda;
    double v[2];
    OpMatrix::maxEig_PWM(1e-20, 1e-9, 3200, 2, slow.get(), &status, &lambda, v);
    EXPECT_EQ(status, -1);
    OpMatrix::maxEig_PWM(2, slow.get(), &status, &lambda, v);
    EXPECT_EQ(status, 1);
    EXPECT_NEAR(lambda, 1.0, 1e-8);
    OpMatrix::maxEig_PWM(2, tooSlow.get(), &status, &lambda, v);
    EXPECT_EQ(status, -1);
    // The vector is still normalised.
    EXPECT_NEAR(v[0] * v[0] + v[1] * v[1], 1.0, 1e-12);
}

TEST(OpMatrixEigen, FullDecompositionOfADiagonalMatrix) {
    Rows a{{1, 0, 0}, {0, -5, 0}, {0, 0, 3}};
    double** u = nullptr;
    double* lambda = nullptr;
    ASSERT_EQ(OpMatrix::eig(a.get(), 3, 3, u, lambda), 3);
    EXPECT_NEAR(lambda[0], -5.0, 1e-7);
    EXPECT_NEAR(lambda[1], 3.0, 1e-7);
    EXPECT_NEAR(lambda[2], 1.0, 1e-7);
    const int axis[3] = {1, 2, 0};
    for (int i = 0; i < 3; ++i)
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(std::fabs(u[i][c]), c == axis[i] ? 1.0 : 0.0, 1e-7);
    freeRows(u, 3);
    delete[] lambda;
}

TEST(OpMatrixEigen, RefusalsAndFailedFirstPair) {
    Rows a{{2, 0}, {0, 1}};
    double** u = nullptr;
    double* lambda = nullptr;
    EXPECT_EQ(OpMatrix::eig(a.get(), 2, 0, u, lambda), 0);
    EXPECT_EQ(OpMatrix::eig(a.get(), 2, 3, u, lambda), 0);
    EXPECT_EQ(u, nullptr);
    EXPECT_EQ(lambda, nullptr);

    // A zero matrix fails the first pair: 0 delivered, storage handed over anyway.
    Rows zero(2, 0.0);
    EXPECT_EQ(OpMatrix::eig(zero.get(), 2, 2, u, lambda), 0);
    ASSERT_NE(u, nullptr);
    ASSERT_NE(lambda, nullptr);
    freeRows(u, 2);
    delete[] lambda;

    u = nullptr;
    lambda = nullptr;
    EXPECT_EQ(OpMatrix::eig(a.get(), 2, 1, u, lambda), 1);
    EXPECT_NEAR(lambda[0], 2.0, 1e-8);
    freeRows(u, 2);
    delete[] lambda;
}

TEST(OpMatrixGramSchmidt, CompletesAnOrthonormalRow) {
    const double h = std::sqrt(0.5);
    double** u = new double*[1];
    u[0] = new double[3]{h, h, 0.0};
    double* given = u[0];
    ASSERT_TRUE(OpMatrix::gramSchmidtCompletion(u, 1, 3));
    delete[] given;  // the completion copies rows; the old ones stay the caller's
    // Axis 0 is left out (first of the two most spanned axes), so e_1 and e_2 seed the new rows.
    EXPECT_DOUBLE_EQ(u[0][0], h);
    EXPECT_DOUBLE_EQ(u[0][1], h);
    EXPECT_NEAR(u[1][0], -h, 1e-15);
    EXPECT_NEAR(u[1][1], h, 1e-15);
    EXPECT_NEAR(u[1][2], 0.0, 1e-15);
    EXPECT_NEAR(u[2][0], 0.0, 1e-15);
    EXPECT_NEAR(u[2][1], 0.0, 1e-15);
    EXPECT_NEAR(u[2][2], 1.0, 1e-15);
    freeRows(u, 3);
}

TEST(OpMatrixGramSchmidt, RefusesBadInputAndLeavesItAlone) {
    double row0[3] = {1.0 + 2e-6, 0.0, 0.0};
    double row1[3] = {0.0, 1.0, 0.0};
    double* rows[2] = {row0, row1};
    double** u = rows;
    EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 1, 3));  // not unit length
    EXPECT_EQ(u, rows);
    EXPECT_EQ(row0[0], 1.0 + 2e-6);

    row0[0] = 1.0;
    row1[0] = 0.01;  // not orthogonal to row 0
    EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 2, 3));
    EXPECT_EQ(u, rows);
    EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 3, 3));  // nothing to complete
    EXPECT_FALSE(OpMatrix::gramSchmidtCompletion(u, 0, 3));
    EXPECT_EQ(u, rows);
}

TEST(OpMatrixForms, QuadraticFormsAndProjection) {
    Rows a{{2, 1}, {1, 3}};
    Rows u{{1, 0}, {1, 1}, {0, 2}};
    double** c = OpMatrix::uT_a_u(u.get(), a.get(), 3, 2);
    // C = U A U': hand-computed.
    const double expected[3][3] = {{2, 3, 2}, {3, 7, 8}, {2, 8, 12}};
    for (int p = 0; p < 3; ++p)
        for (int q = 0; q < 3; ++q) EXPECT_DOUBLE_EQ(c[p][q], expected[p][q]);
    freeRows(c, 3);

    double x[2] = {1.0, -1.0};
    EXPECT_DOUBLE_EQ(OpMatrix::uT_a_u(x, a.get(), 2), 3.0);

    // Only the first d = 2 columns of m take part.
    Rows m{{1, 2, 100}, {0, -1, 100}};
    double* y = OpMatrix::transform(x, 2, m.get(), 2);
    EXPECT_DOUBLE_EQ(y[0], -1.0);
    EXPECT_DOUBLE_EQ(y[1], 1.0);
    delete[] y;

    double p[3] = {1, 2, 3};
    double q[3] = {4, 5, 6};
    EXPECT_EQ(OpMatrix::scalar(p, q, 3), 32.0);
    EXPECT_EQ(OpMatrix::scalar(p, q, 0), 0.0);
    OpMatrix::sum(p, q, 3);
    EXPECT_EQ(p[0], 5.0);
    EXPECT_EQ(p[2], 9.0);
}

TEST(OpMatrixSearch, FirstIndexWinsAndShortArraysGiveZero) {
    double d[5] = {1.0, 4.0, -2.0, 4.0, -2.0};
    EXPECT_EQ(OpMatrix::max(d, 5), 1);
    EXPECT_EQ(OpMatrix::min(d, 5), 2);
    int i[4] = {3, 3, 1, 1};
    EXPECT_EQ(OpMatrix::max(i, 4), 0);
    EXPECT_EQ(OpMatrix::min(i, 4), 2);
    unsigned short s[4] = {1, 65535, 7, 65535};
    EXPECT_EQ(OpMatrix::max(s, 4), 1);
    // Length 0 or 1: answer 0 without reading.
    EXPECT_EQ(OpMatrix::max(static_cast<double*>(nullptr), 0), 0);
    EXPECT_EQ(OpMatrix::min(static_cast<int*>(nullptr), 1), 0);
}

TEST(OpMatrixDivergence, OneDimensionalCasesAndEarlyExit) {
    // KL(N(0,1) || N(1,2)) = 1/2 [ln 2 + 1/2 - 1 + 1/2] = ln(2) / 2.
    double mu0[1] = {0.0};
    double mu1[1] = {1.0};
    Rows s0{{1.0}};
    Rows s1{{2.0}};
    EXPECT_NEAR(OpMatrix::kullbackLeibler_Normals(mu0, s0.get(), mu1, s1.get(), 1, -1.0), std::log(2.0) / 2,
                1e-14);
    EXPECT_NEAR(OpMatrix::kullbackLeibler_Normals(mu0, s0.get(), mu0, s0.get(), 1, -1.0), 0.0, 1e-15);

    // Partial value ln 2 - 1/2 = 0.193 exceeds 2 * 0.05: half of it, no Mahalanobis term.
    EXPECT_NEAR(OpMatrix::kullbackLeibler_Normals(mu0, s0.get(), mu1, s1.get(), 1, 0.05),
                (std::log(2.0) - 0.5) / 2, 1e-14);

    Rows s1inv{{0.5}};
    EXPECT_NEAR(
        OpMatrix::kullbackLeibler_Normals(mu0, s0.get(), 0.0, mu1, s1inv.get(), std::log(2.0), 1, -1.0),
        std::log(2.0) / 2, 1e-14);
}

}  // namespace
