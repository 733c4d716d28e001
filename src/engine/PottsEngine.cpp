#include "engine/PottsEngine.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <ostream>
#include <unordered_map>
#include <vector>

#include "data/PottsMapRegion.h"
#include "engine/PottsLikelihoodEnergy.h"
#include "engine/SplitCriterion.h"
#include "settings/BandCount.h"
#include "settings/ConfigFileParser.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/FMSC.h"
#include "stats/FeatureSpace.h"
#include "stats/Mixture.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"

namespace {

// For each of k labels, the index of the first label equal to it: the class
// the label statistics give a pixel carrying that label.
std::vector<int> firstIndices(const int* labels, int k) {
    std::vector<int> first(k);
    for (int c = 0; c < k; ++c) {
        first[c] = c;
        for (int e = 0; e < c; ++e)
            if (labels[e] == labels[c]) {
                first[c] = e;
                break;
            }
    }
    return first;
}

// n square d x d matrices.
double*** newCube(int n, int d) {
    double*** c = new double**[n > 0 ? n : 0];
    for (int i = 0; i < n; ++i) c[i] = dhc::newRows<double>(d, d);
    return c;
}

void freeCube(double*** c, int n, int d) {
    for (int i = 0; i < n; ++i) dhc::deleteRows(c[i], d);
    delete[] c;
}

// Map cell of a pixel of the workspace (inner coordinates shifted by the pad).
inline int& cell(PottsMapRegion* region, const xy& p) {
    return region->map[p.x + region->pad][p.y + region->pad];
}

const int* pixel(const PottsWS* w, int p) {
    return w->data + static_cast<std::size_t>(p) * w->bands;
}

// Pixels below this many per chunk are not worth handing to another thread.
constexpr int kGrain = 16384;

// The squared distance from pixel values x to codeword cc, summed band by band
// in a fixed order, so its bits do not depend on how the pixels are cut.
inline double squaredDistance(const double* x, const double* cc, int d) {
    double dist = 0.0;
    for (int b = 0; b < d; ++b) {
        const double t = x[b] - cc[b];
        dist += t * t;
    }
    return dist;
}

// The Lloyd assignment of the loaded pixels [begin, end): every pixel goes to
// the nearest of the m codewords cw (side by side; the first of equally near
// ones); its class index (firstOf of the codeword) goes to classOf and its
// values to the class's integer sums (exact for any int32 values) and count.
template <int D>
void assignRange(const PottsWS* w, int begin, int end, const double* cw, int m, const int* firstOf,
                 int* classOf, int64_t* sumsOut, int* countsOut) {
    const int d = D > 0 ? D : w->bands;
    // Accumulated here, not in the caller's arrays: chunks side by side there
    // would share cache lines between threads.
    std::vector<int64_t> sums(static_cast<std::size_t>(m) * d, 0);
    std::vector<int> counts(static_cast<std::size_t>(m), 0);
    std::vector<double> xd(static_cast<std::size_t>(d));
    for (int p = begin; p < end; ++p) {
        const int* x = pixel(w, p);
        for (int b = 0; b < d; ++b) xd[b] = static_cast<double>(x[b]);
        int best = 0;
        double bestDist = 0.0;
        for (int c = 0; c < m; ++c) {
            const double dist = squaredDistance(xd.data(), cw + static_cast<std::size_t>(c) * d, d);
            if (c == 0 || dist < bestDist) {
                bestDist = dist;
                best = c;
            }
        }
        const int j = firstOf[best];
        classOf[p] = j;
        int64_t* sum = &sums[static_cast<std::size_t>(j) * d];
        for (int b = 0; b < d; ++b) sum[b] += x[b];
        ++counts[j];
    }
    std::copy(sums.begin(), sums.end(), sumsOut);
    std::copy(counts.begin(), counts.end(), countsOut);
}

// Lloyd passes that look again only at the pixels whose nearest codeword may
// have changed (labels distinct, so a class is its codeword).  A decided pixel
// gets a lower bound on how much farther its second nearest codeword is than
// its own; every pass lowers it by its codeword's movement plus the largest
// movement of the others (triangle inequality), and the pixel is decided
// afresh once it is no longer positive.  The bound keeps a margin above the
// rounding of the distances, so a skipped pixel is one whose computed
// distances would pick the same codeword: the assignments, and the exact
// integer sums kept up to date by the pixels that move, are those of full
// passes.
//
// The lowering is the same for all pixels of a class, so it is summed per
// class (rounded up) and a pixel stores its bound plus its class's sum when it
// was decided (rounded down): it stays while that exceeds the class's sum.
class LloydBounds {
  public:
    LloydBounds(int n, int d) : key_(new float[std::max(n, 1)]), d_(d) {
        // Relative error bound of a squared distance summed over d bands
        // (and of a movement), with room to spare.
        gamma_ = (2.0 * d + 16.0) * 0x1p-53;
    }

