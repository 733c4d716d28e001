#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "base/Grid.h"
#include "data/PottsMapRegion.h"
#include "engine/EngineSupport.h"
#include "engine/PottsEngine.h"
#include "engine/PottsLikelihoodEnergy.h"
#include "settings/BandCount.h"
#include "settings/Fatal.h"
#include "settings/Workers.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"

// ICM: the sweeps (and their speculative second half on two threads), the
// Gaussian and table energies they minimise, and the loops that alternate
// them with the estimate of beta.

using namespace dhc::engine;

namespace {

// The Gaussian class energies of every loaded pixel, pixel-major, for a band
// count D fixed at compile time: PottsLikelihoodEnergy::gaussianEnergy's
// arithmetic in its order, with the class parameters copied side by side.
template <int D>
void classEnergies(const PottsWS* w, int n, int k, double** means, double*** inverses, const double* logdet,
                   double* table) {
    std::vector<double> mu(static_cast<std::size_t>(k) * D), inv(static_cast<std::size_t>(k) * D * D);
    for (int c = 0; c < k; ++c) {
        std::copy(means[c], means[c] + D, mu.begin() + static_cast<std::ptrdiff_t>(c) * D);
        for (int i = 0; i < D; ++i)
            std::copy(inverses[c][i], inverses[c][i] + D,
                      inv.begin() + (static_cast<std::ptrdiff_t>(c) * D + i) * D);
    }
    dhc::forChunks(n, kGrain, [&](int begin, int end, int) {
        for (int p = begin; p < end; ++p) {
            const int* x = pixel(w, p);
            double xd[D];
            for (int i = 0; i < D; ++i) xd[i] = static_cast<double>(x[i]);
            for (int c = 0; c < k; ++c) {
                const double* m = &mu[static_cast<std::size_t>(c) * D];
                const double* s = &inv[static_cast<std::size_t>(c) * D * D];
                double diff[D];
                for (int i = 0; i < D; ++i) diff[i] = xd[i] - m[i];
                double q = 0.0;
                for (int i = 0; i < D; ++i) {
                    const double di = diff[i];
                    for (int j = 0; j < D; ++j) q += di * s[i * D + j] * diff[j];
                }
                table[static_cast<std::size_t>(p) * k + c] = 0.5 * (logdet[c] + q);
            }
        }
    });
}

// One bit per cell of a padded map: the cells whose label a sweep's second
// half saw other than it ends up.
class CellBits {
  public:
    CellBits(int rows, int stride)
        : stride_(static_cast<std::size_t>(stride)),
          bits_(static_cast<std::size_t>(rows) * stride / 64 + 2, 0) {}
    void clear() { std::fill(bits_.begin(), bits_.end(), 0); }
    void set(int r, int c) {
        const std::size_t i = static_cast<std::size_t>(r) * stride_ + c;
        bits_[i >> 6] |= uint64_t{1} << (i & 63);
    }
    // Whether a cell of the 3 x 3 block around (r, c) is set.
    bool around(int r, int c) const { return three(r - 1, c - 1) || three(r, c - 1) || three(r + 1, c - 1); }

  private:
    bool three(int r, int c) const {
        const std::size_t i = static_cast<std::size_t>(r) * stride_ + c;
        const std::size_t w = i >> 6, off = i & 63;
        uint64_t v = bits_[w] >> off;
        if (off > 61) v |= bits_[w + 1] << (64 - off);
        return (v & 7) != 0;
    }
    std::size_t stride_;
    std::vector<uint64_t> bits_;
};

// Regions smaller than this sweep on one thread.
constexpr int kSweepSplit = 1 << 17;

}  // namespace

namespace {

// One ICM pass over the loaded pixels of a workspace, the state its steps
// share: the map, the pixels, the split's labels and the energies.
template <typename EnergyAt>
class Sweep {
  public:
    Sweep(PottsWS* ws, int* labels, int k, int* classOf, double beta, double betaBound, bool adaptive,
          EnergyAt energyAt)
        : region_(ws->root),
          map_(region_->map),
          pad_(region_->pad),
          coords_(ws->coords),
          labels_(labels),
          k_(k),
          classOf_(classOf),
          firstOf_(firstIndices(labels, k)),
          beta_(beta),
          betaBound_(betaBound),
          adaptive_(adaptive),
          energyAt_(energyAt) {}

