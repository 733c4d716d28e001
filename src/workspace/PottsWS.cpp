#include "workspace/PottsWS.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <utility>
#include <vector>

#include "data/PottsMapRegion.h"
#include "data/run.h"
#include "settings/BandCount.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/Mixture.h"
#include "stats/OpMatrix.h"
#include "workspace/WSReport.h"

namespace {

__extension__ typedef __int128 Int128;

// Sums of the band products x[i] * x[j] (i <= j) over the pixels added.  Each
// product is formed in 64 bits and summed in 128, so the sums are exact for
// every int32 value and any pixel count, and are rounded to double once.  (While
// the sums stay below 2^53 this is what summing the products in double gives.)
class ProductSums {
  public:
    explicit ProductSums(int d) : d_(d > 0 ? d : 0), s_(static_cast<size_t>(d_) * d_, 0) {}
    void add(const int* x) {
        for (int i = 0; i < d_; ++i) {
            Int128* row = &s_[static_cast<size_t>(i) * d_];
            const int64_t xi = x[i];
            for (int j = i; j < d_; ++j) row[j] += xi * x[j];
        }
    }
    void add(const ProductSums& other) {
        for (size_t e = 0; e < s_.size(); ++e) s_[e] += other.s_[e];
    }
    // Adds partial sums laid out as these (d x d, upper triangle used).
    void add(const int64_t* partial) {
        for (int i = 0; i < d_; ++i)
            for (int j = i; j < d_; ++j) s_[static_cast<size_t>(i) * d_ + j] += partial[i * d_ + j];
    }
    // Sum of x[i] * x[j], either order of i and j.
    double at(int i, int j) const {
        return static_cast<double>(i <= j ? s_[static_cast<size_t>(i) * d_ + j]
                                          : s_[static_cast<size_t>(j) * d_ + i]);
    }

  private:
    int d_;
    std::vector<Int128> s_;
};

void zeroMatrix(double** m, int n) {
    for (int i = 0; i < n; ++i) std::fill(m[i], m[i] + n, 0.0);
}

// A covariance whose entries are all (nearly) zero comes from a constant
// region; a unit diagonal keeps it invertible for the later steps.
void repairDegenerate(double** m, int n) {
    double total = 0.0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) total += std::fabs(m[i][j]);
    if (total < 0.01)
        for (int i = 0; i < n; ++i) m[i][i] = 1.0;
}

// Copies the upper triangle of m onto the lower one.  The product sums below
// fill only the upper triangle: entry (j, i) would receive exactly the same
// terms as (i, j), in the same order, so it ends with the same bits.
void mirrorUpper(double** m, int n) {
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) m[j][i] = m[i][j];
}

