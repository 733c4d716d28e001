#pragma once
// Reordering a list in place by a permutation, for lists too large to copy.

#include <cstdint>
#include <vector>

namespace dhc {

// Entry q of the list ends up holding what entry from[q] held (from: a
// permutation of 0..n-1; it is used up, every entry left -1).  The list is
// reached through three callbacks: save(s) keeps entry s aside, move(q, p)
// copies entry p over entry q, restore(q) puts the kept entry at q.  Each
// entry moves once, following the permutation's cycles.
template <typename Save, typename Move, typename Restore>
void gatherInPlace(std::vector<int32_t>& from, Save save, Move move, Restore restore) {
    const int n = static_cast<int>(from.size());
    for (int s = 0; s < n; ++s) {
        if (from[s] < 0) continue;
        if (from[s] == s) {
            from[s] = -1;
            continue;
        }
        save(s);
        for (int q = s;;) {
            const int p = from[q];
            from[q] = -1;
            if (p == s) {
                restore(q);
                break;
            }
            move(q, p);
            q = p;
        }
    }
}

}  // namespace dhc