    // The class of pixel p given the labels nb of its neighbours.
    int choose(const int* nb, const xy& q, int p) const {
        const double bp = (adaptive_ && q.aux != 0) ? betaBound_ : beta_;
        int best = 0;
        double bestScore = 0.0;
        for (int c = 0; c < k_; ++c) {
            const int l = labels_[c];
            int agree = 0;
            for (int t = 0; t < 8; ++t) agree += (nb[t] == l);
            const double score = bp * agree - energyAt_(p, c);
            if (c == 0 || score > bestScore) {
                best = c;
                bestScore = score;
            }
        }
        return best;
    }
    // The neighbours of pixel q on the map, up row, then sides, then down row.
    void neighbours(const xy& q, int* nb) const {
        const int r = q.x + pad_;
        const int c0 = q.y + pad_ - 1;
        const int* up = map_[r - 1] + c0;
        const int* mid = map_[r] + c0;
        const int* dn = map_[r + 1] + c0;
        nb[0] = up[0], nb[1] = up[1], nb[2] = up[2], nb[3] = mid[0];
        nb[4] = mid[2], nb[5] = dn[0], nb[6] = dn[1], nb[7] = dn[2];
    }
    // The class of pixel p given the labels of the map.
    int decide(const xy& q, int p) const {
        int nb[8];
        neighbours(q, nb);
        return choose(nb, q, p);
    }
    // Pixels come in scattered order: fetch the neighbourhood of the pixel
    // kAhead places on while this one is decided.
    void ahead(int p, int end) const {
        if (p + kAhead < end) region_->prefetchAround(coords_[p + kAhead].x, coords_[p + kAhead].y, true);
    }
    // Pixels [begin, end) one after the other on the map; returns the changes.
    int inOrder(int begin, int end, CellBits* changed) {
        int changes = 0;
        for (int p = begin; p < end; ++p) {
            ahead(p, end);
            xy& q = coords_[p];
            const int best = decide(q, p);
            classOf_[p] = firstOf_[best];
            int& cell = map_[q.x + pad_][q.y + pad_];
            if (cell != labels_[best]) {
                cell = labels_[best];
                q.flag = 1;
                ++changes;
                if (changed != nullptr) changed->set(q.x + pad_, q.y + pad_);
            }
        }
        return changes;
    }

    // The speculative second half [half, n): reads the map while the first
    // half may be writing it, without writing it.  A first-half cell read in
    // any state is marked if it changes, and every second-half pixel next to
    // it is decided again.  Second-half cells are written by nobody meanwhile;
    // the speculation's own changes are kept aside (cells marked in guessed,
    // labels by cell).  guess[p - half]: 2 * class + whether the label
    // changed.  Stops once firstDone is set; returns the first pixel not reached.
    int speculate(int half, int n, int mapCols, const std::atomic<bool>& firstDone, int* guess,
                  CellBits& guessed, std::unordered_map<std::size_t, int>& guessedLabel) const {
        int p = half;
        int nb[8];
        for (; p < n; ++p) {
            if (((p - half) & 255) == 0 && firstDone.load(std::memory_order_relaxed)) break;
            ahead(p, n);
            const xy& q = coords_[p];
            const int r = q.x + pad_, c = q.y + pad_;
            neighbours(q, nb);
            if (guessed.around(r, c)) {
                const int rows[8] = {r - 1, r - 1, r - 1, r, r, r + 1, r + 1, r + 1};
                const int cols[8] = {c - 1, c, c + 1, c - 1, c + 1, c - 1, c, c + 1};
                for (int t = 0; t < 8; ++t) {
                    const auto found =
                        guessedLabel.find(static_cast<std::size_t>(rows[t]) * mapCols + cols[t]);
                    if (found != guessedLabel.end()) nb[t] = found->second;
                }
            }
            const int best = choose(nb, q, p);
            const bool differs = map_[r][c] != labels_[best];
            if (differs) {
                guessed.set(r, c);
                guessedLabel[static_cast<std::size_t>(r) * mapCols + c] = labels_[best];
            }
            guess[p - half] = 2 * best + (differs ? 1 : 0);
        }
        return p;
    }

    // The speculated pixels [half, reached) in order: a pixel keeps its
    // choice unless a neighbour's label may differ from what the speculation
    // saw (marked cells), where it is decided again on the map.  Returns the changes.
    int settle(int half, int reached, const int* guess, CellBits& marked) {
        int changes = 0;
        for (int p = half; p < reached; ++p) {
            xy& q = coords_[p];
            const int r = q.x + pad_, c = q.y + pad_;
            const int g = guess[p - half];
            int best = g >> 1;
            if (marked.around(r, c)) {
                best = decide(q, p);
                if (best != g >> 1) marked.set(r, c);
                if (map_[r][c] != labels_[best]) {
                    map_[r][c] = labels_[best];
                    q.flag = 1;
                    ++changes;
                }
            } else if (g & 1) {
                map_[r][c] = labels_[best];
                q.flag = 1;
                ++changes;
            }
            classOf_[p] = firstOf_[best];
        }
        return changes;
    }

