#pragma once
// Helpers the engine's routines share: how a pixel is found on the map and
// in the value list, the classes of labels, the work grain of the threads.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "data/PottsMapRegion.h"
#include "settings/RowMatrix.h"
#include "workspace/PottsWS.h"

namespace dhc::engine {

// For each of k labels, the index of the first label equal to it: the class
// the label statistics give a pixel carrying that label.
inline std::vector<int> firstIndices(const int* labels, int k) {
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

// Map cell of a pixel of the workspace (inner coordinates shifted by the pad).
inline int& cell(PottsMapRegion* region, const xy& p) {
    return region->map[p.x + region->pad][p.y + region->pad];
}

inline const int* pixel(const PottsWS* w, int p) {
    return w->data + static_cast<std::size_t>(p) * w->bands;
}

// Pixels below this many per chunk are not worth handing to another thread.
constexpr int kGrain = 16384;

// 32-bit unsigned product of the class counts: zero also when the product is a
// multiple of 2^32, which the callers deliberately treat as an empty class.
inline bool countsProductIsZero(const std::vector<int>& counts) {
    uint32_t product = 1;
    for (int c : counts) product *= static_cast<uint32_t>(c);
    return product == 0;
}

}  // namespace dhc::engine
