#include "stats/OpMatrix.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

#include "settings/Fatal.h"
#include "settings/RowMatrix.h"

// ---------------------------------------------------------------------------
// Index-range work storage
// ---------------------------------------------------------------------------

namespace {

// C-heap block of count elements; a failure ends the process (status 1, no message).
template <typename T>
T* heapBlock(int count) {
    if (count < 1) return nullptr;
    void* p = std::malloc(sizeof(T) * static_cast<std::size_t>(count));
    if (p == nullptr) dhc::fatal(1);
    return static_cast<T*>(p);
}

bool allFinite(const double* v, int n) {
    for (int i = 0; i < n; ++i)
        if (!std::isfinite(v[i])) return false;
    return true;
}

}  // namespace

template <typename T>
OpMatrix::RangeVector<T>::RangeVector(int lo, int hi) : block_(heapBlock<T>(hi - lo + 1)), lo_(lo), hi_(hi) {}

template <typename T>
OpMatrix::RangeVector<T>::~RangeVector() {
    std::free(block_);
}

template <typename T>
OpMatrix::RangeVector<T>::RangeVector(RangeVector&& other) noexcept
    : block_(std::exchange(other.block_, nullptr)), lo_(other.lo_), hi_(other.hi_) {}

template <typename T>
T& OpMatrix::RangeVector<T>::operator[](int i) {
    assert(i >= lo_ && i <= hi_);
    return block_[i - lo_];
}

template <typename T>
const T& OpMatrix::RangeVector<T>::operator[](int i) const {
    assert(i >= lo_ && i <= hi_);
    return block_[i - lo_];
}

template class OpMatrix::RangeVector<double>;
template class OpMatrix::RangeVector<int>;

OpMatrix::RangeMatrix::RangeMatrix(int rlo, int rhi, int clo, int chi)
    : rlo_(rlo), rhi_(rhi), clo_(clo), chi_(chi) {
    const int nRows = rhi - rlo + 1;
    rows_ = heapBlock<double*>(nRows);
    for (int r = 0; r < nRows; ++r) rows_[r] = heapBlock<double>(chi - clo + 1);
}

OpMatrix::RangeMatrix::~RangeMatrix() {
    if (rows_ == nullptr) return;
    for (int r = rhi_ - rlo_; r >= 0; --r) std::free(rows_[r]);
    std::free(rows_);
}

OpMatrix::RangeMatrix::RangeMatrix(RangeMatrix&& other) noexcept
    : rows_(std::exchange(other.rows_, nullptr)),
      rlo_(other.rlo_),
      rhi_(other.rhi_),
      clo_(other.clo_),
      chi_(other.chi_) {}

double& OpMatrix::RangeMatrix::operator()(int r, int c) {
    assert(r >= rlo_ && r <= rhi_ && c >= clo_ && c <= chi_);
    return rows_[r - rlo_][c - clo_];
}

double OpMatrix::RangeMatrix::operator()(int r, int c) const {
    assert(r >= rlo_ && r <= rhi_ && c >= clo_ && c <= chi_);
    return rows_[r - rlo_][c - clo_];
}

OpMatrix::RangeVector<double> OpMatrix::vector(int nl, int nh) {
    return RangeVector<double>(nl, nh);
}

OpMatrix::RangeVector<int> OpMatrix::ivector(int nl, int nh) {
    return RangeVector<int>(nl, nh);
}

OpMatrix::RangeMatrix OpMatrix::matrix(int nrl, int nrh, int ncl, int nch) {
    return RangeMatrix(nrl, nrh, ncl, nch);
}

// ---------------------------------------------------------------------------
// LU decomposition, solving, inverse, log-determinant
// ---------------------------------------------------------------------------

