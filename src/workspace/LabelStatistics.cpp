#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "data/PottsMapRegion.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/OpMatrix.h"
#include "workspace/PixelSums.h"
#include "workspace/PottsWS.h"

// Statistics of a workspace's pixels by label or class, and the completion of
// a partly labelled map by maximum likelihood.

using namespace dhc::workspace;

// ---------------------------------------------------------------------------
// Statistics by label

// The label statistics have two ways of telling a pixel's class: its map
// label, or a class array the caller keeps in pixel order (which spares the
// scattered map reads when the caller already knows every pixel's class).
// Both go through the accumulations below, so they give the same bits.

template <typename Selected>
void PottsWS::meanWhere(Selected selected, double* out) {
    const PixelScan scan{*this};
    const int d = bands;
    std::fill(out, out + d, 0.0);
    cursor = 0;
    const ClassSums exact = classSums(
        scan, 1, d, [&selected](int p) { return selected(p) ? 0 : -1; }, false);
    const int count = exact.counts[0];
    if (exact.doubleSumsExact(false)) {
        for (int b = 0; b < d; ++b) out[b] = static_cast<double>(exact.sums[b]);
    } else {
        for (int p = 0; p < scan.count(); ++p) {
            if (!selected(p)) continue;
            const int* x = scan.values(p);
            for (int b = 0; b < d; ++b) out[b] += static_cast<double>(x[b]);
        }
    }
    scan.finish();
    // No guard: an absent label gives NaN, which callers rely on to tell it apart.
    for (int b = 0; b < d; ++b) out[b] /= static_cast<double>(count);
}

template <typename ClassOf>
void PottsWS::meansOf(int n, ClassOf classOf, int* counts, double** means) {
    const PixelScan scan{*this};
    const int d = bands;
    for (int j = 0; j < n; ++j) {
        counts[j] = 0;
        std::fill(means[j], means[j] + d, 0.0);
    }
    cursor = 0;
    const ClassSums exact = classSums(scan, n, d, classOf, false);
    if (exact.doubleSumsExact(false)) {
        for (int j = 0; j < n; ++j) {
            counts[j] = exact.counts[j];
            for (int b = 0; b < d; ++b)
                means[j][b] = static_cast<double>(exact.sums[static_cast<size_t>(j) * d + b]);
        }
    } else {
        for (int p = 0; p < scan.count(); ++p) {
            const int j = classOf(p);
            if (j < 0) continue;
            const int* x = scan.values(p);
            for (int b = 0; b < d; ++b) means[j][b] += static_cast<double>(x[b]);
            ++counts[j];
        }
    }
    scan.finish();
    for (int j = 0; j < n; ++j)
        if (counts[j] > 0)
            for (int b = 0; b < d; ++b) means[j][b] /= static_cast<double>(counts[j]);
}

template <typename Selected>
void PottsWS::sigmaWhere(Selected selected, double** out) {
    const int d = bands;
    std::vector<double> mu(d > 0 ? d : 0);
    meanWhere(selected, mu.data());
    const PixelScan scan{*this};
    cursor = 0;
    const ClassSums exact = classSums(
        scan, 1, d, [&selected](int p) { return selected(p) ? 0 : -1; }, true);
    scan.finish();
    const ProductSums& products = exact.products[0];
    const int count = exact.counts[0];
    for (int i = 0; i < d; ++i)
        for (int j = 0; j < d; ++j)
            out[i][j] = products.at(i, j) / static_cast<double>(count) - mu[i] * mu[j];
    repairDegenerate(out, d);
}

void PottsWS::getMi(int label, double* out) {
    const PixelScan scan{*this};
    meanWhere([&scan, label](int p) { return scan.label(p) == label; }, out);
}

double* PottsWS::getMi(int label) {
    double* out = new double[bands > 0 ? bands : 0];
    getMi(label, out);
    return out;
}

void PottsWS::getMi(int n, int* labels, int* counts, double** means) {
    const PixelScan scan{*this};
    meansOf(
        n, [&scan, labels, n](int p) { return firstMatch(labels, n, scan.label(p)); }, counts, means);
}

void PottsWS::getMiOfClasses(int n, const int* classOf, int* counts, double** means) {
    meansOf(
        n, [classOf](int p) { return classOf[p]; }, counts, means);
}

void PottsWS::getSigma(int label, double** out) {
    const PixelScan scan{*this};
    sigmaWhere([&scan, label](int p) { return scan.label(p) == label; }, out);
}

void PottsWS::getSigmaOfClass(int c, const int* classOf, double** out) {
    sigmaWhere([classOf, c](int p) { return classOf[p] == c; }, out);
}

double** PottsWS::getSigma(int label) {
    double** out = dhc::newRows<double>(bands, bands);
    getSigma(label, out);
    return out;
}

