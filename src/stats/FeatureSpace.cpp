#include "stats/FeatureSpace.h"

#include <algorithm>
#include <cmath>

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

FeatureSpace::FeatureSpace(int capacity, int points) : nPoints(points), maxDomains(capacity) {
    data = new double**[maxDomains]();
    normData = new double**[maxDomains]();
    dims = new int[maxDomains]();
    means = new double*[maxDomains]();
    covs = new double**[maxDomains]();
    normalized = new bool[maxDomains]();
}

FeatureSpace::~FeatureSpace() {
    for (int d = 0; d < maxDomains; ++d) {
        dhc::deleteRows(data[d], nPoints);
        dhc::deleteRows(normData[d], nPoints);
        delete[] means[d];
        dhc::deleteRows(covs[d], dims[d]);
    }
    delete[] data;
    delete[] normData;
    delete[] dims;
    delete[] means;
    delete[] covs;
    delete[] normalized;
    dhc::deleteRows(pcaData, nPoints);
    dhc::deleteRows(scatter, totalDims);
    dhc::deleteRows(eigenvectors, totalDims);
    delete[] eigenvalues;
    delete[] pcaMax;
    delete[] pcaMin;
}

void FeatureSpace::addDomain(double** values, int dim) {
    if (nDomains >= maxDomains) dhc::fatal(-10);
    const int d = nDomains;
    data[d] = dhc::copyRows(values, nPoints, dim);
    dims[d] = dim;

    double* mu = new double[dim]();
    for (int p = 0; p < nPoints; ++p)
        for (int i = 0; i < dim; ++i) mu[i] += values[p][i];
    for (int i = 0; i < dim; ++i) mu[i] /= nPoints;
    means[d] = mu;

    // Biased (divide by n) covariance.
    double** cov = dhc::newRows<double>(dim, dim);
    for (int i = 0; i < dim; ++i) {
        for (int j = 0; j < dim; ++j) {
            double s = 0.0;
            for (int p = 0; p < nPoints; ++p) s += values[p][i] * values[p][j];
            cov[i][j] = s / nPoints - mu[i] * mu[j];
        }
    }
    covs[d] = cov;

    // The scatter matrix is sized by totalDims, so release it before that changes.
    dhc::deleteRows(scatter, totalDims);
    scatter = nullptr;
    dhc::deleteRows(eigenvectors, totalDims);
    eigenvectors = nullptr;
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
    return copyVector(means[d], dims[d]);
}

double** FeatureSpace::getSigma(int d) {
    if (d < 0 || d >= nDomains) return nullptr;
    return dhc::copyRows(covs[d], dims[d], dims[d]);
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
    dhc::deleteRows(pcaData, nPoints);
    pcaData = nullptr;
    nComponents = k;
    const int n = totalDims;

    dhc::deleteRows(scatter, n);
    scatter = dhc::newRows<double>(n, n);
    start();
    for (int p = 0; p < nPoints; ++p, next()) {
        const double* z = getzm();
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) scatter[i][j] += z[i] * z[j];
    }
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) scatter[i][j] /= nPoints;

    dhc::deleteRows(eigenvectors, n);
    eigenvectors = nullptr;
    delete[] eigenvalues;
    eigenvalues = nullptr;
    // More components than features: the extra components are identically zero.
    const int analysed = std::min(k, n);
    double* found = nullptr;
    if (analysed > 0) OpMatrix::eig(scatter, n, analysed, eigenvectors, found);
    eigenvalues = new double[k]();
    if (found != nullptr) std::copy(found, found + analysed, eigenvalues);
    delete[] found;

    pcaData = dhc::newRows<double>(nPoints, k);
    start();
    for (int p = 0; p < nPoints; ++p, next()) {
        if (analysed < 1) break;
        double* y = OpMatrix::transform(getzm(), n, eigenvectors, analysed);
        std::copy(y, y + analysed, pcaData[p]);
        delete[] y;
    }

    // Range of each component, kept for the binning operations.
    delete[] pcaMax;
    delete[] pcaMin;
    pcaMax = new double[k];
    pcaMin = new double[k];
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
    double* sd = getStDevs(d);
    dhc::deleteRows(normData[d], nPoints);
    normData[d] = dhc::copyRows(data[d], nPoints, dims[d]);
    // A constant feature has nothing to scale and is kept as it is.
    for (int p = 0; p < nPoints; ++p)
        for (int i = 0; i < dims[d]; ++i)
            if (sd[i] > 0.0) normData[d][p][i] /= sd[i];
    delete[] sd;
    normalized[d] = true;
}

double** FeatureSpace::getNormData(int d) {
    if (d < 0 || d >= nDomains) return nullptr;
    if (!normalized[d]) normalizeWithStd(d);
    return dhc::copyRows(normData[d], nPoints, dims[d]);
}