    // The next pass decides every pixel afresh (new codewords after a split).
    void restart(int m) {
        fresh_ = true;
        lowered_.assign(static_cast<std::size_t>(m), 0.0);
    }
    bool fresh() const { return fresh_; }

    // Records the codewords' movement from before (m x d, side by side) to
    // code after a pass.
    void moved(const double* before, double** code, int m) {
        std::vector<double> shift(static_cast<std::size_t>(m));
        int first = 0;  // the codeword that moved most
        double largest = 0.0, next = 0.0;
        for (int c = 0; c < m; ++c) {
            double s = 0.0;
            for (int b = 0; b < d_; ++b) {
                const double t = code[c][b] - before[static_cast<std::size_t>(c) * d_ + b];
                s += t * t;
            }
            shift[c] = std::sqrt(s) * (1.0 + gamma_);
            if (shift[c] > largest) {
                next = largest;
                largest = shift[c];
                first = c;
            } else {
                next = std::max(next, shift[c]);
            }
        }
        // A pixel's other codewords moved at most the largest movement but
        // its own.
        for (int c = 0; c < m; ++c) {
            const double others = c == first ? next : largest;
            lowered_[c] = (lowered_[c] + (shift[c] + others) * (1.0 + gamma_)) * (1.0 + 0x1p-50);
        }
        fresh_ = false;
    }

    // Whether pixel p of class c keeps its class without being decided.
    bool stays(int p, int c) const { return static_cast<double>(key_[p]) > lowered_[c]; }

    // A freshly decided pixel of class c: its nearest and second nearest
    // squared distances as computed.
    void decided(int p, int c, double nearest, double second) {
        const double u = std::sqrt(nearest) * (1.0 + 2.0 * gamma_);
        const double l = std::sqrt(second) * (1.0 - 2.0 * gamma_);
        const double gap = l - u - 8.0 * gamma_ * l;
        // Not above the exact key when positive (float rounding is within 2^-24).
        key_[p] = static_cast<float>((lowered_[c] + gap) * (1.0 - 0x1p-20));
    }

