#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include "data/PottsMapRegion.h"
#include "engine/EngineSupport.h"
#include "engine/PottsEngine.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"

// What a split is worth: the likelihood gain, the variance score, the
// texture gain and the model-selection criterion.

using namespace dhc::engine;

// ---------------------------------------------------------------------------
// Gains

double PottsEngine::splitGain(PottsWS* w, int k, PottsWS** children) {
    beta = w->beta;
    const int d = w->bands;
    const double n = w->envelopeCount;
    w->updateSigma();
    const double logdet = OpMatrix::ldet(w->sigma, d);
    std::vector<double> childLogdet(k);
    for (int i = 0; i < k; ++i) childLogdet[i] = OpMatrix::ldet(children[i]->sigma, d);
    const double e = w->edges;
    w->updateFeatures();
    for (int i = 0; i < k; ++i) children[i]->updateFeatures();

    double after = 0.0;
    for (int i = 0; i < k; ++i)
        after += 0.5 * children[i]->envelopeCount * childLogdet[i] + children[i]->likelihoodEnergy;
    const double g = 0.5 * n * logdet + w->likelihoodEnergy - after;
    return (g / d - e * beta) / n;
}

double PottsEngine::splitCriterion(PottsWS* w, int k, PottsWS** children, bool icl) {
    const int d = w->bands;
    const int n = w->loadedCount;
    const double total = w->envelopeCount;
    if (n < 1 || d < 1 || total <= 0.0) return -std::numeric_limits<double>::infinity();
    // Class k is the parent's own Gaussian.
    const int m = k + 1;
    double*** inverses = newCube(m, d);
    std::vector<double> logNorm(m), logWeight(m, 0.0);
    std::vector<const double*> means(m);
    bool ok = true;
    constexpr double kLog2Pi = 1.8378770664093454836;
    for (int c = 0; c < m; ++c) {
        PottsWS* src = c < k ? children[c] : w;
        int invertible = 0;
        OpMatrix::inv(src->sigma, d, inverses[c], invertible);
        const double logdet = OpMatrix::ldet(src->sigma, d);
        if (invertible == 0 || !std::isfinite(logdet)) ok = false;
        logNorm[c] = -0.5 * (d * kLog2Pi + logdet);
        means[c] = src->mi;
        if (c < k) {
            if (children[c]->envelopeCount <= 0) ok = false;
            else logWeight[c] = std::log(children[c]->envelopeCount / total);
        }
    }
    double result = -std::numeric_limits<double>::infinity();
    if (ok) {
        // Per block: log-likelihood under the parent, under the mixture, and
        // the posteriors' entropy.
        constexpr int kBlock = 8192;
        const int blocks = (n + kBlock - 1) / kBlock;
        std::vector<double> sums(static_cast<std::size_t>(blocks) * 3, 0.0);
        // The classes' posteriors under the whole model: a pixel's Gaussian
        // densities and its neighbours' labels in the split (the map holds them).
        PottsMapRegion* region = w->root;
        int** map = region->map;
        const int pad = region->pad;
        std::vector<int> childLabel(k);
        for (int c = 0; c < k; ++c) childLabel[c] = children[c]->root->label;
        const double bt = w->beta;
        dhc::forChunks(blocks, 1, [&](int first, int last, int) {
            std::vector<double> diff(d), logp(k), post(k);
            for (int b = first; b < last; ++b) {
                double parent = 0.0, mixture = 0.0, entropy = 0.0;
                const int end = std::min(n, (b + 1) * kBlock);
                for (int p = b * kBlock; p < end; ++p) {
                    const int* x = pixel(w, p);
                    const xy& q0 = w->coords[p];
                    const int r0 = q0.x + pad, c0 = q0.y + pad;
                    double top = -std::numeric_limits<double>::infinity();
                    for (int c = 0; c < m; ++c) {
                        for (int i = 0; i < d; ++i) diff[i] = x[i] - means[c][i];
                        double q = 0.0;
                        for (int i = 0; i < d; ++i) {
                            double row = 0.0;
                            for (int j = 0; j < d; ++j) row += inverses[c][i][j] * diff[j];
                            q += diff[i] * row;
                        }
                        const double l = logNorm[c] - 0.5 * q;
                        if (c == k) {
                            parent += l;
                        } else {
                            logp[c] = logWeight[c] + l;
                            top = std::max(top, logp[c]);
                        }
                    }
                    double z = 0.0;
                    for (int c = 0; c < k; ++c) z += std::exp(logp[c] - top);
                    const double logz = top + std::log(z);
                    mixture += logz;
                    if (icl) {
                        double ptop = -std::numeric_limits<double>::infinity();
                        for (int c = 0; c < k; ++c) {
                            int agree = 0;
                            for (int dr = -1; dr <= 1; ++dr)
                                for (int dc = -1; dc <= 1; ++dc)
                                    agree += (dr != 0 || dc != 0) && map[r0 + dr][c0 + dc] == childLabel[c];
                            post[c] = logp[c] - logWeight[c] + bt * agree;
                            ptop = std::max(ptop, post[c]);
                        }
                        double pz = 0.0;
                        for (int c = 0; c < k; ++c) pz += std::exp(post[c] - ptop);
                        const double logpz = ptop + std::log(pz);
                        for (int c = 0; c < k; ++c) {
                            const double lt = post[c] - logpz;
                            const double t = std::exp(lt);
                            if (t > 0.0) entropy -= t * lt;
                        }
                    }
                }
                sums[static_cast<std::size_t>(b) * 3] = parent;
                sums[static_cast<std::size_t>(b) * 3 + 1] = mixture;
                sums[static_cast<std::size_t>(b) * 3 + 2] = entropy;
            }
        });
        double parent = 0.0, mixture = 0.0, entropy = 0.0;
        for (int b = 0; b < blocks; ++b) {
            parent += sums[static_cast<std::size_t>(b) * 3];
            mixture += sums[static_cast<std::size_t>(b) * 3 + 1];
            entropy += sums[static_cast<std::size_t>(b) * 3 + 2];
        }
        // A class brings a mean, a covariance and a weight.
        const double perClass = d + 0.5 * d * (d + 1) + 1.0;
        const double penalty = 0.5 * (k - 1) * perClass * std::log(total);
        result = mixture - parent - w->beta * w->edges - penalty;
        if (icl) result -= entropy;
    }
    freeCube(inverses, m, d);
    return result;
}

