#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "data/PottsMapRegion.h"
#include "engine/PottsEngine.h"
#include "settings/Workers.h"
#include "workspace/PottsWS.h"

// Pseudo-likelihood estimate of the Potts interaction beta.

namespace {

// Neighbour configuration of every region pixel, once per estimate:
// a = neighbours with the pixel's own label, m = neighbours in the other
// classes of the split (the k labels), as a * 9 + m.  Chunks of runs are read
// by the run's threads and joined in run order.
std::vector<uint8_t> neighbourConfigurations(PottsMapRegion* region, const int* labels, int k) {
    std::vector<uint8_t> config;
    int** map = region->map;
    const int pad = region->pad;
    std::vector<std::vector<uint8_t>> parts(static_cast<std::size_t>(dhc::chunksFor(region->runCount, 64)));
    dhc::forChunks(region->runCount, 64, [&](int first, int last, int chunk) {
        std::vector<uint8_t>& part = parts[chunk];
        std::size_t cells = 0;
        for (int r = first; r < last; ++r) cells += static_cast<std::size_t>(region->runs[r].len);
        part.reserve(cells);
        // The split's labels in a local copy: a store of a byte may alias
        // anything, so reads of the caller's array would go back to memory.
        int local[64];
        const int kk = k;
        const int* own = labels;
        if (k <= 64) {
            std::copy(labels, labels + k, local);
            own = local;
        }
        auto inSplit = [own, kk](int v) {
            int in = 0;
            for (int l = 0; l < kk; ++l) in |= (v == own[l]);
            return in;
        };
        // A run a piece at a time: the column sums of "label in the split"
        // over the three rows (one column beyond each end of the piece),
        // and a, which needs the cell itself.
        constexpr int kPiece = 256;
        int column[kPiece + 2], same[kPiece];
        for (int r = first; r < last; ++r) {
            const run& rn = region->runs[r];
            const int* up = map[rn.row + pad - 1];
            const int* mid = map[rn.row + pad];
            const int* dn = map[rn.row + pad + 1];
            for (int c0 = rn.col + pad; c0 < rn.col + pad + rn.len; c0 += kPiece) {
                const int len = std::min(kPiece, rn.col + pad + rn.len - c0);
                for (int i = 0; i < len + 2; ++i) {
                    const int c = c0 - 1 + i;
                    column[i] = inSplit(up[c]) + inSplit(mid[c]) + inSplit(dn[c]);
                }
                for (int i = 0; i < len; ++i) {
                    const int c = c0 + i;
                    const int self = mid[c];
                    same[i] = (up[c - 1] == self) + (up[c] == self) + (up[c + 1] == self) +
                              (mid[c - 1] == self) + (mid[c + 1] == self) + (dn[c - 1] == self) +
                              (dn[c] == self) + (dn[c + 1] == self);
                }
                for (int i = 0; i < len; ++i) {
                    const int a = same[i];
                    const int b = column[i] + column[i + 1] + column[i + 2] - inSplit(mid[c0 + i]);
                    // b < a only for a pixel outside every class of the split: it
                    // has no competing configuration and takes no part in the score.
                    if (b >= a) part.push_back(static_cast<uint8_t>(a * 9 + (b - a)));
                }
            }
        }
    });
    std::size_t total = 0;
    for (const auto& part : parts) total += part.size();
    config.reserve(total);
    for (auto& part : parts) {
        config.insert(config.end(), part.begin(), part.end());
        std::vector<uint8_t>().swap(part);
    }
    return config;
}

// g(beta) = sum over pixels of a - T[a][m], the 9 x 9 table built once per
// evaluation.  Several betas are scored in one pass, each sum still taken
// in pixel order (so its bits are those of a pass of its own), four to a
// group and the groups spread over the run's threads.
void pseudoLikelihoodScores(const std::vector<uint8_t>& config, const std::vector<double>& betas,
                            std::vector<double>& g) {
    const int n = static_cast<int>(betas.size());
    g.assign(static_cast<std::size_t>(n), 0.0);
    const int groups = (n + 3) / 4;
    dhc::forChunks(groups, 1, [&](int firstGroup, int lastGroup, int) {
        for (int group = firstGroup; group < lastGroup; ++group) {
            double term[4][81];
            for (int i = 0; i < 4; ++i) {
                const int e = std::min(group * 4 + i, n - 1);
                const double bt = betas[e];
                for (int a = 0; a <= 8; ++a) {
                    for (int m = 0; m <= 8; ++m) {
                        const double ea = std::exp(bt * a);
                        const double em = std::exp(bt * m);
                        term[i][a * 9 + m] = a - (a * ea + m * em) / (ea + em);
                    }
                }
            }
            double g0 = 0.0, g1 = 0.0, g2 = 0.0, g3 = 0.0;
            for (uint8_t code : config) {
                g0 += term[0][code];
                g1 += term[1][code];
                g2 += term[2][code];
                g3 += term[3][code];
            }
            const double sums[4] = {g0, g1, g2, g3};
            for (int i = 0; i < 4 && group * 4 + i < n; ++i) g[group * 4 + i] = sums[i];
        }
    });
}

}  // namespace

