#include "data/ROI.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "settings/Random.h"
#include "settings/Workers.h"

namespace {

// Regions of interest smaller than this are shuffled on one thread.
constexpr int kShuffleGrain = 1 << 16;

// The shuffle's swaps on a position array: each swap exchanges the entries
// at two positions drawn from the generator (first, then second).  The draws
// do not depend on the entries, so they are taken a batch ahead (same draws,
// same order) and the entries fetched before swapping.
void applySwaps(dhc::Random& random, long swaps, std::vector<int32_t>& at) {
    const int count = static_cast<int>(at.size());
    if (count == 0 || swaps <= 0) return;
    // draw % count by a multiplication (exact for every 32-bit draw and
    // count): two divisions a swap would cost more than the swap.
    const uint64_t inverse = ~uint64_t{0} / static_cast<uint32_t>(count) + 1;
    auto position = [inverse, count](int draw) {
        const uint64_t low = inverse * static_cast<uint32_t>(draw);
        __extension__ typedef unsigned __int128 U128;
        return static_cast<int>((static_cast<U128>(low) * static_cast<uint32_t>(count)) >> 64);
    };
    constexpr long kBatch = 32;
    int is[kBatch], js[kBatch];
    for (long s = 0; s < swaps; s += kBatch) {
        const long n = std::min(kBatch, swaps - s);
        for (long t = 0; t < n; ++t) {
            is[t] = position(random.next());
            js[t] = position(random.next());
            __builtin_prefetch(&at[is[t]], 1);
            __builtin_prefetch(&at[js[t]], 1);
        }
        for (long t = 0; t < n; ++t) std::swap(at[is[t]], at[js[t]]);
    }
}

}  // namespace

ROI<int, xy>* buildRoi(int rows, int cols, int bands, int*** cube, int** mask, int maskValue, bool shuffle) {
    int count = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c)
            if (mask[r][c] == maskValue) ++count;

    ROI<int, xy>* roi = new ROI<int, xy>();
    roi->count = count;
    roi->bands = bands;
    roi->coords = new xy[count]();
    const size_t width = static_cast<size_t>(bands > 0 ? bands : 0);
    roi->data = new int[static_cast<size_t>(count) * width];
    int k = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            if (mask[r][c] != maskValue) continue;
            roi->coords[k].x = static_cast<uint16_t>(r);
            roi->coords[k].y = static_cast<uint16_t>(c);
            ++k;
        }
    roi->imageRows = rows;
    roi->imageCols = cols;
    roi->order = 2;
    roi->fitBox();
    for (int i = 0; i < count; ++i) {
        roi->coords[i].x = static_cast<uint16_t>(roi->coords[i].x - roi->minRow);
        roi->coords[i].y = static_cast<uint16_t>(roi->coords[i].y - roi->minCol);
    }

    if (shuffle) {
        // The swaps run on an index permutation (point q becomes raster point
        // from[q]); the points are then read once in their final order, the
        // same order as swapping the points themselves.
        std::vector<int32_t> from(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) from[i] = i;
        dhc::Random& random = dhc::processRandom();
        random.reseed(3605118785u);
        const long swaps = 10L * count;
        if (dhc::chunksFor(count, kShuffleGrain) < 2) {
            applySwaps(random, swaps, from);
        } else {
            // Swaps act on positions whatever the entries, so the second half
            // of them, applied to the identity on its own, gives the positions
            // the first half's result is read at: the two halves run side by
            // side and are joined by one gather.  The second half's draws
            // start where the first half's end.
            std::vector<int32_t> second(static_cast<size_t>(count));
            for (int i = 0; i < count; ++i) second[i] = i;
            const long half = swaps / 2;
            dhc::Random ahead = random;
            dhc::forChunks(2, 1, [&](int, int, int part) {
                if (part == 0) {
                    applySwaps(random, half, from);
                } else {
                    for (long t = 0; t < 2 * half; ++t) ahead.next();
                    applySwaps(ahead, swaps - half, second);
                }
            });
            random = ahead;
            for (int q = 0; q < count; ++q) second[q] = from[second[q]];
            from.swap(second);
        }
        xy* coords = new xy[count];
        for (int q = 0; q < count; ++q) coords[q] = roi->coords[from[q]];
        delete[] roi->coords;
        roi->coords = coords;
        roi->order = 1;
    }
    // The values straight from the caller's planes, in the points' order.
    const int minRow = roi->minRow, minCol = roi->minCol;
    xy* points = roi->coords;
    int* values = roi->data;
    dhc::forChunks(count, kShuffleGrain, [&](int begin, int end, int) {
        constexpr int kAhead = 8;
        for (int q = begin; q < end; ++q) {
            if (q + kAhead < end)
                for (int b = 0; b < bands; ++b)
                    __builtin_prefetch(
                        &cube[b][points[q + kAhead].x + minRow][points[q + kAhead].y + minCol]);
            const int r = points[q].x + minRow, c = points[q].y + minCol;
            for (int b = 0; b < bands; ++b) values[static_cast<size_t>(q) * width + b] = cube[b][r][c];
        }
    });
    return roi;
}

ROI<int, xy>* fullFrameRoi(int rows, int cols) {
    ROI<int, xy>* roi = new ROI<int, xy>(rows * cols, 1);
    int k = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c, ++k) {
            roi->coords[k].x = static_cast<uint16_t>(r);
            roi->coords[k].y = static_cast<uint16_t>(c);
        }
    roi->minRow = 0;
    roi->height = rows;
    roi->minCol = 0;
    roi->width = cols;
    roi->imageRows = rows;
    roi->imageCols = cols;
    roi->order = 2;
    return roi;
}

int* labelsRoi(int* values, int n, int& count) {
    if (n < 2) {
        count = n > 0 ? 1 : 0;
        int* out = new int[count];
        if (count == 1) out[0] = values[0];
        return out;
    }
    int lo = values[0], hi = values[0];
    for (int i = 1; i < n; ++i) {
        if (values[i] < lo) lo = values[i];
        if (values[i] > hi) hi = values[i];
    }
    // The table spans the value range (64-bit: the range of two ints can exceed int).
    std::vector<int> histogram(static_cast<size_t>(static_cast<int64_t>(hi) - lo + 1), 0);
    for (int i = 0; i < n; ++i) ++histogram[static_cast<size_t>(static_cast<int64_t>(values[i]) - lo)];
    count = 0;
    for (int h : histogram)
        if (h != 0) ++count;
    int* out = new int[count];
    int k = 0;
    for (size_t i = 0; i < histogram.size(); ++i)
        if (histogram[i] != 0) out[k++] = static_cast<int>(lo + static_cast<int64_t>(i));
    return out;
}
