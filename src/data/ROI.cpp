#include "data/ROI.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "settings/Random.h"

ROI<int, xy>* buildRoi(int rows, int cols, int bands, int*** cube, int** mask, int maskValue, bool shuffle) {
    int count = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c)
            if (mask[r][c] == maskValue) ++count;

    ROI<int, xy>* roi = new ROI<int, xy>(count, bands);
    int k = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            if (mask[r][c] != maskValue) continue;
            roi->coords[k].x = static_cast<uint16_t>(r);
            roi->coords[k].y = static_cast<uint16_t>(c);
            for (int b = 0; b < bands; ++b) roi->data[static_cast<size_t>(k) * bands + b] = cube[b][r][c];
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

    if (shuffle && roi->order != 1) {
        // The swaps run on an index permutation, then the points are gathered
        // once: the same final order as swapping the points themselves, without
        // moving every point's values around at random tens of times.
        dhc::Random& random = dhc::processRandom();
        random.reseed(3605118785u);
        std::vector<int32_t> from(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) from[i] = i;
        // The draws do not depend on the permutation, so they are taken a batch
        // ahead (same draws, same order) and the entries fetched before swapping.
        constexpr long kBatch = 32;
        int is[kBatch], js[kBatch];
        const long swaps = 10L * count;
        for (long s = 0; s < swaps; s += kBatch) {
            const long n = std::min(kBatch, swaps - s);
            for (long t = 0; t < n; ++t) {
                is[t] = random.next() % count;
                js[t] = random.next() % count;
                __builtin_prefetch(&from[is[t]], 1);
                __builtin_prefetch(&from[js[t]], 1);
            }
            for (long t = 0; t < n; ++t) std::swap(from[is[t]], from[js[t]]);
        }
        xy* coords = new xy[count];
        int* data = new int[static_cast<size_t>(count) * (bands > 0 ? bands : 0)];
        for (int q = 0; q < count; ++q) {
            coords[q] = roi->coords[from[q]];
            const int* src = roi->data + static_cast<size_t>(from[q]) * bands;
            std::copy(src, src + bands, data + static_cast<size_t>(q) * bands);
        }
        delete[] roi->coords;
        delete[] roi->data;
        roi->coords = coords;
        roi->data = data;
        roi->order = 1;
    }
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
