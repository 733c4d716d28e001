#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "base/Grid.h"
#include "data/PottsMapRegion.h"
#include "engine/EngineSupport.h"
#include "engine/PottsEngine.h"
#include "settings/BandCount.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/Mixture.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"

// Clustering: the splitting Lloyd (kGLA) with the bounds that let its passes
// skip settled pixels, the minimum-energy labelling (kML) and the global mixture.

using namespace dhc::engine;

namespace {

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

}  // namespace

// ---------------------------------------------------------------------------
// Clustering

bool PottsEngine::updateGlobalMixture(PottsWS& w) {
    int n = 0;
    const std::unique_ptr<int[]> present(w.root->labels(n));
    ws = &w;
    globalMixture.reset();

    // Label 0 marks unassigned pixels: it is not a class.
    const int first = (n > 0 && present[0] == 0) ? 1 : 0;
    const int k = n - first;
    const int d = w.bands;
    auto m = std::make_unique<Mixture>(k, d);
    std::vector<double> mu(std::max(d, 0));
    dhc::Grid<double> s(d, d);
    for (int i = 0; i < k; ++i) {
        w.getMi(present[first + i], mu.data());
        w.getSigma(present[first + i], s.rows());
        m->set(i, mu.data(), s.rows());
    }
    m->inv();
    globalMixture = std::move(m);
    return globalMixture->updateInv();
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
    dhc::Grid<double> sigma(d, d);
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
        w->getSigmaOfClass(firstOf[j], classOf, sigma.rows());
        double eps = 0.0;
        for (int b = 0; b < d; ++b) eps += std::sqrt(sigma[b][b]);
        eps /= 1000.0 * d;
        OpMatrix::maxEig(sigma.rows(), d, direction.data());
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
