#include "stats/FeatureSpace.h"

#include <algorithm>
#include <cmath>

#include "settings/Fatal.h"
#include "stats/OpMatrix.h"

namespace {

double** newMatrix(int rows, int cols) {
    double** m = new double*[rows];
    for (int r = 0; r < rows; ++r) m[r] = new double[cols]();
    return m;
}

void deleteMatrix(double** m, int rows) {
    if (m == nullptr) return;
    for (int r = 0; r < rows; ++r) delete[] m[r];
    delete[] m;
}

double** copyMatrix(double** from, int rows, int cols) {
    double** m = new double*[rows];
    for (int r = 0; r < rows; ++r) {
        m[r] = new double[cols];
        std::copy(from[r], from[r] + cols, m[r]);
    }
    return m;
}

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
        deleteMatrix(data[d], nPoints);
        deleteMatrix(normData[d], nPoints);
        delete[] means[d];
        deleteMatrix(covs[d], dims[d]);
    }
    delete[] data;
    delete[] normData;
    delete[] dims;
    delete[] means;
    delete[] covs;
    delete[] normalized;
    deleteMatrix(pcaData, nPoints);
    deleteMatrix(scatter, totalDims);
    deleteMatrix(eigenvectors, totalDims);
    delete[] eigenvalues;
    delete[] pcaMax;
    delete[] pcaMin;
}

void FeatureSpace::addDomain(double** values, int dim) {
    if (nDomains >= maxDomains) dhc::fatal(-10);
    const int d = nDomains;
    data[d] = copyMatrix(values, nPoints, dim);
    dims[d] = dim;

    double* mu = new double[dim]();
    for (int p = 0; p < nPoints; ++p)
        for (int i = 0; i < dim; ++i) mu[i] += values[p][i];
    for (int i = 0; i < dim; ++i) mu[i] /= nPoints;
    means[d] = mu;

    // Biased (divide by n) covariance.
    double** cov = newMatrix(dim, dim);
    for (int i = 0; i < dim; ++i) {
        for (int j = 0; j < dim; ++j) {
            double s = 0.0;
            for (int p = 0; p < nPoints; ++p) s += values[p][i] * values[p][j];
            cov[i][j] = s / nPoints - mu[i] * mu[j];
        }
    }
    covs[d] = cov;

    // The scatter matrix is sized by totalDims, so release it before that changes.
    deleteMatrix(scatter, totalDims);
    scatter = nullptr;
    deleteMatrix(eigenvectors, totalDims);
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
    return copyMatrix(covs[d], dims[d], dims[d]);
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
    deleteMatrix(pcaData, nPoints);
    pcaData = nullptr;
    nComponents = k;
    const int n = totalDims;

    deleteMatrix(scatter, n);
    scatter = newMatrix(n, n);
    start();
    for (int p = 0; p < nPoints; ++p, next()) {
        const double* z = getzm();
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) scatter[i][j] += z[i] * z[j];
    }
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) scatter[i][j] /= nPoints;

    deleteMatrix(eigenvectors, n);
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

    pcaData = newMatrix(nPoints, k);
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
    double** result = new double*[nPoints];
    for (int p = 0; p < nPoints; ++p) {
        result[p] = new double[k];
        for (int c = 0; c < k; ++c) result[p][c] = normalize ? pcaData[p][c] / eigenvalues[c] : pcaData[p][c];
    }
    return result;
}

void FeatureSpace::normalizeWithStd(int d) {
    if (d < 0 || d >= nDomains) return;
    double* sd = getStDevs(d);
    deleteMatrix(normData[d], nPoints);
    normData[d] = copyMatrix(data[d], nPoints, dims[d]);
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
    return copyMatrix(normData[d], nPoints, dims[d]);
}
