// inv, ldet and eig against Eigen (test-only reference) on random symmetric
// positive-definite matrices of sizes 1 to 16, fixed seeds.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <vector>

#include "stats/OpMatrix.h"

namespace {

constexpr double kRelTol = 1e-9;
constexpr int kPerSize = 20;  // 16 sizes x 20 = 320 matrices per property

// Row-pointer copy of an Eigen matrix.
class RowCopy {
  public:
    explicit RowCopy(const Eigen::MatrixXd& m) : n_(static_cast<int>(m.rows())), data_(n_ * n_) {
        for (int r = 0; r < n_; ++r) {
            for (int c = 0; c < n_; ++c) data_[r * n_ + c] = m(r, c);
            ptrs_.push_back(&data_[r * n_]);
        }
    }
    double** get() { return ptrs_.data(); }

  private:
    int n_;
    std::vector<double> data_;
    std::vector<double*> ptrs_;
};

Eigen::MatrixXd randomMatrix(int n, std::mt19937& gen) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Eigen::MatrixXd m(n, n);
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) m(r, c) = u(gen);
    return m;
}

// B B' + n/2 I: well conditioned, so 1e-9 relative is a fair bar for inv and ldet.
Eigen::MatrixXd randomSpd(int n, std::mt19937& gen) {
    const Eigen::MatrixXd b = randomMatrix(n, gen);
    return b * b.transpose() + 0.5 * n * Eigen::MatrixXd::Identity(n, n);
}

TEST(OpMatrixReference, InverseMatchesEigen) {
    std::mt19937 gen(11);
    for (int n = 1; n <= 16; ++n) {
        for (int t = 0; t < kPerSize; ++t) {
            const Eigen::MatrixXd a = randomSpd(n, gen);
            const Eigen::MatrixXd expected = a.inverse();
            RowCopy in(a);
            RowCopy out(Eigen::MatrixXd::Zero(n, n));
            int ok = 0;
            OpMatrix::inv(in.get(), n, out.get(), ok);
            ASSERT_EQ(ok, 1);
            const double scale = expected.cwiseAbs().maxCoeff();
            double worst = 0.0;
            for (int r = 0; r < n; ++r)
                for (int c = 0; c < n; ++c)
                    worst = std::max(worst, std::fabs(out.get()[r][c] - expected(r, c)));
            EXPECT_LE(worst, kRelTol * scale) << "n = " << n << ", trial " << t;
        }
    }
}

TEST(OpMatrixReference, LogDeterminantMatchesEigen) {
    std::mt19937 gen(12);
    for (int n = 1; n <= 16; ++n) {
        for (int t = 0; t < kPerSize; ++t) {
            // Scale some matrices down so that log-determinants of both signs occur.
            const double s = (t % 2 == 0) ? 1.0 : 0.05;
            const Eigen::MatrixXd a = s * randomSpd(n, gen);
            const Eigen::LLT<Eigen::MatrixXd> llt(a);
            const double expected = 2.0 * llt.matrixL().toDenseMatrix().diagonal().array().log().sum();
            RowCopy in(a);
            int ok = 0;
            const double got = OpMatrix::ldet(in.get(), n, &ok);
            EXPECT_EQ(ok, 1);
            EXPECT_LE(std::fabs(got - expected), kRelTol * std::max(1.0, std::fabs(expected)))
                << "n = " << n << ", trial " << t;
        }
    }
}

// Power iteration converges at the rate of the ratio of consecutive eigenvalue
// magnitudes and stops once an iterate moves by less than 1e-9; its eigenvalue
// is a component of A x, not a Rayleigh quotient, so its error is of the order
// of the last move times ratio / (1 - ratio).  To make a 1e-9 comparison
// meaningful the matrices are Q diag(l) Q' with a random orthogonal Q and three
// leading eigenvalues 100, 20, 4 (ratios 1/5) above a bulk in [0.1, 0.8]; the
// three leading pairs are compared (eigenvalues relative, eigenvectors up to
// sign).  For n < 3 only the available pairs are compared.
TEST(OpMatrixReference, LeadingEigenPairsMatchEigen) {
    std::mt19937 gen(13);
    std::uniform_real_distribution<double> bulk(0.1, 0.8);
    const double leading[3] = {100.0, 20.0, 4.0};
    for (int n = 1; n <= 16; ++n) {
        for (int t = 0; t < kPerSize; ++t) {
            const Eigen::HouseholderQR<Eigen::MatrixXd> qr(randomMatrix(n, gen));
            const Eigen::MatrixXd q = qr.householderQ();
            Eigen::VectorXd l(n);
            for (int i = 0; i < n; ++i) l(i) = i < 3 ? leading[i] : bulk(gen);
            Eigen::MatrixXd a = q * l.asDiagonal() * q.transpose();
            a = 0.5 * (a + a.transpose());

            const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> ref(a);  // ascending eigenvalues
            const int k = std::min(n, 3);
            RowCopy in(a);
            double** u = nullptr;
            double* lambda = nullptr;
            ASSERT_EQ(OpMatrix::eig(in.get(), n, k, u, lambda), k) << "n = " << n;
            for (int i = 0; i < k; ++i) {
                const double expectedValue = ref.eigenvalues()(n - 1 - i);
                const Eigen::VectorXd expectedVector = ref.eigenvectors().col(n - 1 - i);
                EXPECT_LE(std::fabs(lambda[i] - expectedValue), kRelTol * std::fabs(expectedValue))
                    << "n = " << n << ", trial " << t << ", pair " << i;
                double dot = 0.0;
                for (int c = 0; c < n; ++c) dot += u[i][c] * expectedVector(c);
                const double sign = dot < 0 ? -1.0 : 1.0;
                double worst = 0.0;
                for (int c = 0; c < n; ++c)
                    worst = std::max(worst, std::fabs(u[i][c] - sign * expectedVector(c)));
                EXPECT_LE(worst, kRelTol) << "n = " << n << ", trial " << t << ", pair " << i;
            }
            for (int r = 0; r < n; ++r) delete[] u[r];
            delete[] u;
            delete[] lambda;
        }
    }
}

}  // namespace
