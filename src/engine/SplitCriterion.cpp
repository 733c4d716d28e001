#include "engine/SplitCriterion.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "data/PottsMapRegion.h"
#include "stats/OpMatrix.h"
#include "settings/Workers.h"
#include "workspace/PottsWS.h"

namespace dhc {

namespace {

// One Gaussian class: its mean, inverse covariance and log normalisation.
struct Gaussian {
    std::vector<double> mean;
    std::vector<double> inverse;  // d x d, row by row
    double logNorm = 0.0;
};

// Fails (false) when the covariance, with the rounding variance added on its
// diagonal, is singular.
bool gaussianOf(const PottsWS& src, int d, double rounding, Gaussian& g) {
    constexpr double kLog2Pi = 1.8378770664093454836;
    std::vector<double*> rows(d), invRows(d);
    std::vector<double> cov(static_cast<std::size_t>(d) * d);
    g.inverse.assign(static_cast<std::size_t>(d) * d, 0.0);
    for (int i = 0; i < d; ++i) {
        for (int j = 0; j < d; ++j) cov[static_cast<std::size_t>(i) * d + j] = src.sigma[i][j] + (i == j ? rounding : 0.0);
        rows[i] = &cov[static_cast<std::size_t>(i) * d];
        invRows[i] = &g.inverse[static_cast<std::size_t>(i) * d];
    }
    int invertible = 0;
    OpMatrix::inv(rows.data(), d, invRows.data(), invertible);
    const double logdet = OpMatrix::ldet(rows.data(), d);
    if (invertible == 0 || !std::isfinite(logdet)) return false;
    g.logNorm = -0.5 * (d * kLog2Pi + logdet);
    g.mean.assign(src.mi, src.mi + d);
    return true;
}

double logDensity(const Gaussian& g, const int* x, int d, std::vector<double>& diff) {
    for (int i = 0; i < d; ++i) diff[i] = x[i] - g.mean[i];
    double q = 0.0;
    for (int i = 0; i < d; ++i) {
        const double* row = &g.inverse[static_cast<std::size_t>(i) * d];
        double s = 0.0;
        for (int j = 0; j < d; ++j) s += row[j] * diff[j];
        q += diff[i] * s;
    }
    return g.logNorm - 0.5 * q;
}

// log sum exp of v[0..n-1].
double logSum(const std::vector<double>& v, int n) {
    double top = -std::numeric_limits<double>::infinity();
    for (int c = 0; c < n; ++c) top = std::max(top, v[c]);
    double z = 0.0;
    for (int c = 0; c < n; ++c) z += std::exp(v[c] - top);
    return top + std::log(z);
}

}  // namespace

double splitCriterion(const PottsWS& w, int k, PottsWS* const* children, bool icl) {
    const int d = w.bands;
    const int n = w.loadedCount;
    const double total = w.envelopeCount;
    const double fail = -std::numeric_limits<double>::infinity();
    if (n < 1 || d < 1 || total <= 0.0 || k < 2) return fail;
    // The variance of rounding a value to an integer.
    constexpr double rounding = 1.0 / 12.0;
    Gaussian parentClass;
    if (!gaussianOf(w, d, rounding, parentClass)) return fail;
    std::vector<Gaussian> classes(k);
    std::vector<int> childLabel(k);
    for (int c = 0; c < k; ++c) {
        if (children[c]->envelopeCount <= 0 || !gaussianOf(*children[c], d, rounding, classes[c])) return fail;
        childLabel[c] = children[c]->root->label;
    }

    int** map = w.root->map;
    const int pad = w.root->pad;
    const double beta = w.beta;
    constexpr int kBlock = 8192;
    const int blocks = (n + kBlock - 1) / kBlock;
    // Per block: log-likelihood under the parent, under the split, and the
    // posteriors' entropy.
    std::vector<double> sums(static_cast<std::size_t>(blocks) * 3, 0.0);
    forChunks(blocks, 1, [&](int first, int last, int) {
        std::vector<double> diff(d), prior(k), joint(k);
        for (int b = first; b < last; ++b) {
            double parent = 0.0, split = 0.0, entropy = 0.0;
            const int end = std::min(n, (b + 1) * kBlock);
            for (int p = b * kBlock; p < end; ++p) {
                const int* x = w.data + static_cast<std::size_t>(p) * d;
                const xy& q = w.coords[p];
                const int r0 = q.x + pad, c0 = q.y + pad;
                parent += logDensity(parentClass, x, d, diff);
                for (int c = 0; c < k; ++c) {
                    int agree = 0;
                    for (int dr = -1; dr <= 1; ++dr)
                        for (int dc = -1; dc <= 1; ++dc)
                            agree += (dr != 0 || dc != 0) && map[r0 + dr][c0 + dc] == childLabel[c];
                    prior[c] = beta * agree;
                }
                const double priorZ = logSum(prior, k);
                for (int c = 0; c < k; ++c) joint[c] = prior[c] - priorZ + logDensity(classes[c], x, d, diff);
                const double z = logSum(joint, k);
                split += z;
                if (icl) {
                    for (int c = 0; c < k; ++c) {
                        const double lt = joint[c] - z;
                        const double t = std::exp(lt);
                        if (t > 0.0) entropy -= t * lt;
                    }
                }
            }
            sums[static_cast<std::size_t>(b) * 3] = parent;
            sums[static_cast<std::size_t>(b) * 3 + 1] = split;
            sums[static_cast<std::size_t>(b) * 3 + 2] = entropy;
        }
    });
    double parent = 0.0, split = 0.0, entropy = 0.0;
    for (int b = 0; b < blocks; ++b) {
        parent += sums[static_cast<std::size_t>(b) * 3];
        split += sums[static_cast<std::size_t>(b) * 3 + 1];
        entropy += sums[static_cast<std::size_t>(b) * 3 + 2];
    }
    // The pixels read may be a sample of the region: scale to the region.
    const double scale = total / n;
    const double parameters = (k - 1) * (d + 0.5 * d * (d + 1)) + 1.0;
    double result = scale * (split - parent) - 0.5 * parameters * std::log(total);
    if (icl) result -= scale * entropy;
    return result;
}

}  // namespace dhc