void OpMatrix::ludcmp(double** a, int n, int* indx, double* d, int& ok) {
    constexpr double kTiny = 1.0e-19;
    ok = 1;
    *d = 1.0;
    RangeVector<double> scale = vector(0, n - 1);
    double* vv = scale.data();

    // Implicit scaling: each row's merit is relative to its largest entry.
    for (int i = 0; i < n; ++i) {
        double big = 0.0;
        for (int j = 0; j < n; ++j) {
            const double t = std::fabs(a[i][j]);
            if (t > big) big = t;
        }
        if (big == 0.0) {
            ok = 0;
            return;
        }
        vv[i] = 1.0 / big;
    }

    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < j; ++i) {
            double s = a[i][j];
            for (int k = 0; k < i; ++k) s -= a[i][k] * a[k][j];
            a[i][j] = s;
        }
        double big = 0.0;
        int imax = j;
        for (int i = j; i < n; ++i) {
            double s = a[i][j];
            for (int k = 0; k < j; ++k) s -= a[i][k] * a[k][j];
            a[i][j] = s;
            // Greater-or-equal: the last row among equal merits becomes the pivot.
            const double merit = vv[i] * std::fabs(s);
            if (merit >= big) {
                big = merit;
                imax = i;
            }
        }
        if (j != imax) {
            for (int k = 0; k < n; ++k) std::swap(a[imax][k], a[j][k]);
            *d = -(*d);
            vv[imax] = vv[j];
        }
        indx[j] = imax;
        // A zero pivot of a non-zero matrix still factorises: its log-determinant
        // becomes very negative instead of minus infinity.
        if (a[j][j] == 0.0) a[j][j] = kTiny;
        if (j != n - 1) {
            const double inverse = 1.0 / a[j][j];
            for (int i = j + 1; i < n; ++i) a[i][j] *= inverse;
        }
    }
}

void OpMatrix::lubksb(double** a, int n, int* indx, double* b) {
    int first = -1;  // first non-zero entry of b met so far; earlier ones contribute nothing
    for (int i = 0; i < n; ++i) {
        const int ip = indx[i];
        double s = b[ip];
        b[ip] = b[i];
        if (first >= 0) {
            for (int j = first; j < i; ++j) s -= a[i][j] * b[j];
        } else if (s != 0.0) {
            first = i;
        }
        b[i] = s;
    }
    for (int i = n - 1; i >= 0; --i) {
        double s = b[i];
        for (int j = i + 1; j < n; ++j) s -= a[i][j] * b[j];
        b[i] = s / a[i][i];
    }
}

void OpMatrix::inv(double** a, int n, double** y, int& ok) {
    RangeMatrix work = matrix(0, n - 1, 0, n - 1);
    double** lu = work.rows();
    dhc::copyRowsInto(a, lu, n, n);
    RangeVector<int> indx = ivector(0, n - 1);
    RangeVector<double> col = vector(0, n - 1);
    double parity;
    ludcmp(lu, n, indx.data(), &parity, ok);
    if (ok == 0) return;
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < n; ++i) col.data()[i] = 0.0;
        col.data()[j] = 1.0;
        lubksb(lu, n, indx.data(), col.data());
        for (int i = 0; i < n; ++i) y[i][j] = col.data()[i];
    }
}

double OpMatrix::ldet(double** a, int n, int* ok) {
    if (n < 1) {
        if (ok != nullptr) *ok = 1;
        return 0.0;
    }
    RangeMatrix work = matrix(0, n - 1, 0, n - 1);
    double** lu = work.rows();
    dhc::copyRowsInto(a, lu, n, n);
    RangeVector<int> indx = ivector(0, n - 1);
    double parity;
    int flag;
    ludcmp(lu, n, indx.data(), &parity, flag);
    if (ok != nullptr) *ok = flag;
    // On a zero row the copy is left unfactored and its zero diagonal entry
    // makes the sum minus infinity.
    double result = std::log(std::fabs(parity));
    for (int i = 0; i < n; ++i) result += std::log(std::fabs(lu[i][i]));
    return result;
}

// ---------------------------------------------------------------------------
// Power iteration and deflation
// ---------------------------------------------------------------------------

void OpMatrix::maxEig_PWM(double zeroTol, double convTol, int maxIter, int n, double** a, int* status,
                          double* lambda, double* v) {
    // Fixed, unnormalised start so that results are reproducible.
    std::vector<double> x(std::max(n, 0));
    for (int i = 0; i < n; ++i) {
        x[i] = 1.0 / std::sqrt(static_cast<double>(i + 1));
        v[i] = x[i];
    }
    *status = -1;
    *lambda = 0.0;
    for (int iter = 1; iter <= maxIter; ++iter) {
        double lam = 0.0;
        for (int i = 0; i < n; ++i) {
            double s = 0.0;
            for (int j = 0; j < n; ++j) s += a[i][j] * x[j];
            v[i] = s;
            if (std::fabs(s) > std::fabs(lam)) lam = s;
        }
        *lambda = lam;
        if (std::fabs(lam) < zeroTol) {
            *status = 0;
            break;
        }
        double delta = 0.0;
        for (int i = 0; i < n; ++i) {
            v[i] /= lam;
            const double diff = std::fabs(v[i] - x[i]);
            if (diff > delta) delta = diff;
        }
        if (delta < convTol) {
            *status = 1;
            break;
        }
        for (int i = 0; i < n; ++i) x[i] = v[i];
    }
    double norm = 0.0;
    for (int i = 0; i < n; ++i) norm += v[i] * v[i];
    norm = std::sqrt(norm);
    for (int i = 0; i < n; ++i) v[i] /= norm;
}