  private:
    static constexpr int kAhead = 16;
    PottsMapRegion* const region_;
    int** const map_;
    const int pad_;
    xy* const coords_;
    const int* const labels_;
    const int k_;
    int* const classOf_;
    const std::vector<int> firstOf_;
    const double beta_, betaBound_;
    const bool adaptive_;
    const EnergyAt energyAt_;
};

}  // namespace

// ICM sweeps over the loaded pixels of the current workspace.  Labels are
// written at once, so later pixels of a sweep see them.  Stops when at most
// 0.1 % of the pixels changed, or after 151 sweeps; returns the sweeps run.
// classOf receives every pixel's class as the label statistics resolve its new
// map label (the first of equal labels), so they can read it in pixel order.
//
// A sweep decides the pixels one after the other, each seeing the labels its
// predecessors chose.  On two threads it stays that sweep: the first half runs
// on the map; the second half runs meanwhile reading the map without writing
// it, its own changes kept aside (speculation: its predecessors in the first
// half are taken as they are read).  Then, in order, a second-half pixel keeps
// its speculative choice unless a neighbour's label may differ from what the
// speculation saw (marked cells: first-half changes, and second-half pixels
// whose choice was redone and came out different), where it is decided again
// on the map.  The speculation stops where the first half finished; the rest
// runs as usual.
template <typename EnergyAt>
int PottsEngine::sweeps(int* labels, int k, int* classOf, EnergyAt energyAt) {
    PottsMapRegion* region = ws->root;
    const int pad = region->pad;
    const int n = ws->loadedCount;
    const double total = ws->envelopeCount;
    Sweep<EnergyAt> sweep(ws, labels, k, classOf, beta, betaBound, adaptive, energyAt);

    const dhc::Workers* team = dhc::installedWorkers();
    const bool split = team != nullptr && team->size() > 1 && n >= kSweepSplit;
    const int half = n / 2;
    const int mapRows = region->rows + 2 * pad, mapCols = region->cols + 2 * pad;
    std::unique_ptr<CellBits> marked;
    if (split) marked = std::make_unique<CellBits>(mapRows, mapCols);
    // What the thread that speculates keeps aside, if one does (Sweep::speculate).
    std::unique_ptr<int[]> guess;  // entries below reached
    std::unique_ptr<CellBits> guessed;
    std::unordered_map<std::size_t, int> guessedLabel;

    int done = 0;
    double rate = 0.0;
    do {
        int changes = 0;
        if (!split) {
            changes = sweep.inOrder(0, n, nullptr);
        } else {
            marked->clear();
            std::atomic<bool> firstDone{false};
            int reached = half;
            dhc::forChunks(2, 1, [&](int, int, int part) {
                if (part == 0) {
                    changes = sweep.inOrder(0, half, marked.get());
                    firstDone.store(true, std::memory_order_relaxed);
                    return;
                }
                if (firstDone.load(std::memory_order_relaxed)) return;
                if (!guess) {
                    guess.reset(new int[static_cast<std::size_t>(n - half)]);
                    guessed = std::make_unique<CellBits>(mapRows, mapCols);
                } else {
                    guessed->clear();
                }
                guessedLabel.clear();
                reached = sweep.speculate(half, n, mapCols, firstDone, guess.get(), *guessed, guessedLabel);
            });
            changes += sweep.settle(half, reached, guess.get(), *marked);
            changes += sweep.inOrder(reached, n, nullptr);
        }
        ++done;
        rate = changes * 100.0 / total;
    } while (rate > 0.1 && done < 151);
    return done;
}

int PottsEngine::kICM(double** means, int* labels) {
    std::vector<int> classOf;
    return kICM(means, labels, classOf, false);
}