// Index of the first entry of labels[0..n-1] equal to v, or -1.
inline int firstMatch(const int* labels, int n, int v) {
    for (int j = 0; j < n; ++j)
        if (labels[j] == v) return j;
    return -1;
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction

PottsWS::PottsWS() : PottsData() {
    init();
}

PottsWS::PottsWS(int label) : PottsData(label) {
    init();
}

PottsWS::PottsWS(ROI<int, xy>* roi_, int pad, int borderLabel, int label, int aux)
    : PottsData(roi_, pad, borderLabel, label, aux) {
    init();
}

PottsWS::PottsWS(int rows_, int cols_, int bands_, bool shuffle_, float percentage, char** bandFiles_,
                 int pad, int borderLabel, int aux)
    : PottsData(rows_, cols_, bands_, shuffle_, percentage, bandFiles_, pad, borderLabel, aux) {
    init();
}

PottsWS::PottsWS(int rows_, int cols_, int bands_, bool shuffle_, float percentage, int pad, int borderLabel,
                 int aux)
    : PottsData(rows_, cols_, bands_, shuffle_, percentage, pad, borderLabel, aux) {
    init();
}

PottsWS::PottsWS(bool shuffle_, float percentage, std::string hrawFile, int pad, int borderLabel, int aux)
    : PottsData(shuffle_, percentage, std::move(hrawFile), pad, borderLabel, aux) {
    init();
}

PottsWS::~PottsWS() {
    delete[] mi;
    dhc::deleteRows(sigma, bands);
    delete mixture;
    delete[] pixelIndex;
}

void PottsWS::init() {
    delete[] mi;
    dhc::deleteRows(sigma, bands);
    mi = nullptr;
    sigma = nullptr;
    if (bands > 0) {
        mi = new double[bands]();
        sigma = dhc::newRows<double>(bands, bands);
    }
    sqDeviation = 0.0;
    likelihoodEnergy = 0.0;
    edges = 0;
    delete mixture;
    mixture = nullptr;
    splitState = 0;
    processed = false;
    primaryGain = -1.0;
    textureBased = false;
}

// ---------------------------------------------------------------------------
// Pixel access

namespace {

// Reads of map cells in pixel order (scattered over the map) ask for the cell
// of the pixel this many places on, so it is in cache in time.
constexpr int kAhead = 16;

// The loaded pixels of a workspace with their current map labels.  The scan
// leaves the data's cursor at the last pixel visited, like the base class's
// own getters.
struct PixelScan {
    PottsData& d;
    const int* values(int p) const { return d.data + static_cast<size_t>(p) * d.bands; }
    int label(int p) const {
        const int pad = d.root->pad;
        if (p + kAhead < d.loadedCount) {
            const xy& a = d.coords[p + kAhead];
            __builtin_prefetch(d.root->map[a.x + pad] + a.y + pad);
        }
        const xy& c = d.coords[p];
        return d.root->map[c.x + pad][c.y + pad];
    }
    int count() const { return d.loadedCount; }
    void finish() const { d.cursor = std::max(d.loadedCount - 1, 0); }
};

// A child's pixels read where they lie in its parent's list (index[p] is the
// parent's entry of the child's pixel p), for the child's own statistics
// before it holds values of its own.
struct IndexScan {
    PottsData& child;
    const int* base;   // the parent's values
    const int* index;  // n entries
    int n;
    const int* values(int p) const { return base + static_cast<size_t>(index[p]) * child.bands; }
    int count() const { return n; }
    void finish() const { child.cursor = std::max(n - 1, 0); }
};

// Pixels below this many per chunk are not worth handing to another thread.
constexpr int kGrain = 16384;

// The integer sums of the loaded pixels by class (values, and band products
// when asked), taken by the run's threads over contiguous shares and merged
// in share order: exact, so they do not depend on the cut.  classOf(p) gives
// pixel p's class below n, or -1 for none.
struct ClassSums {
    std::vector<int64_t> sums;  // n x d
    std::vector<ProductSums> products;
    std::vector<int> counts;
    int64_t largest = 0;  // the largest |value| summed

    // Whether summing the values (and, with products, their band products)
    // one pixel at a time in double was exact: then every partial sum was an
    // integer below 2^53, and the double sums equal these integer sums.
    bool doubleSumsExact(bool withProducts) const {
        int64_t pixels = 0;
        for (int c : counts) pixels += c;
        const double limit = 9007199254740992.0;  // 2^53
        const double top = static_cast<double>(largest);
        if (top * static_cast<double>(pixels) >= limit) return false;
        return !withProducts || top * top * static_cast<double>(pixels) < limit;
    }
};

template <typename Scan, typename ClassOf>
ClassSums classSums(const Scan& scan, int n, int d, ClassOf classOf, bool withProducts) {
    const int chunks = dhc::chunksFor(scan.count(), kGrain);
    std::vector<ClassSums> part(static_cast<size_t>(chunks));
    dhc::forChunks(scan.count(), kGrain, [&](int begin, int end, int chunk) {
        ClassSums s;
        s.sums.assign(static_cast<size_t>(n) * d, 0);
        s.counts.assign(static_cast<size_t>(n), 0);
        if (withProducts) s.products.assign(static_cast<size_t>(n), ProductSums(d));
        dhc::withBandCount(d, [&](auto bandCount) {
            constexpr int D = decltype(bandCount)::value;
            const int dd = D > 0 ? D : d;
            // Products are summed a block at a time in 64 bits when the
            // block's values are small enough for that to be exact (2^9
            // products below 2^52 each), then added to the 128-bit sums.
            constexpr int kBlock = 512;
            constexpr int64_t kSmall = int64_t{1} << 26;
            // (Beyond this many classes the per-block merge would cost more
            // than it saves.)
            constexpr int kBlockClasses = 64;
            int cls[kBlock];
            std::vector<int64_t> partial(withProducts && n <= kBlockClasses ? static_cast<size_t>(n) * dd * dd
                                                                            : 0);
            std::vector<char> touched(withProducts && n <= kBlockClasses ? static_cast<size_t>(n) : 0);
            int64_t largest = 0;
            for (int from = begin; from < end; from += kBlock) {
                const int to = std::min(end, from + kBlock);
                int64_t blockLargest = 0;
                for (int p = from; p < to; ++p) {
                    const int j = classOf(p);
                    cls[p - from] = j;
                    if (j < 0) continue;
                    const int* x = scan.values(p);
                    int64_t* sum = &s.sums[static_cast<size_t>(j) * dd];
                    for (int b = 0; b < dd; ++b) {
                        sum[b] += x[b];
                        blockLargest =
                            std::max<int64_t>(blockLargest, x[b] < 0 ? -static_cast<int64_t>(x[b]) : x[b]);
                    }
                    ++s.counts[j];
                }
                largest = std::max(largest, blockLargest);
                if (!withProducts) continue;
                if (blockLargest >= kSmall || n > kBlockClasses) {
                    for (int p = from; p < to; ++p)
                        if (cls[p - from] >= 0) s.products[cls[p - from]].add(scan.values(p));
                    continue;
                }
                for (int p = from; p < to; ++p) {
                    const int j = cls[p - from];
                    if (j < 0) continue;
                    touched[j] = 1;
                    const int* x = scan.values(p);
                    int64_t* acc = &partial[static_cast<size_t>(j) * dd * dd];
                    for (int a = 0; a < dd; ++a) {
                        const int64_t xa = x[a];
                        for (int b = a; b < dd; ++b) acc[a * dd + b] += xa * x[b];
                    }
                }
                for (int j = 0; j < n; ++j) {
                    if (!touched[j]) continue;
                    int64_t* acc = &partial[static_cast<size_t>(j) * dd * dd];
                    s.products[j].add(acc);
                    std::fill(acc, acc + dd * dd, 0);
                    touched[j] = 0;
                }
            }
            s.largest = largest;
        });
        part[chunk] = std::move(s);
    });
    ClassSums total = std::move(part[0]);
    for (int i = 1; i < chunks; ++i) {
        for (size_t e = 0; e < total.sums.size(); ++e) total.sums[e] += part[i].sums[e];
        for (int j = 0; j < n; ++j) {
            total.counts[j] += part[i].counts[j];
            if (withProducts) total.products[j].add(part[i].products[j]);
        }
        total.largest = std::max(total.largest, part[i].largest);
    }
    return total;
}

}  // namespace

// ---------------------------------------------------------------------------
// Whole-workspace statistics

double* PottsWS::getMi() {
    if (mi == nullptr) return nullptr;
    double* out = new double[bands];
    std::copy(mi, mi + bands, out);
    return out;
}

double** PottsWS::getSigma() {
    if (sigma == nullptr) return nullptr;
    return dhc::copyRows(sigma, bands, bands);
}

void PottsWS::setMi(double* m) {
    std::copy(m, m + bands, mi);
}

void PottsWS::setSigma(double** s) {
    dhc::copyRowsInto(s, sigma, bands, bands);
}

void PottsWS::updateMi() {
    meanOver(PixelScan{*this});
}

template <typename Scan>
void PottsWS::meanOver(const Scan& scan) {
    const int d = bands;
    std::fill(mi, mi + d, 0.0);
    cursor = 0;
    const ClassSums exact = classSums(
        scan, 1, d, [](int) { return 0; }, false);
    if (exact.doubleSumsExact(false)) {
        for (int b = 0; b < d; ++b) mi[b] = static_cast<double>(exact.sums[b]);
    } else {
        for (int p = 0; p < scan.count(); ++p) {
            const int* x = scan.values(p);
            for (int b = 0; b < d; ++b) mi[b] += static_cast<double>(x[b]);
        }
    }
    scan.finish();
    const double n = std::max(scan.count(), 1);
    for (int b = 0; b < d; ++b) mi[b] /= n;
}

namespace {

bool sameBits(const std::vector<double>& key, const std::vector<double>& state) {
    return !key.empty() && key.size() == state.size() &&
           std::memcmp(key.data(), state.data(), key.size() * sizeof(double)) == 0;
}

}  // namespace

void PottsWS::updateSigma() {
    if (sameBits(sigmaKey_, sigmaState())) {
        PixelScan{*this}.finish();  // the cursor where a scan leaves it
        return;
    }
    sigmaOver(PixelScan{*this});
}

// The pixel count, mi and sigma (and the features), compared bit for bit
// (0.0 and -0.0 differ; a NaN matches the NaN of the same sums).
std::vector<double> PottsWS::sigmaState() const {
    std::vector<double> s;
    s.reserve(1 + static_cast<std::size_t>(bands) * (bands + 1) + 2);
    s.push_back(static_cast<double>(loadedCount));
    s.insert(s.end(), mi, mi + bands);
    for (int i = 0; i < bands; ++i) s.insert(s.end(), sigma[i], sigma[i] + bands);
    return s;
}

std::vector<double> PottsWS::featuresState() const {
    std::vector<double> s = sigmaState();
    s.push_back(sqDeviation);
    s.push_back(likelihoodEnergy);
    return s;
}

template <typename Scan>
void PottsWS::sigmaOver(const Scan& scan) {
    const int d = bands;
    zeroMatrix(sigma, d);
    cursor = 0;
    const ClassSums exact = classSums(
        scan, 1, d, [](int) { return 0; }, true);
    if (exact.doubleSumsExact(true)) {
        for (int i = 0; i < d; ++i)
            for (int j = i; j < d; ++j) sigma[i][j] = exact.products[0].at(i, j);
    } else {
        for (int p = 0; p < scan.count(); ++p) {
            const int* x = scan.values(p);
            // Products in double arithmetic, unlike the label forms.
            for (int i = 0; i < d; ++i)
                for (int j = i; j < d; ++j)
                    sigma[i][j] += static_cast<double>(x[i]) * static_cast<double>(x[j]);
        }
    }
    scan.finish();
    mirrorUpper(sigma, d);
    const double n = std::max(scan.count(), 1);
    for (int i = 0; i < d; ++i)
        for (int j = 0; j < d; ++j) sigma[i][j] = sigma[i][j] / n - mi[i] * mi[j];
    repairDegenerate(sigma, d);
    sigmaKey_ = sigmaState();
}

namespace {

// The sums of updateFeatures over the pixels in order, for a band count D
// fixed at compile time (0: d at run time), in the same order of operations.
template <int D, typename Scan>
void featureSums(const Scan& scan, int d, const double* mi, double** inverse, bool ok, double& sqDeviation,
                 double& mahalanobis) {
    if (D > 0) d = D;
    std::vector<double> mu(mi, mi + d), inv(static_cast<size_t>(d) * d), diff(d);
    for (int i = 0; i < d; ++i)
        std::copy(inverse[i], inverse[i] + d, inv.begin() + static_cast<ptrdiff_t>(i) * d);
    double sq = 0.0, m = 0.0;
    for (int p = 0; p < scan.count(); ++p) {
        const int* x = scan.values(p);
        for (int b = 0; b < d; ++b) {
            diff[b] = static_cast<double>(x[b]) - mu[b];
            sq += diff[b] * diff[b];
        }
        if (ok)
            for (int i = 0; i < d; ++i)
                for (int k = 0; k < d; ++k) m += diff[i] * inv[static_cast<size_t>(i) * d + k] * diff[k];
    }
    sqDeviation = sq;
    mahalanobis = m;
}

}  // namespace

void PottsWS::updateFeatures() {
    // Computed when the split made this child, from the same mi and sigma.
    if (valuesWithParent) return;
    if (sameBits(featuresKey_, featuresState())) {
        PixelScan{*this}.finish();
        return;
    }
    featuresOver(PixelScan{*this});
}

template <typename Scan>
void PottsWS::featuresOver(const Scan& scan) {
    const int d = bands;
    sqDeviation = 0.0;
    likelihoodEnergy = 0.0;
    if (d <= 0) return;
    double** work = getSigma();
    double** inverse = dhc::newRows<double>(d, d);
    int ok = 0;
    OpMatrix::inv(work, d, inverse, ok);
    double mahalanobis = 0.0;
    cursor = 0;
    dhc::withBandCount(
        d, [&](auto D) { featureSums<D(), Scan>(scan, d, mi, inverse, ok != 0, sqDeviation, mahalanobis); });
    scan.finish();
    if (ok) likelihoodEnergy = 0.5 * mahalanobis;
    dhc::deleteRows(work, d);
    dhc::deleteRows(inverse, d);
    featuresKey_ = featuresState();
}

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
// Mixture and debugging exports

void PottsWS::linkMixture(Mixture* m, int k, int* idx) {
    delete mixture;
    mixture = new Mixture(m, k, idx);
}

void PottsWS::exportMi(int k) {
    std::ofstream out("mi" + std::to_string(k) + ".dat", std::ios::out | std::ios::trunc);
    for (int b = 0; b < bands; ++b) out << mi[b] << " ";
}

void PottsWS::exportSigma(int k) {
    std::ofstream out("sigma" + std::to_string(k) + ".dat", std::ios::out | std::ios::trunc);
    for (int i = 0; i < bands; ++i) {
        for (int j = 0; j < bands; ++j) out << sigma[i][j] << " ";
        out << "\n";
    }
}

// ---------------------------------------------------------------------------
// Split

int PottsWS::split(int* labels, int n, PottsWS**& children, bool computeStats, bool leaveWithParent) {
    const int nChildren = n > 0 ? n : 0;
    children = new PottsWS*[nChildren];
    PottsMapRegion* region = root;
    int** map = region->map;
    const int pad = region->pad;
    const int total = envelopeCount;

    // Label -> child index; nChildren means "no child".
    int m = 0;
    for (int j = 0; j < nChildren; ++j) m = std::max(m, labels[j]);
    std::vector<int> childOf(static_cast<size_t>(m) + 1, nChildren);
    for (int j = 0; j < nChildren; ++j) childOf[labels[j]] = j;

    // First pass: child and border flag of every pixel, areas and border
    // counts, by chunk of the pixel list (the chunks' counts place the
    // second pass's writes).
    const int chunks = dhc::chunksFor(total, kGrain);
    const size_t slots = static_cast<size_t>(nChildren) + 1;
    std::vector<int> chunkAreas(slots * chunks, 0), chunkBorders(slots * chunks, 0);
    // Written for every pixel by the threads (first touched side by side).
    const std::unique_ptr<int[]> pixelChild(new int[std::max(total, 1)]);
    const std::unique_ptr<char[]> isBorder(new char[std::max(total, 1)]);
    dhc::forChunks(total, kGrain, [&](int begin, int end, int chunk) {
        int* area = &chunkAreas[slots * chunk];
        int* border = &chunkBorders[slots * chunk];
        for (int p = begin; p < end; ++p) {
            if (p + kAhead < end) region->prefetchAround(coords[p + kAhead].x, coords[p + kAhead].y);
            const xy& c = coords[p];
            const int v = map[c.x + pad][c.y + pad];
            if (v < 0 || v > m) {
                pixelChild[p] = nChildren;
                isBorder[p] = 0;
                ++area[nChildren];
                continue;
            }
            const int j = childOf[v];
            pixelChild[p] = j;
            const bool onBorder = region->uc(c.x, c.y, v, true) < 8;
            isBorder[p] = onBorder ? 1 : 0;
            if (onBorder) ++border[j];
            ++area[j];
        }
    });
    // From here on chunkAreas / chunkBorders hold where each chunk's entries
    // of each child start.
    std::vector<int> areas(slots, 0), borderCounts(slots, 0);
    for (int i = 0; i < chunks; ++i)
        for (size_t j = 0; j < slots; ++j) {
            const int a = chunkAreas[slots * i + j], b = chunkBorders[slots * i + j];
            chunkAreas[slots * i + j] = areas[j];
            chunkBorders[slots * i + j] = borderCounts[j];
            areas[j] += a;
            borderCounts[j] += b;
        }
    const int uncovered = areas[nChildren];

    // The children, sized exactly from the first pass.
    const bool valuesInMemory = data != nullptr && loadedCount >= envelopeCount;
    const bool leaveValues = computeStats && valuesInMemory && leaveWithParent;
    const bool copyValues = computeStats && valuesInMemory && !leaveWithParent;
    int nonEmpty = 0;
    std::vector<xy*> contours(nChildren, nullptr);
    // The pixel lists are zeroed as they are made: the children's side by side.
    std::vector<xy*> pixelLists(nChildren, nullptr);
    dhc::forChunks(nChildren, 1, [&](int first, int last, int) {
        for (int j = first; j < last; ++j)
            if (areas[j] > 0) pixelLists[j] = new xy[areas[j]];
    });
    for (int j = 0; j < nChildren; ++j) {
        PottsWS* child = new PottsWS();
        children[j] = child;
        if (borderCounts[j] > 0) contours[j] = new xy[borderCounts[j]];
        child->bands = bands;
        child->rows = rows;
        child->cols = cols;
        child->envelopeCount = areas[j];
        if (fromRoi == 1)
            child->fromRoi = 1;
        else if (!hrawFileName.empty())
            child->setHrawFileName(hrawFileName);
        else if (bandFiles != nullptr)
            child->setFileNames(bandFiles, bands);
        child->tracksRootIndex = tracksRootIndex;
        delete child->root;
        child->root = new PottsMapRegion(*region, labels[j]);
        child->root->area = areas[j];
        if (areas[j] > 0) {
            ++nonEmpty;
            child->coords = pixelLists[j];
            if (tracksRootIndex) child->pixelIndex = new int[areas[j]];
            if (copyValues) child->data = new int[static_cast<size_t>(areas[j]) * bands];
        }
    }

    // Second pass: pixel lists, contour lists, root indices (and values; or,
    // leaving the values here, every child's entries in this list, child
    // after child).
    std::vector<int> childStart(slots, 0), entries(leaveValues ? total : 0);
    for (int j = 0; j < nChildren; ++j) childStart[j + 1] = childStart[j] + areas[j];
    dhc::forChunks(total, kGrain, [&](int begin, int end, int chunk) {
        int* filled = &chunkAreas[slots * chunk];
        int* contourFilled = &chunkBorders[slots * chunk];
        for (int p = begin; p < end; ++p) {
            const int j = pixelChild[p];
            if (j >= nChildren) continue;
            PottsWS* child = children[j];
            const int q = filled[j]++;
            xy record = coords[p];
            record.aux = static_cast<uint16_t>(isBorder[p]);
            child->coords[q] = record;
            if (isBorder[p]) contours[j][contourFilled[j]++] = record;
            if (tracksRootIndex) child->pixelIndex[q] = pixelIndex != nullptr ? pixelIndex[p] : p;
            if (leaveValues) entries[childStart[j] + q] = p;
            if (copyValues)
                std::copy(data + static_cast<size_t>(p) * bands, data + static_cast<size_t>(p + 1) * bands,
                          child->data + static_cast<size_t>(q) * bands);
        }
    });
    for (int j = 0; j < nChildren; ++j) {
        PottsMapRegion* r = children[j]->root;
        delete[] r->contour;
        r->contour = contours[j];
        r->contourCount = borderCounts[j];
        r->contourCursor = 0;
    }

    // Runs and borders: the parent region's lists cut by label, each handed to
    // the child of its label (adopt); empty lists and lists of no child are freed.
    auto handOver = [&](auto lists, int nLists, int* listLabels, int* listCounts, auto adopt) {
        for (int i = 0; i < nLists; ++i) {
            const int v = listCounts[i] > 0 ? listLabels[i] : -1;
            const int j = (v >= 0 && v <= m) ? childOf[v] : nChildren;
            if (j < nChildren)
                adopt(children[j]->root, lists[i], listCounts[i]);
            else
                delete[] lists[i];
        }
        delete[] lists;
        delete[] listLabels;
        delete[] listCounts;
    };
    int nLists = 0;
    int* listLabels = nullptr;
    int* listCounts = nullptr;
    run** subRuns = region->retrieveSubRuns(nLists, listLabels, listCounts);
    handOver(subRuns, nLists, listLabels, listCounts, [](PottsMapRegion* r, run* list, int count) {
        delete[] r->runs;
        r->runs = list;
        r->runCount = count;
        r->updateMargins(true);
    });
    xy** subBorders = region->retrieveSubBorders(nLists, listLabels, listCounts);
    handOver(subBorders, nLists, listLabels, listCounts, [](PottsMapRegion* r, xy* list, int count) {
        delete[] r->border;
        r->border = list;
        r->borderCount = count;
        r->borderCursor = 0;
    });

    // Band values: copied above when this workspace holds them all, otherwise
    // each child reads its own pixels from the image source.
    if (computeStats) {
        for (int j = 0; j < nChildren; ++j) {
            PottsWS* child = children[j];
            if (copyValues) {
                child->loadedCount = areas[j];
            } else if (!child->hrawFileName.empty()) {
                child->loadDataHRaw(child->hrawFileName, 100.0f);
            } else if (child->bandFiles != nullptr) {
                child->loadDataRaw(child->bandFiles, child->bands, 100.0f);
            }
        }
    }

    if (n < 1) {
        edges = 0;
        return 0;
    }

    for (int j = 0; j < nChildren; ++j) {
        PottsWS* child = children[j];
        if (child->mi == nullptr && bands > 0) child->mi = new double[bands]();
        if (child->sigma == nullptr && bands > 0) child->sigma = dhc::newRows<double>(bands, bands);
        if (leaveValues) {
            // The same sums over the same values in the same order as on a copy.
            const IndexScan scan{*child, data, entries.data() + childStart[j], areas[j]};
            child->meanOver(scan);
            child->sigmaOver(scan);
            child->featuresOver(scan);
            child->valuesWithParent = true;
        } else if (computeStats) {
            child->updateMi();
            child->updateSigma();
        }
    }

    // Edges between the children, each adjacency seen from both sides.
    int count = 0;
    if (nChildren < 9) {
        for (int c = 0; c < nChildren; ++c) {
            PottsMapRegion* r = children[c]->root;
            if (r->contourCount < 1) continue;
            r->resetContourScan();
            do {
                for (int k = 0; k < nChildren; ++k)
                    if (k != c) count += r->uc_contour(labels[k]);
            } while (r->nextContourElement());
        }
    } else {
        // Many children: a range test instead of one test per child label;
        // a non-child label inside the range counts as well.
        int lo = children[0]->root->label, hi = lo;
        for (int j = 1; j < nChildren; ++j) {
            lo = std::min(lo, children[j]->root->label);
            hi = std::max(hi, children[j]->root->label);
        }
        for (int c = 0; c < nChildren; ++c) {
            PottsMapRegion* r = children[c]->root;
            if (r->contourCount < 1) continue;
            const int own = r->label;
            r->resetContourScan();
            do {
                const xy e = r->getContourLocation();
                for (int dr = -1; dr <= 1; ++dr)
                    for (int dc = -1; dc <= 1; ++dc) {
                        if (dr == 0 && dc == 0) continue;
                        const int v = map[e.x + pad + dr][e.y + pad + dc];
                        if (v >= lo && v <= hi && v != own) ++count;
                    }
            } while (r->nextContourElement());
        }
    }
    edges = count / 2;

    return uncovered != 0 ? -nonEmpty : nonEmpty;
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

// ---------------------------------------------------------------------------
// Report

void PottsWS::handValuesToChildren(PottsWS** children, int n) {
    bool pending = false;
    for (int j = 0; j < n; ++j) pending = pending || children[j]->valuesWithParent;
    if (!pending) return;
    if (data == nullptr || loadedCount < envelopeCount)
        dhc::fatal(-1, "handValuesToChildren: the region holds no values to hand over",
                   dhc::FatalChannel::StdErr);
    // The ranges: the largest child's first, then the others in order.
    int big = 0;
    for (int j = 1; j < n; ++j)
        if (children[j]->envelopeCount > children[big]->envelopeCount) big = j;
    const int head = children[big]->envelopeCount;
    std::vector<int> offset(static_cast<size_t>(n), 0), next(static_cast<size_t>(n), 0);
    int filled = head;
    for (int j = 0; j < n; ++j)
        if (j != big) {
            offset[j] = filled;
            filled += children[j]->envelopeCount;
        }
    // Entry q of the ranges takes pixel from[q] of this list.  Every child's
    // pixels are this list's pixels in this list's order, so one cursor per
    // child finds them; pixels of no child are dropped.
    const int total = envelopeCount;
    std::vector<int32_t> from(static_cast<size_t>(filled));
    for (int p = 0; p < total; ++p) {
        const xy& c = coords[p];
        for (int j = 0; j < n; ++j) {
            const PottsWS* child = children[j];
            if (next[j] < child->envelopeCount && child->coords[next[j]].x == c.x &&
                child->coords[next[j]].y == c.y) {
                from[offset[j] + next[j]++] = p;
                break;
            }
        }
    }
    for (int j = 0; j < n; ++j)
        if (next[j] != children[j]->envelopeCount)
            dhc::fatal(-1, "handValuesToChildren: a child's pixels are not the region's",
                       dhc::FatalChannel::StdErr);

    // The other children's values aside; the largest child's moved forward
    // in place (its q-th pixel lies at q or after, so nothing is overwritten
    // before it is read); the others after it.
    const size_t d = static_cast<size_t>(bands);
    dhc::withBandCount(bands, [&](auto D) {
        const size_t w = D() > 0 ? static_cast<size_t>(D()) : d;
        auto copy = [w](const int* src, int* dst) {
            for (size_t b = 0; b < w; ++b) dst[b] = src[b];
        };
        std::vector<int> aside(static_cast<size_t>(filled - head) * w);
        for (int q = head; q < filled; ++q) copy(data + from[q] * w, aside.data() + (q - head) * w);
        for (int q = 0; q < head; ++q) copy(data + from[q] * w, data + q * w);
        std::copy(aside.begin(), aside.end(), data + head * w);
    });

    if (!sharedValues) sharedValues.reset(data);
    for (int j = 0; j < n; ++j) {
        PottsWS* child = children[j];
        if (!child->valuesWithParent) continue;
        child->sharedValues = sharedValues;
        child->data = data + static_cast<size_t>(offset[j]) * d;
        child->loadedCount = child->envelopeCount;
        child->valuesWithParent = false;
    }
}

void PottsWS::releasePixels() {
    dropValues();
    delete[] coords;
    coords = nullptr;
    delete[] pixelIndex;
    pixelIndex = nullptr;
    envelopeCount = 0;
    loadedCount = 0;
}

WSReport* PottsWS::getWSReport() {
    WSReport* r = new WSReport();
    r->WSLab = root->label;
    r->split = splitState == 2;
    r->textureBased = textureBased;
    if (r->split) {
        r->beta = beta;
        r->edges = edges;
        r->splitGainTFR = splitGain;
        // primaryGain always belongs to the method that made the split; the
        // report files it under that method's name.
        r->mixtureSplitGainTFR = textureBased ? primaryGain : secondaryGain;
        r->splitGainMRF = textureBased ? secondaryGain : primaryGain;
    }
    r->criterion = r->split ? criterion : std::numeric_limits<double>::quiet_NaN();
    r->refused = refused;
    r->refusedGain = refusedGain;
    r->refusedCriterion = refusedCriterion;
    r->area = root->area;
    r->totalLikelihoodEnergy = likelihoodEnergy;
    r->nBands = bands;
    r->mean = getMi();
    r->covariance = getSigma();
    return r;
}