  private:
    std::unique_ptr<float[]> key_;  // every entry written by the fresh pass
    std::vector<double> lowered_;
    double gamma_ = 0.0;
    int d_;
    bool fresh_ = true;
};

// assignRange with bounds: a fresh pass decides every pixel and gives absolute
// sums and counts; a later one only the pixels whose bound ran out, giving the
// changes to the sums and counts of the pass before.
template <int D>
void assignBounded(const PottsWS* w, int begin, int end, const double* cw, int m, int* classOf,
                   LloydBounds& bounds, int64_t* sumsOut, int* countsOut) {
    const int d = D > 0 ? D : w->bands;
    const bool fresh = bounds.fresh();
    std::vector<int64_t> sums(static_cast<std::size_t>(m) * d, 0);
    std::vector<int> counts(static_cast<std::size_t>(m), 0);
    std::vector<double> xd(static_cast<std::size_t>(d));
    auto decide = [&](int p) {
        const int was = classOf[p];
        const int* x = pixel(w, p);
        for (int b = 0; b < d; ++b) xd[b] = static_cast<double>(x[b]);
        int best = 0;
        double bestDist = 0.0, second = 0.0;
        for (int c = 0; c < m; ++c) {
            const double dist = squaredDistance(xd.data(), cw + static_cast<std::size_t>(c) * d, d);
            if (c == 0 || dist < bestDist) {
                second = c == 0 ? dist : bestDist;
                bestDist = dist;
                best = c;
            } else if (c == 1 || dist < second) {
                second = dist;
            }
        }
        bounds.decided(p, best, bestDist, second);
        if (fresh) {
            classOf[p] = best;
            int64_t* sum = &sums[static_cast<std::size_t>(best) * d];
            for (int b = 0; b < d; ++b) sum[b] += x[b];
            ++counts[best];
        } else if (best != was) {
            classOf[p] = best;
            int64_t* to = &sums[static_cast<std::size_t>(best) * d];
            int64_t* from = &sums[static_cast<std::size_t>(was) * d];
            for (int b = 0; b < d; ++b) {
                to[b] += x[b];
                from[b] -= x[b];
            }
            ++counts[best];
            --counts[was];
        }
    };
    if (fresh) {
        for (int p = begin; p < end; ++p) decide(p);
    } else {
        // The few pixels to decide are scattered: they are listed a block at
        // a time and their values fetched together.
        constexpr int kBlock = 256;
        int due[kBlock];
        for (int from = begin; from < end; from += kBlock) {
            const int to = std::min(end, from + kBlock);
            int count = 0;
            for (int p = from; p < to; ++p) {
                due[count] = p;
                count += bounds.stays(p, classOf[p]) ? 0 : 1;
            }
            for (int i = 0; i < count; ++i) __builtin_prefetch(pixel(w, due[i]));
            for (int i = 0; i < count; ++i) decide(due[i]);
        }
    }
    std::copy(sums.begin(), sums.end(), sumsOut);
    std::copy(counts.begin(), counts.end(), countsOut);
}

// The distortion of every codeword after assignRange over all pixels with the
// same codewords: the squared distances of its pixels summed in pixel order.
template <int D>
void distortionOf(const PottsWS* w, int n, const double* cw, int m, const int* firstOf, const int* classOf,
                  double* distortion) {
    const int d = D > 0 ? D : w->bands;
    bool distinct = true;
    for (int c = 0; c < m; ++c) distinct = distinct && firstOf[c] == c;
    std::vector<double> xd(static_cast<std::size_t>(d));
    for (int c = 0; c < m; ++c) distortion[c] = 0.0;
    for (int p = 0; p < n; ++p) {
        const int* x = pixel(w, p);
        for (int b = 0; b < d; ++b) xd[b] = static_cast<double>(x[b]);
        // With distinct labels the class is the codeword; otherwise the
        // nearest codeword is found again.
        int best = distinct ? classOf[p] : 0;
        double bestDist = 0.0;
        for (int c = distinct ? best : 0; c < (distinct ? best + 1 : m); ++c) {
            const double dist = squaredDistance(xd.data(), cw + static_cast<std::size_t>(c) * d, d);
            if (c == 0 || distinct || dist < bestDist) {
                bestDist = dist;
                best = c;
            }
        }
        distortion[best] += bestDist;
    }
}

// One Lloyd iteration over the loaded pixels, cut among the run's threads: the
// classes' counts and new codewords (their means; a class without pixels gets
// a zero codeword).  The chunks' integer sums are merged exactly.  With bounds
// (labels distinct) the sums of the pass before, kept in total, are updated.
template <int D>
void lloydPassOf(const PottsWS* w, int n, double** code, int m, const int* firstOf, int* classOf, int* counts,
                 LloydBounds* bounds, std::vector<int64_t>& total) {
    const int d = D > 0 ? D : w->bands;
    const std::size_t md = static_cast<std::size_t>(m) * d;
    std::vector<double> cw(md);
    for (int c = 0; c < m; ++c)
        std::copy(code[c], code[c] + d, cw.begin() + static_cast<std::ptrdiff_t>(c) * d);
    const int chunks = dhc::chunksFor(n, kGrain);
    std::vector<int64_t> sums(md * chunks, 0);
    std::vector<int> chunkCounts(static_cast<std::size_t>(m) * chunks, 0);
    const bool fresh = bounds == nullptr || bounds->fresh();
    dhc::forChunks(n, kGrain, [&](int begin, int end, int chunk) {
        if (bounds != nullptr)
            assignBounded<D>(w, begin, end, cw.data(), m, classOf, *bounds, &sums[md * chunk],
                             &chunkCounts[static_cast<std::size_t>(m) * chunk]);
        else
            assignRange<D>(w, begin, end, cw.data(), m, firstOf, classOf, &sums[md * chunk],
                           &chunkCounts[static_cast<std::size_t>(m) * chunk]);
    });
    if (fresh) {
        total.assign(md, 0);
        for (int c = 0; c < m; ++c) counts[c] = 0;
    }
    for (int c = 0; c < m; ++c) {
        for (int i = 0; i < chunks; ++i) counts[c] += chunkCounts[static_cast<std::size_t>(m) * i + c];
        for (int b = 0; b < d; ++b) {
            int64_t& sum = total[static_cast<std::size_t>(c) * d + b];
            for (int i = 0; i < chunks; ++i) sum += sums[md * i + static_cast<std::size_t>(c) * d + b];
            code[c][b] = counts[c] > 0 ? static_cast<double>(sum) / static_cast<double>(counts[c]) : 0.0;
        }
    }
    if (bounds != nullptr) bounds->moved(cw.data(), code, m);
}

void lloydPass(const PottsWS* w, int n, double** code, int m, const int* firstOf, int* classOf, int* counts,
               LloydBounds* bounds, std::vector<int64_t>& total) {
    dhc::withBandCount(
        w->bands, [&](auto D) { lloydPassOf<D()>(w, n, code, m, firstOf, classOf, counts, bounds, total); });
}

void lloydDistortion(const PottsWS* w, int n, const double* cw, int m, const int* firstOf, const int* classOf,
                     double* distortion) {
    dhc::withBandCount(w->bands,
                       [&](auto D) { distortionOf<D()>(w, n, cw, m, firstOf, classOf, distortion); });
}

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

// 32-bit unsigned product of the class counts: zero also when the product is a
// multiple of 2^32, which the callers deliberately treat as an empty class.
bool countsProductIsZero(const std::vector<int>& counts) {
    uint32_t product = 1;
    for (int c : counts) product *= static_cast<uint32_t>(c);
    return product == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Configuration

PottsEngine::PottsEngine() = default;

PottsEngine::PottsEngine(int multiplicity_, double betaMin_, double betaMax_, double betaBound_,
                         bool adaptive_, double rangeBandwidth_, double spatialBandwidth_) {
    setConfig(multiplicity_, betaMin_, betaMax_, betaBound_, adaptive_, rangeBandwidth_, spatialBandwidth_);
}

PottsEngine::PottsEngine(DHC_SET* s) : settings(s) {
    setConfig(s->multiplicity, s->betaMin, s->betaMax, s->adaptive ? s->betaBound : 0.0, s->adaptive,
              s->rangeBandwidth, s->spatialBandwidth);
    if (!s->supervisedMode) stopCriterion = s->stopCriterion;
}

PottsEngine::PottsEngine(char* file) : configFile(file) {
    if (file == nullptr) return;
    ConfigFileParser parser(file);
    parser.seekArgument("POTTS_MODEL");
    DHC_SET s;
    s.readPottsModel(parser);
    setConfig(s.multiplicity, s.betaMin, s.betaMax, s.adaptive ? s.betaBound : 0.0, s.adaptive,
              s.rangeBandwidth, s.spatialBandwidth);
}

PottsEngine::~PottsEngine() {
    delete globalMixture;
    delete energyTable;
}

void PottsEngine::setConfig(int multiplicity_, double betaMin_, double betaMax_, double betaBound_,
                            bool adaptive_, double rangeBandwidth_, double spatialBandwidth_) {
    multiplicity = multiplicity_;
    betaMin = betaMin_;
    betaMax = betaMax_;
    betaBound = betaBound_;
    adaptive = adaptive_;
    rangeBandwidth = rangeBandwidth_;
    spatialBandwidth = spatialBandwidth_;
}

void PottsEngine::setConfig(int multiplicity_) {
    multiplicity = multiplicity_;
}

// ---------------------------------------------------------------------------
// Clustering

bool PottsEngine::updateGlobalMixture(PottsWS& w) {
    int n = 0;
    int* present = w.root->labels(n);
    ws = &w;
    delete globalMixture;
    globalMixture = nullptr;

    // Label 0 marks unassigned pixels: it is not a class.
    const int first = (n > 0 && present[0] == 0) ? 1 : 0;
    const int k = n - first;
    const int d = w.bands;
    Mixture* m = new Mixture(k, d);
    for (int i = 0; i < k; ++i) {
        double* mu = w.getMi(present[first + i]);
        double** s = w.getSigma(present[first + i]);
        m->set(i, mu, s);
        delete[] mu;
        dhc::deleteRows(s, d);
    }
    delete[] present;
    m->inv();
    globalMixture = m;
    return m->updateInv();
}

double** PottsEngine::kGLA(PottsWS* w, int* labels) {
    const int k = multiplicity;
    const int d = w->bands;
    const int n = w->loadedCount;
    PottsMapRegion* region = w->root;

    w->updateMi();
    double** code = dhc::newRows<double>(k, d);
    for (int b = 0; b < d && k > 0; ++b) code[0][b] = w->mi[b];
    std::vector<double> distortion(k, 0.0);
    std::vector<double> meanDistortion(k, 0.0);
    std::vector<int> counts(k, 0);
    std::vector<double> previous(static_cast<std::size_t>(k) * d);
    std::vector<double> direction(d);
    double** sigma = dhc::newRows<double>(d, d);
    region->mapRefresh(labels[0], false);

    // Class of every loaded pixel, in pixel order, kept here instead of being
    // read back from the map (scattered reads) by every statistic: the index
    // of the first label equal to the pixel's map label, as the label
    // statistics resolve it.  The map itself is written once, at the end.
    const std::vector<int> firstOf = firstIndices(labels, k);
    // (Filled by the threads, so its pages are first touched side by side.)
    const std::unique_ptr<int[]> classOfCells(new int[std::max(n, 1)]);
    int* const classOf = classOfCells.get();
    dhc::forChunks(n, kGrain, [&](int begin, int end, int) {
        for (int p = begin; p < end; ++p) {
            const int l = cell(region, w->coords[p]);
            int j = -1;
            for (int c = 0; c < k && j < 0; ++c)
                if (labels[c] == l) j = c;
            classOf[p] = j;
        }
    });
    bool relabelled = false;
    std::unique_ptr<LloydBounds> bounds;
    bool distinct = true;
    for (int c = 0; c < k; ++c) distinct = distinct && firstOf[c] == c;
    if (distinct && lloydSkips) bounds = std::make_unique<LloydBounds>(n, d);
    std::vector<int64_t> sums;

    bool abandoned = false;
    for (int s = 0; s + 2 <= k && !abandoned; ++s) {
        const int m = s + 2;  // codewords after this step
        const int j = OpMatrix::max(meanDistortion.data(), s + 1);

        // Split class j along its principal axis by a thousandth of its mean
        // standard deviation.
        w->getSigmaOfClass(firstOf[j], classOf, sigma);
        double eps = 0.0;
        for (int b = 0; b < d; ++b) eps += std::sqrt(sigma[b][b]);
        eps /= 1000.0 * d;
        OpMatrix::maxEig(sigma, d, direction.data());
        for (int b = 0; b < d; ++b) {
            code[s + 1][b] = code[j][b] - eps * direction[b];
            code[j][b] = code[j][b] + eps * direction[b];
        }
        // A class without spread (eps not positive, or not a number) keeps the
        // split without Lloyd iterations.
        if (!(2.0 * eps > eps)) continue;

        // Lloyd iterations; convergence is decided by eps alone.  They settle
        // in exact arithmetic; in floating point a pixel equally near two
        // codewords could keep them alternating.  1000 passes bound that
        // (every image tried settled within 200).
        relabelled = true;
        if (bounds) bounds->restart(m);
        for (int pass = 0; pass < 1000; ++pass) {
            for (int c = 0; c < m; ++c)
                for (int b = 0; b < d; ++b) previous[static_cast<std::size_t>(c) * d + b] = code[c][b];
            lloydPass(w, n, code, m, firstOf.data(), classOf, counts.data(), bounds.get(), sums);

            double movement = 0.0;
            bool empty = false;
            for (int c = 0; c < m; ++c) {
                if (counts[c] > 0) {
                    for (int b = 0; b < d; ++b) {
                        const double t = code[c][b] - previous[static_cast<std::size_t>(c) * d + b];
                        movement += t * t;
                    }
                } else {
                    empty = true;
                }
            }
            movement = std::sqrt(movement / m);
            if (movement <= eps || empty) {
                abandoned = empty;
                break;
            }
        }
        // The next step splits the class of largest mean distortion, as the
        // last pass left it (its codewords are in previous).
        if (!abandoned && m < k) {
            lloydDistortion(w, n, previous.data(), m, firstOf.data(), classOf, distortion.data());
            for (int c = 0; c < m; ++c) meanDistortion[c] = distortion[c] / counts[c];
        }
    }
    dhc::deleteRows(sigma, d);
    if (relabelled)
        for (int p = 0; p < n; ++p) cell(region, w->coords[p]) = labels[classOf[p]];

    if (abandoned) {
        w->splitState = -1;
        region->mapRefresh(region->label, false);
    } else {
        w->splitState = 1;
    }
    return code;
}

double** PottsEngine::kML(PottsWS* w, int* labels, double** energy) {
    const int k = multiplicity;
    const int n = w->loadedCount;
    PottsMapRegion* region = w->root;
    for (int p = 0; p < n; ++p) {
        int best = 0;
        for (int c = 1; c < k; ++c)
            if (energy[c][p] < energy[best][p]) best = c;
        cell(region, w->coords[p]) = labels[best];
    }
    double** means = dhc::newRows<double>(k, w->bands);
    std::vector<int> counts(k, 0);
    w->getMi(k, labels, counts.data(), means);
    if (countsProductIsZero(counts)) {
        w->splitState = -1;
        region->mapRefresh(region->label, false);
    } else {
        w->splitState = 1;
    }
    return means;
}

// ---------------------------------------------------------------------------
// ICM and beta

namespace {

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
    int** map = region->map;
    const int pad = region->pad;
    xy* coords = ws->coords;
    const int n = ws->loadedCount;
    const double total = ws->envelopeCount;
    constexpr int kAhead = 16;
    const std::vector<int> firstOf = firstIndices(labels, k);

    // The class of pixel p given the labels nb of its neighbours.
    auto choose = [&](const int* nb, const xy& q, int p) {
        const double bp = (adaptive && q.aux != 0) ? betaBound : beta;
        int best = 0;
        double bestScore = 0.0;
        for (int c = 0; c < k; ++c) {
            const int l = labels[c];
            int agree = 0;
            for (int t = 0; t < 8; ++t) agree += (nb[t] == l);
            const double score = bp * agree - energyAt(p, c);
            if (c == 0 || score > bestScore) {
                best = c;
                bestScore = score;
            }
        }
        return best;
    };
    // The neighbours of pixel q on the map, up row, then sides, then down row.
    auto neighbours = [map, pad](const xy& q, int* nb) {
        const int r = q.x + pad;
        const int c0 = q.y + pad - 1;
        const int* up = map[r - 1] + c0;
        const int* mid = map[r] + c0;
        const int* dn = map[r + 1] + c0;
        nb[0] = up[0], nb[1] = up[1], nb[2] = up[2], nb[3] = mid[0];
        nb[4] = mid[2], nb[5] = dn[0], nb[6] = dn[1], nb[7] = dn[2];
    };
    // The class of pixel p given the labels of the map.
    auto decide = [&](const xy& q, int p) {
        int nb[8];
        neighbours(q, nb);
        return choose(nb, q, p);
    };
    // Pixels come in scattered order: fetch the neighbourhood of the pixel
    // kAhead places on while this one is decided.
    auto ahead = [&](int p, int end) {
        if (p + kAhead < end) region->prefetchAround(coords[p + kAhead].x, coords[p + kAhead].y, true);
    };
    // Pixels [begin, end) one after the other on the map; returns the changes.
    auto inOrder = [&](int begin, int end, CellBits* changed) {
        int changes = 0;
        for (int p = begin; p < end; ++p) {
            ahead(p, end);
            xy& q = coords[p];
            const int best = decide(q, p);
            classOf[p] = firstOf[best];
            int& cell = map[q.x + pad][q.y + pad];
            if (cell != labels[best]) {
                cell = labels[best];
                q.flag = 1;
                ++changes;
                if (changed != nullptr) changed->set(q.x + pad, q.y + pad);
            }
        }
        return changes;
    };

    const dhc::Workers* team = dhc::installedWorkers();
    const bool split = team != nullptr && team->size() > 1 && n >= kSweepSplit;
    const int half = n / 2;
    const int mapRows = region->rows + 2 * pad, mapCols = region->cols + 2 * pad;
    std::unique_ptr<CellBits> marked;
    if (split) marked = std::make_unique<CellBits>(mapRows, mapCols);
    // The second half's choices (2 * class + whether the label changed), and
    // the labels it changed (cells marked in guessed, labels by cell), made by
    // the thread that speculates, if one does.
    std::unique_ptr<int[]> guess;  // entries below reached
    std::unique_ptr<CellBits> guessed;
    std::unordered_map<std::size_t, int> guessedLabel;

    int done = 0;
    double rate = 0.0;
    do {
        int changes = 0;
        if (!split) {
            changes = inOrder(0, n, nullptr);
        } else {
            marked->clear();
            std::atomic<bool> firstDone{false};
            int reached = half;
            dhc::forChunks(2, 1, [&](int, int, int part) {
                if (part == 0) {
                    changes = inOrder(0, half, marked.get());
                    firstDone.store(true, std::memory_order_relaxed);
                    return;
                }
                // Reads the map while the first half may be writing it: a
                // first-half cell read in any state is marked if it changes,
                // and every second-half pixel next to it is decided again.
                // Second-half cells are written by nobody meanwhile; the
                // speculation's own changes are kept aside.
                if (firstDone.load(std::memory_order_relaxed)) return;
                if (!guess) {
                    guess.reset(new int[static_cast<std::size_t>(n - half)]);
                    guessed = std::make_unique<CellBits>(mapRows, mapCols);
                } else {
                    guessed->clear();
                }
                guessedLabel.clear();
                int p = half;
                int nb[8];
                for (; p < n; ++p) {
                    if (((p - half) & 255) == 0 && firstDone.load(std::memory_order_relaxed)) break;
                    ahead(p, n);
                    const xy& q = coords[p];
                    const int r = q.x + pad, c = q.y + pad;
                    neighbours(q, nb);
                    if (guessed->around(r, c)) {
                        const int rows[8] = {r - 1, r - 1, r - 1, r, r, r + 1, r + 1, r + 1};
                        const int cols[8] = {c - 1, c, c + 1, c - 1, c + 1, c - 1, c, c + 1};
                        for (int t = 0; t < 8; ++t) {
                            const auto found =
                                guessedLabel.find(static_cast<std::size_t>(rows[t]) * mapCols + cols[t]);
                            if (found != guessedLabel.end()) nb[t] = found->second;
                        }
                    }
                    const int best = choose(nb, q, p);
                    const bool differs = map[r][c] != labels[best];
                    if (differs) {
                        guessed->set(r, c);
                        guessedLabel[static_cast<std::size_t>(r) * mapCols + c] = labels[best];
                    }
                    guess[p - half] = 2 * best + (differs ? 1 : 0);
                }
                reached = p;
            });
            for (int p = half; p < reached; ++p) {
                xy& q = coords[p];
                const int r = q.x + pad, c = q.y + pad;
                const int g = guess[p - half];
                int best = g >> 1;
                if (marked->around(r, c)) {
                    best = decide(q, p);
                    if (best != g >> 1) marked->set(r, c);
                    if (map[r][c] != labels[best]) {
                        map[r][c] = labels[best];
                        q.flag = 1;
                        ++changes;
                    }
                } else if (g & 1) {
                    map[r][c] = labels[best];
                    q.flag = 1;
                    ++changes;
                }
                classOf[p] = firstOf[best];
            }
            changes += inOrder(reached, n, nullptr);
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
    double*** covs = newCube(k, d);
    double*** inverses = newCube(k, d);
    std::vector<double> logdet(k, 0.0);
    ws->getSigmaOfClasses(k, classOf.data(), counts.data(), covs);
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
                classEnergies<3>(ws, n, k, means, inverses, logdet.data(), table.get());
                break;
            case 4:
                classEnergies<4>(ws, n, k, means, inverses, logdet.data(), table.get());
                break;
            case 6:
                classEnergies<6>(ws, n, k, means, inverses, logdet.data(), table.get());
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
    freeCube(covs, k, d);
    freeCube(inverses, k, d);

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

double PottsEngine::betaHat(int* labels) {
    return betaHat(labels, multiplicity);
}

double PottsEngine::betaHat(int* labels, int k) {
    // Neighbour configuration of every region pixel, once per estimate:
    // a = neighbours with the pixel's own label, m = neighbours in the other
    // classes of the split.  Chunks of runs are read by the run's threads and
    // joined in run order.
    std::vector<uint8_t> config;
    if (ws != nullptr) {
        PottsMapRegion* region = ws->root;
        int** map = region->map;
        const int pad = region->pad;
        std::vector<std::vector<uint8_t>> parts(
            static_cast<std::size_t>(dhc::chunksFor(region->runCount, 64)));
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
    }

    // g(beta) = sum over pixels of a - T[a][m], the 9 x 9 table built once per
    // evaluation.  Several betas are scored in one pass, each sum still taken
    // in pixel order (so its bits are those of a pass of its own), four to a
    // group and the groups spread over the run's threads.
    auto scores = [&config](const std::vector<double>& betas, std::vector<double>& g) {
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
    delete energyTable;
    energyTable = nullptr;
    if (ws != nullptr) energyTable = new PottsLikelihoodEnergy(classes, n, ws);
}

// ---------------------------------------------------------------------------
// Splits

PottsWS** PottsEngine::makeChildren(PottsWS* w, int* labels, int k, bool altGain, double threshold) {
    PottsWS** children = nullptr;
    w->split(labels, k, children, true, childValuesWithParent);
    w->splitGain = altGain ? splitGain(w, k, children, threshold) : splitGain(w, k, children);
    if (stopCriterion > 0) w->criterion = dhc::splitCriterion(*w, k, children, stopCriterion == 1);
    // The Potts split is the method that made this split, so its gain is the
    // primary one; the report files it as the MRF gain.
    w->primaryGain = w->splitGain;
    ws = nullptr;
    return children;
}

PottsWS** PottsEngine::icmAndSplit(PottsWS* w, int* labels, double** means, bool altGain, double threshold) {
    const int r = kEstMaxICM(means, labels);
    w->splitState = r;
    if (r != 2) {
        ws = nullptr;
        return nullptr;
    }
    w->beta = betaHat(labels);
    return makeChildren(w, labels, multiplicity, altGain, threshold);
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, bool altGain, double threshold) {
    ws = w;
    double** means = kGLA(w, labels);
    PottsWS** children = nullptr;
    if (w->splitState != -1) children = icmAndSplit(w, labels, means, altGain, threshold);
    dhc::deleteRows(means, multiplicity);
    ws = nullptr;
    return children;
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, double** means, bool altGain, double threshold) {
    ws = w;
    w->updateMi();
    if (w->splitState == -1) {
        ws = nullptr;
        return nullptr;
    }
    return icmAndSplit(w, labels, means, altGain, threshold);
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, PottsWS** parts, int nParts, int* classOf, int k,
                             bool altGain, double threshold) {
    ws = w;
    PottsMapRegion* region = w->root;
    for (int i = 0; i < nParts; ++i) {
        const int l = labels[classOf[i]];
        for (int q = 0; q < parts[i]->envelopeCount; ++q) cell(region, parts[i]->coords[q]) = l;
    }
    w->splitState = 2;
    w->beta = betaHat(labels, k);
    return makeChildren(w, labels, k, altGain, threshold);
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, Mixture** classes) {
    ws = w;
    if (energyTable == nullptr) {
        ws = nullptr;
        return nullptr;
    }
    const int k = multiplicity;
    std::vector<int*> groups(k);
    std::vector<int> sizes(k);
    for (int c = 0; c < k; ++c) {
        groups[c] = classes[c]->linkIndex;
        sizes[c] = classes[c]->k;
    }
    double** energy = energyTable->get(w, groups.data(), sizes.data(), k);
    double** means = kML(w, labels, energy);

    int r = w->splitState;
    if (r != -1) {
        for (int c = 0; c < k; ++c)
            if (!classes[c]->checkInv()) r = -2;
        if (r == -2) {
            w->splitState = -2;
        } else {
            r = kSupervisedICM(means, labels, energy);
            w->splitState = r;
            if (r == 2) w->beta = betaHat(labels);
        }
    }
    dhc::deleteRows(energy, k);
    dhc::deleteRows(means, k);

    PottsWS** children = nullptr;
    if (r == 2) {
        w->split(labels, k, children, true);
        for (int c = 0; c < k; ++c)
            if (globalMixture != nullptr && classes[c]->linkIndex != nullptr)
                children[c]->linkMixture(globalMixture, classes[c]->k, classes[c]->linkIndex);
    }
    ws = nullptr;
    return children;
}

PottsWS** PottsEngine::fragment(PottsWS* w, int* labels, int n) {
    ws = w;
    PottsMapRegion* region = w->root;
    int pieces = 0;
    PottsMapRegion* parts = region->fragment(pieces, false);
    if (parts == nullptr) {
        ws = nullptr;
        return nullptr;
    }
    // The pieces carry fresh labels now; give piece i the caller's labels[i].
    int top = 0;
    for (int i = 0; i < pieces; ++i)
        if (parts[i].label > top) top = parts[i].label;
    std::vector<int> table(static_cast<std::size_t>(top) + 1);
    for (int l = 0; l <= top; ++l) table[l] = l;
    for (int i = 0; i < pieces && i < n; ++i) table[parts[i].label] = labels[i];
    delete[] parts;
    region->setInnerLabels(table.data());

    PottsWS** children = nullptr;
    w->split(labels, n, children, true);
    ws = nullptr;
    return children;
}

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

Mixture** PottsEngine::generateLinkedMixtures(int* assign, int k) {
    Mixture** result = new Mixture*[k > 0 ? k : 0]();
    if (globalMixture == nullptr) return result;
    const int classes = globalMixture->k;
    bool* mask = new bool[classes > 0 ? classes : 0];
    for (int c = 0; c < k; ++c) {
        for (int j = 0; j < classes; ++j) mask[j] = assign[j] == c;
        result[c] = globalMixture->generateLinkedMixture(mask);
    }
    delete[] mask;
    return result;
}

// ---------------------------------------------------------------------------
// Number of classes by mean shift

double** PottsEngine::MS_K_est(PottsWS* w, int& k, bool label) {
    const int d = w->bands;
    int n = w->envelopeCount < 3000 ? w->envelopeCount : 3000;
    xy* sampleCoords = nullptr;
    double** samples = w->getFirstNaturals(n, sampleCoords);

    // Mean shift runs on the principal components of the samples: three of
    // them, or as many as there are bands when there are fewer.
    const int dims = d < 3 ? d : 3;
    FeatureSpace space(1, n);
    space.addDomain(samples, d);
    double** projected = n > 0 && dims > 0 ? space.getPCAData(dims, false) : nullptr;
    std::ostream& out = dhc::out();
    out << "N.L.P. = " << n;

    w->updateFeatures();
    const double dist = std::sqrt(w->sqDeviation);
    out << " - Dist: " << dist << " - ";
    // A spread below e^0 gives no usable figure: every sample is a neighbour then.
    const double knnFigure = std::ceil(n / (0.5 * std::log(dist)));
    const int knn = (std::isfinite(knnFigure) && knnFigure >= 1.0) ? static_cast<int>(knnFigure) : n;
    out << " (inital knn = " << knn << ")" << std::endl;

    double** modes = nullptr;
    int* classification = nullptr;
    int* population = nullptr;
    k = 0;
    if (projected != nullptr) {
        FMSC* shift = nullptr;
        if (settings != nullptr)
            shift = new FMSC(projected, dims, n, knn, 0.05, 100.0, settings->autoAdjustkNN,
                             settings->tolerance, settings->skipLast, settings->kernelType);
        else if (configFile != nullptr)
            shift = new FMSC(projected, dims, n, knn, 0.05, 100.0, configFile);
        else
            shift = new FMSC(projected, dims, n, knn, 0.05, 100.0, 0, 0.0, 0.0, 0);
        double** found = shift->getModes(k);
        int counted = 0;
        population = shift->getPointsForMode(counted);
        int classified = 0;
        classification = shift->getClassification(classified);
        delete shift;

        // Back to data units: m_b * s_b + mu_b on the clustered coordinates,
        // the band mean on any band beyond them.
        double* sd = space.getStDevs(0);
        double* mu = space.getMi(0);
        modes = dhc::newRows<double>(k, d);
        for (int i = 0; i < k; ++i)
            for (int b = 0; b < d; ++b) modes[i][b] = b < dims ? found[i][b] * sd[b] + mu[b] : mu[b];
        dhc::deleteRows(found, k);
        delete[] sd;
        delete[] mu;
    }

    setConfig(k);
    if (k >= 2 && k <= 8) {
        out << "Modes found:" << std::endl;
        for (int i = 0; i < k; ++i) out << "Mode #" << i << ": " << population[i] << std::endl;
        if (label) {
            PottsMapRegion* region = w->root;
            int count = 0;
            int* all = region->PottsMap::labels(count);
            const int base = count > 0 ? all[count - 1] : 0;
            delete[] all;
            region->mapRefresh(0, false);
            for (int i = 0; i < n; ++i)
                if (classification != nullptr && classification[i] > 0)
                    cell(region, sampleCoords[i]) = base + classification[i];
            dhc::deleteRows(modes, k);
            modes = dhc::newRows<double>(k, d);
            w->MLMapCompletion(modes, nullptr);
            w->splitState = 1;
        } else if (w->fromRoi == 0) {
            // Values held in memory only (built from a region of interest) are
            // complete already and have no file behind them: they stay.
            if (!w->hrawFileName.empty())
                w->loadDataHRaw(w->hrawFileName, 100.0f);
            else if (w->bandFiles != nullptr)
                w->loadDataRaw(w->bandFiles, w->bands, 100.0f);
        }
    } else {
        dhc::deleteRows(modes, k);
        modes = nullptr;
        w->splitState = -1;
        k = 1;
    }

    delete[] classification;
    delete[] population;
    dhc::deleteRows(projected, n);
    dhc::deleteRows(samples, n);
    delete[] sampleCoords;
    return modes;
}