int PottsEngine::kICM(double** means, int* labels, std::vector<int>& classOf, bool classesKnown) {
    if (ws == nullptr) dhc::fatal(-1, "kICMns --> currentContainer == NULL", dhc::FatalChannel::StdErr);
    const int k = multiplicity;
    const int d = ws->bands;
    const int n = ws->loadedCount;

    // The map is read once for every pixel's class (unless the last sweeps of
    // the caller left it in classOf); the statistics then read in pixel order.
    if (!classesKnown) {
        classOf.assign(static_cast<std::size_t>(n), -1);
        ws->classesOf(k, labels, classOf.data());
    }
    std::vector<int> counts(k, 0);
    dhc::Cube<double> covs(k, d, d);
    dhc::Cube<double> inverses(k, d, d);
    std::vector<double> logdet(k, 0.0);
    ws->getSigmaOfClasses(k, classOf.data(), counts.data(), covs.planes());
    bool invertible = true;
    for (int c = 0; c < k; ++c) {
        int ok = 0;
        OpMatrix::inv(covs[c], d, inverses[c], ok);
        if (ok == 0) invertible = false;
        logdet[c] = OpMatrix::ldet(covs[c], d);
    }

    int result = -2;
    lastSweeps = 0;
    lastPasses = 1;
    if (invertible) {
        // Class energies once per call, pixel-major so a sweep reads them in order.
        const std::unique_ptr<double[]> table(
            new double[std::max<std::size_t>(static_cast<std::size_t>(n) * k, 1)]);
        switch (d) {
            case 3:
                classEnergies<3>(ws, n, k, means, inverses.planes(), logdet.data(), table.get());
                break;
            case 4:
                classEnergies<4>(ws, n, k, means, inverses.planes(), logdet.data(), table.get());
                break;
            case 6:
                classEnergies<6>(ws, n, k, means, inverses.planes(), logdet.data(), table.get());
                break;
            default:
                dhc::forChunks(n, kGrain, [&](int begin, int end, int) {
                    for (int p = begin; p < end; ++p) {
                        const int* x = pixel(ws, p);
                        for (int c = 0; c < k; ++c)
                            table[static_cast<std::size_t>(p) * k + c] =
                                PottsLikelihoodEnergy::gaussianEnergy(x, means[c], inverses[c], logdet[c], d);
                    }
                });
        }
        const double* e = table.get();
        lastSweeps = sweeps(labels, k, classOf.data(),
                            [e, k](int p, int c) { return e[static_cast<std::size_t>(p) * k + c]; });
        result = 2;
    }

    ws->getMiOfClasses(k, classOf.data(), counts.data(), means);
    for (int c = 0; c < k; ++c)
        if (counts[c] <= 0) result = -2;
    return result;
}

int PottsEngine::kICM(double** means, int* labels, double** energy) {
    if (ws == nullptr) dhc::fatal(-1, "kICMs --> currentContainer == NULL", dhc::FatalChannel::StdErr);
    const int k = multiplicity;
    lastPasses = 1;
    std::vector<int> classOf(static_cast<std::size_t>(ws->loadedCount));
    lastSweeps = sweeps(labels, k, classOf.data(), [energy](int p, int c) { return energy[c][p]; });
    std::vector<int> counts(k, 0);
    ws->getMiOfClasses(k, classOf.data(), counts.data(), means);
    return countsProductIsZero(counts) ? -2 : 2;
}

int PottsEngine::kEstMaxICM(double** means, int* labels) {
    // Outside the interval, so the first pass always counts as a change.
    beta = 2.0 * betaMax;
    const double tolerance = (betaMax - betaMin) / 10.0;
    int passes = 0;
    int total = 0;
    int r = 2;
    // betaHat only reads the map: the classes the sweeps leave stay valid.
    std::vector<int> classOf;
    for (;;) {
        const double previous = beta;
        beta = betaHat(labels);
        r = kICM(means, labels, classOf, passes > 0);
        total += lastSweeps;
        ++passes;
        const double delta = std::fabs(previous - beta);
        if (delta <= tolerance && passes >= 2) break;
        if (passes >= 150 || r != 2) break;
    }
    lastSweeps = total;
    lastPasses = passes;
    return r;
}

int PottsEngine::kSupervisedICM(double** means, int* labels, double** energy) {
    if (ws == nullptr) return kICM(means, labels, energy);  // reports the missing workspace
    const int k = multiplicity;
    const int d = ws->bands;
    const double tolerance = 1.0 / (static_cast<double>(ws->rows) * ws->cols);
    lastSweeps = 0;
    lastPasses = 0;
    if (!(2.0 * tolerance > tolerance)) return 2;

    std::vector<double> kept(static_cast<std::size_t>(k) * d);
    for (int c = 0; c < k; ++c)
        for (int b = 0; b < d; ++b) kept[static_cast<std::size_t>(c) * d + b] = means[c][b];
    int passes = 0;
    int total = 0;
    int r = 2;
    double shift = 0.0;
    do {
        beta = betaHat(labels);
        r = kICM(means, labels, energy);
        total += lastSweeps;
        ++passes;
        double moved = 0.0;
        for (int c = 0; c < k; ++c) {
            for (int b = 0; b < d; ++b) {
                double& old = kept[static_cast<std::size_t>(c) * d + b];
                const double t = means[c][b] - old;
                moved += t * t;
                old = means[c][b];
            }
        }
        shift = std::sqrt(moved / k);
    } while (shift > tolerance && passes < 150 && r == 2);
    lastSweeps = total;
    lastPasses = passes;
    return r;
}

void PottsEngine::updateLikelihoodEnergy(Mixture** classes, int n) {
    energyTable.reset();
    if (ws != nullptr) energyTable = std::make_unique<PottsLikelihoodEnergy>(classes, n, ws);
}