void OpMatrix::maxEig_PWM(int n, double** a, int* status, double* lambda, double* v) {
    int limit = 50;
    maxEig_PWM(1e-20, 1e-9, limit, n, a, status, lambda, v);
    while (*status == -1) {
        limit *= 2;
        if (limit > 9999) break;
        maxEig_PWM(1e-20, 1e-9, limit, n, a, status, lambda, v);
    }
}

void OpMatrix::maxEig(double** a, int n, double* v, int* status) {
    double lambda;
    maxEig_PWM(n, a, status, &lambda, v);
}

void OpMatrix::maxEig(double** a, int n, double* v) {
    int status;
    maxEig(a, n, v, &status);
}

bool OpMatrix::gramSchmidtCompletion(double**& u, int m, int n) {
    constexpr double kTol = 1e-6;
    if (m >= n || m < 1) return false;
    // Written so that a row holding NaN fails the test: its weights would
    // leave no axis to seed from and the axes would be counted wrongly.
    for (int r = 0; r < m; ++r) {
        for (int c = 0; c < n; ++c)
            if (!std::isfinite(u[r][c])) return false;
        if (!(std::fabs(scalar(u[r], u[r], n) - 1.0) < kTol)) return false;
        for (int s = 0; s < m; ++s)
            if (s != r && !(std::fabs(scalar(u[r], u[s], n)) < kTol)) return false;
    }

    double** basis = dhc::newRows<double>(n, n);
    dhc::copyRowsInto(u, basis, m, n);
    delete[] u;
    u = basis;

    // Leave out the m axes the given rows span most; the others seed the new rows.
    std::vector<double> weight(n);
    std::vector<char> available(n);
    for (int c = 0; c < n; ++c) {
        weight[c] = 0.0;
        for (int r = 0; r < m; ++r) weight[c] += u[r][c] * u[r][c];
        available[c] = true;
    }
    for (int t = 0; t < m; ++t) {
        double best = -1.0;
        int bestAxis = 0;
        for (int c = 0; c < n; ++c) {
            if (available[c] && weight[c] > best) {
                best = weight[c];
                bestAxis = c;
            }
        }
        available[bestAxis] = false;
    }
    int row = m;
    for (int c = 0; c < n && row < n; ++c)
        if (available[c]) u[row++][c] = 1.0;

    // Modified Gram-Schmidt against every earlier row.
    for (int k = m; k < n; ++k) {
        for (int j = 0; j < k; ++j) {
            const double proj = scalar(u[k], u[j], n);
            for (int c = 0; c < n; ++c) u[k][c] -= proj * u[j][c];
        }
        const double norm = std::sqrt(scalar(u[k], u[k], n));
        for (int c = 0; c < n; ++c) u[k][c] /= norm;
    }
    return true;
}

int OpMatrix::eig(double** a, int n, int k, double**& u, double*& lambda) {
    if (k < 1 || k > n) return 0;
    u = dhc::newRows<double>(n, n);
    for (int i = 0; i < n; ++i) u[i][i] = 1.0;
    lambda = new double[k]();

    int status;
    maxEig_PWM(n, a, &status, &lambda[0], u[0]);
    if (status < 1) {
        // A zero matrix: every vector is an eigenvector, the identity's rows
        // stand (the iterate was normalised from zero length).
        if (!allFinite(u[0], n)) {
            std::fill(u[0], u[0] + n, 0.0);
            u[0][0] = 1.0;
        }
        return 0;
    }
    if (k < 2) return 1;

    int j = 1;
    for (; j < k; ++j) {
        // The completion copies the rows into a new array; the old rows are ours to release.
        double** previousRows = new double*[n];
        std::copy(u, u + n, previousRows);
        if (!gramSchmidtCompletion(u, j, n)) {
            delete[] previousRows;
            break;
        }
        dhc::deleteRows(previousRows, n);

        // Restriction of A to the complement of the eigenvectors found so far.
        const int m = n - j;
        double** b = uT_a_u(u + j, a, m, n);
        std::vector<double> w(m);
        int ignored;
        maxEig_PWM(m, b, &ignored, &lambda[j], w.data());
        // The restriction is zero (a rank-deficient matrix): the completion's
        // rows are eigenvectors already, of eigenvalue 0.
        if (allFinite(w.data(), m)) {
            std::vector<double> mapped(n, 0.0);
            for (int bIdx = 0; bIdx < m; ++bIdx)
                for (int c = 0; c < n; ++c) mapped[c] += w[bIdx] * u[j + bIdx][c];
            for (int c = 0; c < n; ++c) u[j][c] = mapped[c];
        } else {
            lambda[j] = 0.0;
        }
        dhc::deleteRows(b, m);
    }
    return j;
}