template <typename ClassOf>
void PottsWS::sigmasOf(int n, ClassOf classOf, int* counts, double*** covs) {
    const PixelScan scan{*this};
    const int d = bands;
    std::vector<std::vector<double>> sums(n > 0 ? n : 0, std::vector<double>(d > 0 ? d : 0, 0.0));
    cursor = 0;
    const ClassSums exact = classSums(scan, n > 0 ? n : 0, d, classOf, true);
    const std::vector<ProductSums>& products = exact.products;
    for (int j = 0; j < n; ++j) counts[j] = exact.counts[j];
    if (exact.doubleSumsExact(false)) {
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < d; ++i)
                sums[j][i] = static_cast<double>(exact.sums[static_cast<size_t>(j) * d + i]);
    } else {
        for (int p = 0; p < scan.count(); ++p) {
            const int j = classOf(p);
            if (j < 0) continue;
            const int* x = scan.values(p);
            for (int i = 0; i < d; ++i) sums[j][i] += static_cast<double>(x[i]);
        }
    }
    scan.finish();
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < d; ++i)
            for (int l = 0; l < d; ++l) covs[j][i][l] = products[j].at(i, l);
        if (counts[j] > 0) {
            const double c = counts[j];
            for (int i = 0; i < d; ++i) sums[j][i] /= c;
            for (int i = 0; i < d; ++i)
                for (int l = 0; l < d; ++l) covs[j][i][l] = covs[j][i][l] / c - sums[j][i] * sums[j][l];
        }
        repairDegenerate(covs[j], d);
    }
}

void PottsWS::getSigma(int n, int* labels, int* counts, double*** covs) {
    const PixelScan scan{*this};
    sigmasOf(
        n, [&scan, labels, n](int p) { return firstMatch(labels, n, scan.label(p)); }, counts, covs);
}

void PottsWS::getSigmaOfClasses(int n, const int* classOf, int* counts, double*** covs) {
    sigmasOf(
        n, [classOf](int p) { return classOf[p]; }, counts, covs);
}

void PottsWS::classesOf(int n, const int* labels, int* classOf) {
    const PixelScan scan{*this};
    cursor = 0;
    dhc::forChunks(scan.count(), kGrain, [&](int begin, int end, int) {
        for (int p = begin; p < end; ++p) classOf[p] = firstMatch(labels, n, scan.label(p));
    });
    scan.finish();
}

void PottsWS::getAreas(int n, int* labels, int* areas) {
    const PixelScan scan{*this};
    std::fill(areas, areas + (n > 0 ? n : 0), 0);
    cursor = 0;
    for (int p = 0; p < scan.count(); ++p) {
        const int j = firstMatch(labels, n, scan.label(p));
        if (j >= 0) ++areas[j];
    }
    scan.finish();
}

// ---------------------------------------------------------------------------
// Maximum-likelihood completion

void PottsWS::MLMapCompletion(double** means, double*** covs) {
    const PixelScan scan{*this};
    const int d = bands;
    int nLabels = 0;
    int* present = root->labels(nLabels);
    const int first = (nLabels > 0 && present[0] == 0) ? 1 : 0;
    const int k = nLabels - first;
    std::vector<int> classLabel(present + first, present + nLabels);
    delete[] present;

    auto classOf = [&](int v) {
        auto it = std::lower_bound(classLabel.begin(), classLabel.end(), v);
        return (it != classLabel.end() && *it == v) ? static_cast<int>(it - classLabel.begin()) : -1;
    };

    // Class statistics from the labelled pixels (exact product sums, no repair).
    std::vector<int> counts(k, 0);
    std::vector<std::vector<double>> mu(k, std::vector<double>(d, 0.0));
    std::vector<ProductSums> products(k, ProductSums(d));
    std::vector<double**> cov(k);
    for (int c = 0; c < k; ++c) cov[c] = dhc::newRows<double>(d, d);
    cursor = 0;
    for (int p = 0; p < scan.count(); ++p) {
        const int v = scan.label(p);
        if (v == 0) continue;
        const int c = classOf(v);
        if (c < 0) continue;
        const int* x = scan.values(p);
        for (int i = 0; i < d; ++i) mu[c][i] += static_cast<double>(x[i]);
        products[c].add(x);
        ++counts[c];
    }
    scan.finish();
    for (int c = 0; c < k; ++c) {
        const double n = counts[c];
        for (int i = 0; i < d; ++i) mu[c][i] /= n;
        for (int i = 0; i < d; ++i)
            for (int j = 0; j < d; ++j) cov[c][i][j] = products[c].at(i, j) / n - mu[c][i] * mu[c][j];
    }

    // Inverses and log-determinants; a singular class takes no part.
    std::vector<double**> inverse(k);
    std::vector<int> eligible(k, 0);
    std::vector<double> logDet(k, 0.0);
    for (int c = 0; c < k; ++c) {
        inverse[c] = dhc::newRows<double>(d, d);
        int ok = 0;
        OpMatrix::inv(cov[c], d, inverse[c], ok);
        eligible[c] = ok;
        if (ok) logDet[c] = OpMatrix::ldet(cov[c], d);
    }

    std::vector<double> diff(d);
    cursor = 0;
    for (int p = 0; p < scan.count(); ++p) {
        const int* x = scan.values(p);
        double best = std::numeric_limits<double>::max();
        int bestLabel = 0;
        for (int c = 0; c < k; ++c) {
            if (!eligible[c]) continue;
            for (int i = 0; i < d; ++i) diff[i] = static_cast<double>(x[i]) - mu[c][i];
            double score = logDet[c];
            for (int i = 0; i < d; ++i)
                for (int j = 0; j < d; ++j) score += diff[i] * inverse[c][i][j] * diff[j];
            if (score < best) {
                best = score;
                bestLabel = classLabel[c];
            }
        }
        const xy& co = coords[p];
        root->map[co.x + root->pad][co.y + root->pad] = bestLabel;
    }
    scan.finish();

    for (int c = 0; c < k; ++c) {
        if (means != nullptr) std::copy(mu[c].begin(), mu[c].end(), means[c]);
        if (covs != nullptr) dhc::copyRowsInto(cov[c], covs[c], d, d);
        dhc::deleteRows(cov[c], d);
        dhc::deleteRows(inverse[c], d);
    }
}
