// inv, ldet and eig against Eigen (test-only reference) on random symmetric
// positive-definite matrices of sizes 1 to 16, fixed seed.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <random>

#include "StatsTestSupport.h"
#include "stats/OpMatrix.h"

namespace {

// Largest absolute entry-wise difference between a row-pointer matrix and a reference.
double worstDifference(double** got, const Eigen::MatrixXd& expected) {
    double worst = 0.0;
    for (int r = 0; r < expected.rows(); ++r)
        for (int c = 0; c < expected.cols(); ++c)
            worst = std::max(worst, std::fabs(got[r][c] - expected(r, c)));
    return worst;
}

// Power iteration stops once an iterate moves by less than 1e-9, and its
// eigenvalue is a component of A x, not a Rayleigh quotient, so its error grows
// with the ratio of consecutive eigenvalue magnitudes.  To make 1e-9 a fair bar
// the matrices are Q diag(l) Q' with a random orthogonal Q and leading
// eigenvalues 100, 20, 4 (ratios 1/5) above a bulk in [0.1, 0.8]; the condition
// number stays below 1000, which keeps inv and ldet well within the bar too.
// The leading min(n, 3) pairs are compared, eigenvectors up to sign.
TEST(OpMatrixReference, InverseLogDetAndLeadingPairsMatchEigen) {
    constexpr double kRelTol = 1e-9;
    std::mt19937 gen(13);
    std::uniform_real_distribution<double> entry(-1.0, 1.0);
    std::uniform_real_distribution<double> bulk(0.1, 0.8);
    const double leading[3] = {100.0, 20.0, 4.0};
    for (int n = 1; n <= 16; ++n) {
        for (int trial = 0; trial < 20; ++trial) {
            SCOPED_TRACE(::testing::Message() << "n = " << n << ", trial " << trial);
            Eigen::MatrixXd q(n, n);
            for (int i = 0; i < n * n; ++i) q(i / n, i % n) = entry(gen);
            q = Eigen::HouseholderQR<Eigen::MatrixXd>(q).householderQ();
            Eigen::VectorXd l(n);
            for (int i = 0; i < n; ++i) l(i) = i < 3 ? leading[i] : bulk(gen);
            Eigen::MatrixXd a = q * l.asDiagonal() * q.transpose();
            a = 0.5 * (a + a.transpose());
            stats_test::Rows in(n, 0.0);
            for (int i = 0; i < n * n; ++i) in.get()[i / n][i % n] = a(i / n, i % n);

            const Eigen::MatrixXd expectedInv = a.inverse();
            stats_test::Rows out(n, 0.0);
            int ok = 0;
            OpMatrix::inv(in.get(), n, out.get(), ok);
            ASSERT_EQ(ok, 1);
            EXPECT_LE(worstDifference(out.get(), expectedInv), kRelTol * expectedInv.cwiseAbs().maxCoeff());

            const Eigen::LLT<Eigen::MatrixXd> llt(a);
            const double expectedLdet = 2.0 * llt.matrixL().toDenseMatrix().diagonal().array().log().sum();
            EXPECT_NEAR(OpMatrix::ldet(in.get(), n), expectedLdet,
                        kRelTol * std::max(1.0, std::fabs(expectedLdet)));

            const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> ref(a);  // ascending eigenvalues
            const int k = std::min(n, 3);
            double** u = nullptr;
            double* lambda = nullptr;
            ASSERT_EQ(OpMatrix::eig(in.get(), n, k, u, lambda), k);
            for (int i = 0; i < k; ++i) {
                const double value = ref.eigenvalues()(n - 1 - i);
                Eigen::VectorXd vector = ref.eigenvectors().col(n - 1 - i);
                if (Eigen::Map<Eigen::VectorXd>(u[i], n).dot(vector) < 0) vector = -vector;
                EXPECT_NEAR(lambda[i], value, kRelTol * value) << "pair " << i;
                EXPECT_LE(worstDifference(&u[i], vector.transpose()), kRelTol) << "pair " << i;
            }
            dhc::deleteRows(u, n);
            delete[] lambda;
        }
    }
}

}  // namespace
