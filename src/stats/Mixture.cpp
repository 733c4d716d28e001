#include "stats/Mixture.h"

#include "settings/RowMatrix.h"
#include "stats/OpMatrix.h"

Mixture::Mixture() = default;

Mixture::Mixture(int nClasses, int d) : dim(d), k(nClasses), storage(2) {
    mi = dhc::newRows<double>(k, dim);
    sigma = new double**[k];
    for (int i = 0; i < k; ++i) sigma[i] = dhc::newRows<double>(dim, dim);
}

Mixture::Mixture(int nClasses, int d, double** means, double*** covariances, bool withInv)
    : dim(d), k(nClasses), mi(means), sigma(covariances), storage(2) {
    if (withInv) {
        inv();
        updateInv();
    }
}

Mixture::Mixture(Mixture* parent, int nClasses, int* idx) {
    // Linking needs the parent's inverses; without them the result stays empty.
    if (parent->hasInv == 0) return;
    dim = parent->dim;
    k = nClasses;
    mi = new double*[k];
    sigma = new double**[k];
    sigmaInv = new double**[k];
    logdet = new double[k];
    invOk = new int[k];
    for (int i = 0; i < k; ++i) {
        const int p = idx[i];
        mi[i] = parent->mi[p];
        sigma[i] = parent->sigma[p];
        sigmaInv[i] = parent->sigmaInv[p];
        logdet[i] = parent->logdet[p];
        invOk[i] = parent->invOk[p];
    }
    linkIndex = idx;
    storage = 1;
    hasInv = 1;
}

Mixture::~Mixture() {
    if (storage > 0) {
        if (storage == 2) {
            for (int i = 0; i < k; ++i) {
                delete[] mi[i];
                dhc::deleteRows(sigma[i], dim);
            }
        }
        delete[] mi;
        delete[] sigma;
    }
    if (hasInv == 1) {
        if (storage == 2)
            for (int i = 0; i < k; ++i) dhc::deleteRows(sigmaInv[i], dim);
        delete[] sigmaInv;
        delete[] logdet;
        delete[] invOk;
    }
}

void Mixture::set(int i, double* mean, double** covariance) {
    if (storage < 1 || dim < 1) return;
    for (int c = 0; c < dim; ++c) mi[i][c] = mean[c];
    dhc::copyRowsInto(covariance, sigma[i], dim, dim);
}

void Mixture::set(double** means, double*** covariances, bool copy) {
    if (copy) {
        for (int i = 0; i < k; ++i) set(i, means[i], covariances[i]);
    } else {
        mi = means;
        sigma = covariances;
    }
    storage = 2;
}

void Mixture::inv() {
    // The storage is made once; a second call keeps it.
    if (hasInv == 1) return;
    sigmaInv = new double**[k];
    for (int i = 0; i < k; ++i) sigmaInv[i] = dhc::newRows<double>(dim, dim);
    invOk = new int[k]();
    logdet = new double[k]();
    hasInv = 1;
}

bool Mixture::updateInv() {
    if (hasInv == 0) return false;
    bool all = true;
    for (int i = 0; i < k; ++i)
        if (!updateInv(i)) all = false;
    return all;
}

bool Mixture::updateInv(int i) {
    if (hasInv == 0) return false;
    // Work on a copy so the covariance itself is never touched; a singular class
    // keeps its previous inverse and log-determinant.
    double** work = dhc::copyRows(sigma[i], dim, dim);
    int ok;
    OpMatrix::inv(work, dim, sigmaInv[i], ok);
    invOk[i] = ok;
    if (ok != 0) logdet[i] = OpMatrix::ldet(work, dim);
    dhc::deleteRows(work, dim);
    return invOk[i] > 0;
}

bool Mixture::checkInv() const {
    if (k < 1) return true;
    if (hasInv == 0) return false;  // nothing has been inverted yet
    for (int i = 0; i < k; ++i)
        if (invOk[i] < 1) return false;
    return true;
}

Mixture* Mixture::generateLinkedMixture(bool* mask) {
    if (storage != 2 || k < 1) return nullptr;
    int count = 0;
    for (int i = 0; i < k; ++i)
        if (mask[i]) ++count;
    if (count == 0) return nullptr;
    int* idx = new int[count];
    int next = 0;
    for (int i = 0; i < k; ++i)
        if (mask[i]) idx[next++] = i;
    return new Mixture(this, count, idx);
}

double** Mixture::getMiCopy() const {
    return dhc::copyRows(mi, k, dim);
}

double*** Mixture::getSigmaInvCopy() const {
    if (hasInv == 0) return nullptr;
    double*** copy = new double**[k];
    for (int i = 0; i < k; ++i) copy[i] = dhc::copyRows(sigmaInv[i], dim, dim);
    return copy;
}

double* Mixture::getLogdetCopy() const {
    if (hasInv == 0) return nullptr;
    double* copy = new double[k];
    for (int i = 0; i < k; ++i) copy[i] = logdet[i];
    return copy;
}