double PottsEngine::betaHat(int* labels) {
    return betaHat(labels, multiplicity);
}

double PottsEngine::betaHat(int* labels, int k) {
    std::vector<uint8_t> config;
    if (ws != nullptr) config = neighbourConfigurations(ws->root, labels, k);
    auto scores = [&config](const std::vector<double>& betas, std::vector<double>& g) {
        pseudoLikelihoodScores(config, betas, g);
    };

    double c = betaMax;
    std::vector<double> g;
    scores({c}, g);
    double gc = g[0];
    if (gc >= 0.0) return betaMax;
    // Bisection; the lower end is taken to be on the positive side.
    double a = betaMin;
    double mid = betaMax;
    // Every pass halves the interval, so 2100 passes bring any two finite
    // ends within 0.0001 (a sane interval needs a few dozen).  With ends so
    // large that 0.0001 is below their spacing the midpoint eventually lands on
    // an end: nothing is left to halve and the last midpoint is the answer.
    // The next midpoint of an interval, or false when the bisection stops there.
    auto midpoint = [](double lo, double hi, double& half) {
        if (!(std::fabs(hi - lo) > 0.0001)) return false;
        const double next = 0.5 * (lo + hi);
        half = std::isfinite(next) ? next : 0.5 * lo + 0.5 * hi;  // lo + hi overflowed
        return !(half == lo || half == hi || !std::isfinite(half));
    };
    // The midpoints of the next kLevels passes do not depend on the scores,
    // only on which way each pass went: all of them (a heap of both ways) are
    // scored at once, then the passes are walked.
    constexpr int kLevels = 3;
    constexpr int kNodes = (1 << (kLevels + 1)) - 1;
    int pass = 0;
    for (;;) {
        std::vector<double> betas;
        int slot[kNodes + 1];
        double lo[kNodes + 1], hi[kNodes + 1];
        lo[1] = a;
        hi[1] = c;
        for (int node = 1; node <= kNodes; ++node) {
            slot[node] = -1;
            if (node > 1) {
                const int parent = node / 2;
                if (slot[parent] < 0) continue;
                const double half = betas[slot[parent]];
                // Child 2i: the score changed sign (a moves up); 2i + 1: c moves down.
                lo[node] = node % 2 == 0 ? half : lo[parent];
                hi[node] = node % 2 == 0 ? hi[parent] : half;
            }
            if (node >= (1 << kLevels)) continue;
            double half = 0.0;
            if (midpoint(lo[node], hi[node], half)) {
                slot[node] = static_cast<int>(betas.size());
                betas.push_back(half);
            }
        }
        scores(betas, g);
        int node = 1;
        for (int level = 0; level < kLevels; ++level, ++pass) {
            if (pass >= 2100 || slot[node] < 0) return mid;
            mid = betas[slot[node]];
            const double gm = g[slot[node]];
            if (gc * gm < 0.0) {
                a = mid;
                node = 2 * node;
            } else {
                c = mid;
                gc = gm;
                node = 2 * node + 1;
            }
        }
    }
}
