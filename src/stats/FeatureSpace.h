#pragma once
// A set of nPoints points described by one or more groups of features
// (domains), each with its own dimension: per-domain means, biased covariances
// and standard deviations, and a principal-component projection of the
// concatenated zero-mean features.  The space owns its arrays; operations
// documented as returning "new" memory hand it to the caller (matrices as new
// double*[rows] plus one new double[cols] per row).

#include <vector>

#include "base/Grid.h"

class FeatureSpace {
  public:
    std::vector<dhc::Grid<double>> data;      // per domain: nPoints rows of dims[d] values
    std::vector<dhc::Grid<double>> normData;  // per domain: the same divided by the standard deviations
    int nPoints = 0;
    int maxDomains = 0;
    std::vector<int> dims;                   // per domain
    int totalDims = 0;                       // sum of the dimensions added so far
    std::vector<std::vector<double>> means;  // per domain
    std::vector<dhc::Grid<double>> covs;     // per domain, dims[d] x dims[d]
    dhc::Grid<double> pcaData;               // nPoints x nComponents (empty before the first analysis)
    int nComponents = -1;                    // components of the last analysis; -1 before any
    dhc::Grid<double> scatter;               // totalDims x totalDims covariance of the concatenated features
    dhc::Grid<double> eigenvectors;          // rows: eigenvectors of scatter (totalDims x totalDims)
    std::vector<double> eigenvalues;         // nComponents leading eigenvalues
    int nDomains = 0;
    std::vector<bool> normalized;  // per domain: normData valid
    std::vector<double> pcaMax;    // per component: largest projected value
    std::vector<double> pcaMin;    // per component: smallest projected value

    FeatureSpace(int maxDomains, int nPoints);

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