double PottsEngine::splitGain(PottsWS* w, int k, PottsWS** children, double threshold) {
    beta = w->beta;
    const int d = w->bands;
    const double n = w->envelopeCount;
    w->updateSigma();
    w->updateFeatures();
    for (int i = 0; i < k; ++i) children[i]->updateFeatures();

    double largest = 0.0;
    for (int b = 0; b < d; ++b)
        if (b == 0 || w->sigma[b][b] > largest) largest = w->sigma[b][b];
    double v = n * largest;
    if (threshold > v) {
        double** u = nullptr;
        double* lambda = nullptr;
        if (d >= 1) {
            OpMatrix::eig(w->sigma, d, 1, u, lambda);
            v = n * lambda[0];
            dhc::deleteRows(u, d);
            delete[] lambda;
        }
    }
    return v;
}

double PottsEngine::textureGain(PottsWS* w, PottsWS** before, int nBefore, PottsWS** after, int nAfter) {
    beta = w->beta;
    const double e = w->edges;
    const int d = w->bands;
    auto energyOf = [d](PottsWS** parts, int count) {
        double sum = 0.0;
        for (int i = 0; i < count; ++i) {
            parts[i]->updateSigma();
            const double logdet = OpMatrix::ldet(parts[i]->sigma, d);
            parts[i]->updateFeatures();
            sum += 0.5 * parts[i]->envelopeCount * logdet + parts[i]->likelihoodEnergy;
        }
        return sum;
    };
    const double g = energyOf(before, nBefore) - energyOf(after, nAfter);
    const double n = w->envelopeCount;
    return (g / d - e * beta) / n;
}
