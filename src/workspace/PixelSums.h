#pragma once
// How the workspace statistics read pixels and sum them: scans over the
// loaded pixels (or a child's pixels in its parent's list) and the exact
// integer sums by class, taken by the run's threads.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "data/PottsData.h"
#include "data/PottsMapRegion.h"
#include "settings/BandCount.h"
#include "settings/Workers.h"

namespace dhc::workspace {

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

inline void zeroMatrix(double** m, int n) {
    for (int i = 0; i < n; ++i) std::fill(m[i], m[i] + n, 0.0);
}

// A covariance whose entries are all (nearly) zero comes from a constant
// region; a unit diagonal keeps it invertible for the later steps.
inline void repairDegenerate(double** m, int n) {
    double total = 0.0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) total += std::fabs(m[i][j]);
    if (total < 0.01)
        for (int i = 0; i < n; ++i) m[i][i] = 1.0;
}

// Copies the upper triangle of m onto the lower one.  The product sums below
// fill only the upper triangle: entry (j, i) would receive exactly the same
// terms as (i, j), in the same order, so it ends with the same bits.
inline void mirrorUpper(double** m, int n) {
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) m[j][i] = m[i][j];
}

// Index of the first entry of labels[0..n-1] equal to v, or -1.
inline int firstMatch(const int* labels, int n, int v) {
    for (int j = 0; j < n; ++j)
        if (labels[j] == v) return j;
    return -1;
}

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
inline ClassSums classSums(const Scan& scan, int n, int d, ClassOf classOf, bool withProducts) {
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

}  // namespace dhc::workspace
