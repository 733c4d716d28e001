#include "stats/FeatureSpace.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <utility>

#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "stats/OpMatrix.h"

namespace {

double* copyVector(const double* from, int n) {
    double* v = new double[n];
    std::copy(from, from + n, v);
    return v;
}

}  // namespace

FeatureSpace::FeatureSpace(int capacity, int points)
    : data(std::max(capacity, 0)),
      normData(std::max(capacity, 0)),
      nPoints(points),
      maxDomains(capacity),
      dims(std::max(capacity, 0), 0),
      means(std::max(capacity, 0)),
      covs(std::max(capacity, 0)),
      normalized(std::max(capacity, 0), false) {}

void FeatureSpace::addDomain(double** values, int dim) {
    if (nDomains >= maxDomains) dhc::fatal(-10);
    const int d = nDomains;
    data[d] = dhc::Grid<double>::copyOf(values, nPoints, dim);
    dims[d] = dim;

    std::vector<double> mu(std::max(dim, 0), 0.0);
    for (int p = 0; p < nPoints; ++p)
        for (int i = 0; i < dim; ++i) mu[i] += values[p][i];
    for (int i = 0; i < dim; ++i) mu[i] /= nPoints;

    // Biased (divide by n) covariance.
    dhc::Grid<double> cov(dim, dim);
    for (int i = 0; i < dim; ++i) {
        for (int j = 0; j < dim; ++j) {
            double s = 0.0;
            for (int p = 0; p < nPoints; ++p) s += values[p][i] * values[p][j];
            cov[i][j] = s / nPoints - mu[i] * mu[j];
        }
    }
    means[d] = std::move(mu);
    covs[d] = std::move(cov);

    // The scatter matrix is sized by totalDims: it goes before that changes.
    scatter = dhc::Grid<double>();
    eigenvectors = dhc::Grid<double>();
    totalDims += dim;
    ++nDomains;
}

double* FeatureSpace::mean(int d) {
    return getMi(d);
}

double** FeatureSpace::covariance(int d) {
    return getSigma(d);
}

double* FeatureSpace::getMi(int d) {
    if (d < 0 || d >= nDomains) return nullptr;
    return copyVector(means[d].data(), dims[d]);
}

double** FeatureSpace::getSigma(int d) {
    if (d < 0 || d >= nDomains) return nullptr;
    return dhc::copyRows(covs[d].rows(), dims[d], dims[d]);
}

double* FeatureSpace::getStDevs(int d) {
    if (d < 0 || d >= nDomains) return nullptr;
    double* s = new double[dims[d]];
    for (int i = 0; i < dims[d]; ++i) s[i] = std::sqrt(covs[d][i][i]);
    return s;
}

void FeatureSpace::start() {
    current_ = 0;
}

bool FeatureSpace::next() {
    ++current_;
    return current_ < nPoints;
}

double* FeatureSpace::get() {
    point_.clear();
    for (int d = 0; d < nDomains; ++d)
        point_.insert(point_.end(), data[d][current_], data[d][current_] + dims[d]);
    return point_.data();
}

double* FeatureSpace::get(int d) {
    return data[d][current_];
}

double* FeatureSpace::getzm() {
    point_.clear();
    for (int d = 0; d < nDomains; ++d)
        for (int i = 0; i < dims[d]; ++i) point_.push_back(data[d][current_][i] - means[d][i]);
    return point_.data();
}

double* FeatureSpace::getzm(int d) {
    point_.assign(dims[d], 0.0);
    for (int i = 0; i < dims[d]; ++i) point_[i] = data[d][current_][i] - means[d][i];
    return point_.data();
}

void FeatureSpace::PCA(int k) {
    if (nComponents >= k) return;
    pcaData = dhc::Grid<double>();
    nComponents = k;
    const int n = totalDims;

    scatter = dhc::Grid<double>(n, n);
    start();
    for (int p = 0; p < nPoints; ++p, next()) {
        const double* z = getzm();
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) scatter[i][j] += z[i] * z[j];
    }
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) scatter[i][j] /= nPoints;

    eigenvectors = dhc::Grid<double>();
    // More components than features: the extra components are identically zero.
    const int analysed = std::min(k, n);
    double** vectors = nullptr;
    double* found = nullptr;
    if (analysed > 0) OpMatrix::eig(scatter.rows(), n, analysed, vectors, found);
    if (vectors != nullptr) eigenvectors = dhc::Grid<double>::copyOf(vectors, n, n);
    dhc::deleteRows(vectors, n);
    eigenvalues.assign(std::max(k, 0), 0.0);
    const std::unique_ptr<double[]> foundOwner(found);
    if (found != nullptr) std::copy(found, found + analysed, eigenvalues.begin());

    pcaData = dhc::Grid<double>(nPoints, k);
    start();
    for (int p = 0; p < nPoints; ++p, next()) {
        if (analysed < 1) break;
        const std::unique_ptr<double[]> y(OpMatrix::transform(getzm(), n, eigenvectors.rows(), analysed));
        std::copy(y.get(), y.get() + analysed, pcaData[p]);
    }

    // Range of each component, kept for the binning operations.
    pcaMax.assign(std::max(k, 0), 0.0);
    pcaMin.assign(std::max(k, 0), 0.0);
    std::vector<double> column(nPoints);
    for (int c = 0; c < k; ++c) {
        for (int p = 0; p < nPoints; ++p) column[p] = pcaData[p][c];
        pcaMax[c] = nPoints > 0 ? column[OpMatrix::max(column.data(), nPoints)] : 0.0;
        pcaMin[c] = nPoints > 0 ? column[OpMatrix::min(column.data(), nPoints)] : 0.0;
    }
}

double** FeatureSpace::getPCAData(int k, bool normalize) {
    // An analysis with fewer components is deliberately not recomputed.
    if (nComponents >= 0 && nComponents < k) return nullptr;
    PCA(k);
    double** result = dhc::newRows<double>(nPoints, k);
    for (int p = 0; p < nPoints; ++p)
        for (int c = 0; c < k; ++c) result[p][c] = normalize ? pcaData[p][c] / eigenvalues[c] : pcaData[p][c];
    return result;
}

void FeatureSpace::normalizeWithStd(int d) {
    if (d < 0 || d >= nDomains) return;
    const std::unique_ptr<double[]> sd(getStDevs(d));
    normData[d] = dhc::Grid<double>::copyOf(data[d].rows(), nPoints, dims[d]);
    // A constant feature has nothing to scale and is kept as it is.
    for (int p = 0; p < nPoints; ++p)
        for (int i = 0; i < dims[d]; ++i)
            if (sd[i] > 0.0) normData[d][p][i] /= sd[i];
    normalized[d] = true;
}

double** FeatureSpace::getNormData(int d) {
    if (d < 0 || d >= nDomains) return nullptr;
    if (!normalized[d]) normalizeWithStd(d);
    return dhc::copyRows(normData[d].rows(), nPoints, dims[d]);
}