// ---------------------------------------------------------------------------
// Quadratic forms, projections, small vector helpers
// ---------------------------------------------------------------------------

double** OpMatrix::uT_a_u(double** u, double** a, int m, int n) {
    double** c = dhc::newRows<double>(m, m);
    for (int p = 0; p < m; ++p) {
        for (int q = p; q < m; ++q) {
            double s = 0.0;
            for (int i = 0; i < n; ++i) {
                double t = 0.0;
                for (int j = 0; j < n; ++j) t += a[i][j] * u[q][j];
                s += u[p][i] * t;
            }
            c[p][q] = s;
            c[q][p] = s;
        }
    }
    return c;
}

double OpMatrix::uT_a_u(double* u, double** a, int n) {
    std::vector<double> t(std::max(n, 0));
    for (int i = 0; i < n; ++i) t[i] = scalar(a[i], u, n);
    return scalar(t.data(), u, n);
}

double* OpMatrix::transform(double* x, int d, double** m, int k) {
    double* y = new double[k];
    for (int i = 0; i < k; ++i) {
        double s = 0.0;
        for (int j = 0; j < d; ++j) s += m[i][j] * x[j];
        y[i] = s;
    }
    return y;
}

double OpMatrix::scalar(double* a, double* b, int n) {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += a[i] * b[i];
    return s;
}

void OpMatrix::sum(double* a, double* b, int n) {
    for (int i = 0; i < n; ++i) a[i] += b[i];
}

namespace {

// First index of the best value under `better` (strict, so ties keep the first).
template <typename T, typename Better>
int extremum(const T* values, int n, Better better) {
    if (n < 2) return 0;
    int best = 0;
    for (int i = 1; i < n; ++i)
        if (better(values[i], values[best])) best = i;
    return best;
}

}  // namespace

int OpMatrix::max(double* values, int n) {
    return extremum(values, n, [](double x, double y) { return x > y; });
}

int OpMatrix::max(int* values, int n) {
    return extremum(values, n, [](int x, int y) { return x > y; });
}

int OpMatrix::max(unsigned short* values, int n) {
    return extremum(values, n, [](unsigned short x, unsigned short y) { return x > y; });
}

int OpMatrix::min(double* values, int n) {
    return extremum(values, n, [](double x, double y) { return x < y; });
}

int OpMatrix::min(int* values, int n) {
    return extremum(values, n, [](int x, int y) { return x < y; });
}

// ---------------------------------------------------------------------------
// Divergence of two normal densities
// ---------------------------------------------------------------------------

double OpMatrix::kullbackLeibler_Normals(double* mu0, double** s0, double* mu1, double** s1, int d,
                                         double bound) {
    const double ld0 = ldet(s0, d);
    const double ld1 = ldet(s1, d);
    double** s1inv = dhc::newRows<double>(d, d);
    int ok;
    inv(s1, d, s1inv, ok);
    // A singular s1 admits no density: the divergence is unbounded.
    const double result =
        ok == 0 ? HUGE_VAL : kullbackLeibler_Normals(mu0, s0, ld0, mu1, s1inv, ld1, d, bound);
    dhc::deleteRows(s1inv, d);
    return result;
}

double OpMatrix::kullbackLeibler_Normals(double* mu0, double** s0, double ld0, double* mu1, double** s1inv,
                                         double ld1, int d, double bound) {
    double partial = ld1 - ld0;
    for (int i = 0; i < d; ++i) partial += scalar(s1inv[i], s0[i], d);
    partial -= d;
    if (bound != -1.0 && partial > 2.0 * bound) return 0.5 * partial;
    std::vector<double> diff(std::max(d, 0));
    for (int i = 0; i < d; ++i) diff[i] = mu0[i] - mu1[i];
    const double mahalanobis = uT_a_u(diff.data(), s1inv, d);
    return 0.5 * (partial + mahalanobis);
}
