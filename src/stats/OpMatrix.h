#pragma once
// Dense linear algebra on small square matrices held as arrays of row pointers
// (element (r, c) at a[r][c]); one row and column per band or feature.
//
// OpMatrix is stateless: every routine is a static member.  Two kinds of
// storage meet here:
//  - index-range work storage (RangeVector, RangeMatrix, made by vector(),
//    ivector() and matrix()): valid indices are the given ranges, the blocks come
//    from the C heap and are released by the owning object.  An allocation
//    failure ends the process with status 1 (there is no recovery path).
//  - arrays handed to the caller (uT_a_u, transform, eig,
//    gramSchmidtCompletion): zero-based new[] arrays, matrices as new double*[n]
//    plus one new double[n] per row; the caller releases them with delete[],
//    rows first.
//
// Status flags: LU 1 = success, 0 = a row of zeros (singular); power iteration
// 1 = converged, 0 = zero eigenvalue, -1 = iteration limit reached.

#include <cstddef>

class OpMatrix {
  public:
    OpMatrix() = delete;

    // Vector with valid indices lo..hi (empty when hi < lo).  Owns its block.
    template <typename T>
    class RangeVector {
      public:
        RangeVector(int lo, int hi);
        ~RangeVector();
        RangeVector(RangeVector&& other) noexcept;
        RangeVector(const RangeVector&) = delete;
        RangeVector& operator=(const RangeVector&) = delete;
        RangeVector& operator=(RangeVector&&) = delete;

        T& operator[](int i);
        const T& operator[](int i) const;
        int lo() const { return lo_; }
        int hi() const { return hi_; }
        // Element lo at index 0 (null when empty).
        T* data() { return block_; }

      private:
        T* block_ = nullptr;
        int lo_, hi_;
    };

    // Matrix with rows rlo..rhi and columns clo..chi; each row is its own block.
    // No rows are allocated when rhi < rlo.
    class RangeMatrix {
      public:
        RangeMatrix(int rlo, int rhi, int clo, int chi);
        ~RangeMatrix();
        RangeMatrix(RangeMatrix&& other) noexcept;
        RangeMatrix(const RangeMatrix&) = delete;
        RangeMatrix& operator=(const RangeMatrix&) = delete;
        RangeMatrix& operator=(RangeMatrix&&) = delete;

        double& operator()(int r, int c);
        double operator()(int r, int c) const;
        // Row pointers with element (rlo, clo) at [0][0], for the routines below.
        double** rows() { return rows_; }

      private:
        double** rows_ = nullptr;
        int rlo_, rhi_, clo_, chi_;
    };

    // ---- Index-range work storage ----
    static RangeVector<double> vector(int nl, int nh);
    static RangeVector<int> ivector(int nl, int nh);
    static RangeMatrix matrix(int nrl, int nrh, int ncl, int nch);

    // ---- Linear algebra ----
    // Crout LU with implicit partial pivoting, in place.  indx[j] = the row
    // exchanged with row j; *d = +-1 (parity).  ok = 0 when a row is all zeros
    // (a is then left as it was).  An exactly zero pivot becomes 1e-19.
    static void ludcmp(double** a, int n, int* indx, double* d, int& ok);
    // Solves A x = b with the factors of ludcmp; b becomes x.
    static void lubksb(double** a, int n, int* indx, double* b);
    // y = A^-1 into the caller's n x n y; a unchanged; y untouched when ok = 0.
    static void inv(double** a, int n, double** y, int& ok);
    // log|det A| (natural log); a unchanged; *ok (if given) = the ludcmp flag.
    static double ldet(double** a, int n, int* ok = nullptr);

    // One power-iteration run from the fixed start vector x_i = 1/sqrt(i+1).
    // *lambda = signed largest component of A x at the last iteration; v (n
    // entries) = the iterate scaled to unit length, whatever the status.
    static void maxEig_PWM(double zeroTol, double convTol, int maxIter, int n, double** a, int* status,
                           double* lambda, double* v);
    // Same with tolerances 1e-20 / 1e-9 and budgets 50, 100, ... 6400 while the limit is hit.
    static void maxEig_PWM(int n, double** a, int* status, double* lambda, double* v);
    // Dominant eigenvector (unit length) into v; the eigenvalue is discarded.
    static void maxEig(double** a, int n, double* v, int* status);
    static void maxEig(double** a, int n, double* v);

    // The k leading eigen-pairs by power iteration with deflation.  For
    // 1 <= k <= n, u becomes a new n x n array (rows = eigenvectors) and lambda a
    // new double[k], both the caller's whatever the result; returns the number of
    // pairs delivered (0..k).  Nothing is allocated when k < 1 or k > n.
    static int eig(double** a, int n, int k, double**& u, double*& lambda);
    // Completes m orthonormal rows of length n to an orthonormal basis of n rows;
    // u is replaced by a new n x n array (the old row-pointer array is released,
    // its rows are not).  False, u unchanged, when m >= n, m < 1 or the rows are
    // not orthonormal within 1e-6.
    static bool gramSchmidtCompletion(double**& u, int m, int n);

    // New m x m matrix C[p][q] = u_p' A u_q (rows of u have length n).
    static double** uT_a_u(double** u, double** a, int m, int n);
    // u' A u.
    static double uT_a_u(double* u, double** a, int n);
    // New double[k]: y_i = sum_{j<d} m[i][j] x_j.
    static double* transform(double* x, int d, double** m, int k);
    // Dot product; 0.0 when n < 1.
    static double scalar(double* a, double* b, int n);
    // a_i += b_i.
    static void sum(double* a, double* b, int n);

    // Index of the largest / smallest value; the first index wins ties; 0 when n < 2.
    static int max(double* values, int n);
    static int max(int* values, int n);
    static int max(unsigned short* values, int n);
    static int min(double* values, int n);
    static int min(int* values, int n);

    // KL divergence of N(mu0, s0) from N(mu1, s1).  When bound != -1.0 and the
    // value before the Mahalanobis term exceeds 2 * bound, half of it is returned.
    static double kullbackLeibler_Normals(double* mu0, double** s0, double* mu1, double** s1, int d,
                                          double bound);
    // Same with ld0 = log|s0|, ld1 = log|s1| and s1inv = s1^-1 supplied.
    static double kullbackLeibler_Normals(double* mu0, double** s0, double ld0, double* mu1, double** s1inv,
                                          double ld1, int d, double bound);
};
