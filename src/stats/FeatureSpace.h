#pragma once
// A set of nPoints points described by one or more groups of features
// (domains), each with its own dimension: per-domain means, biased covariances
// and standard deviations, and a principal-component projection of the
// concatenated zero-mean features.  Every array here is owned and released by
// the destructor; operations documented as returning "new" memory hand it to
// the caller (matrices as new double*[rows] plus one new double[cols] per row).

#include <vector>

class FeatureSpace {
  public:
    double*** data = nullptr;      // per domain: nPoints rows of dims[d] values
    double*** normData = nullptr;  // per domain: the same divided by the standard deviations
    int nPoints = 0;
    int maxDomains = 0;
    int* dims = nullptr;              // per domain
    int totalDims = 0;                // sum of the dimensions added so far
    double** means = nullptr;         // per domain
    double*** covs = nullptr;         // per domain, dims[d] x dims[d]
    double** pcaData = nullptr;       // nPoints x nComponents (null before the first analysis)
    int nComponents = -1;             // components of the last analysis; -1 before any
    double** scatter = nullptr;       // totalDims x totalDims covariance of the concatenated features
    double** eigenvectors = nullptr;  // rows: eigenvectors of scatter (totalDims x totalDims)
    double* eigenvalues = nullptr;    // nComponents leading eigenvalues
    int nDomains = 0;
    bool* normalized = nullptr;  // per domain: normData valid
    double* pcaMax = nullptr;    // per component: largest projected value
    double* pcaMin = nullptr;    // per component: smallest projected value

    FeatureSpace(int maxDomains, int nPoints);
    ~FeatureSpace();
    FeatureSpace(const FeatureSpace&) = delete;
    FeatureSpace& operator=(const FeatureSpace&) = delete;

    // Copies nPoints rows of dim values as the next domain and computes its mean
    // and covariance; ends the process with status -10 when the space is full.
    void addDomain(double** values, int dim);

    // New arrays (null when domain d has no data).
    double* mean(int d);
    double** covariance(int d);

    // Point iteration: start(); do { ... get() ... } while (next());
    void start();
    bool next();
    // The current point's features: all domains concatenated, or domain d only.
    // The pointers stay valid until the next call and belong to the space.
    double* get();
    double* get(int d);
    // The same minus each domain's mean.
    double* getzm();
    double* getzm(int d);

    // Principal components of the concatenated zero-mean features, k of them;
    // an existing analysis with at least k components is kept.
    void PCA(int k);
    // New nPoints x k array of projected points; null when an analysis with
    // fewer than k components exists.  normalize divides each component by its
    // eigenvalue (the variance itself).
    double** getPCAData(int k, bool normalize);

    // Copies of the mean and covariance of domain d (null when empty).
    double* getMi(int d);
    double** getSigma(int d);
    // New array: square roots of the covariance diagonal of domain d.
    double* getStDevs(int d);
    // Divides domain d by its standard deviations into normData.
    void normalizeWithStd(int d);
    // New copy of the standardised domain d (standardised on demand; null when empty).
    double** getNormData(int d);

  private:
    int current_ = 0;
    std::vector<double> point_;  // buffer of get()/getzm()
};
