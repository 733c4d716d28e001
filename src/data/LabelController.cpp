#include "data/LabelController.h"

#include <algorithm>

#include "settings/Fatal.h"

LabelController::LabelController(int cap) : used(static_cast<size_t>(cap) + 1), capacity(cap) {
    releaseAll();
}

int LabelController::pick() {
    const int l = firstFree;
    if (l > capacity) dhc::fatal(-1, "Etichette non disponibili", dhc::FatalChannel::StdErr);
    ++usedCount;
    used[l] = 1;
    if (l == maxUsed + 1) {
        maxUsed = l;
        firstFree = l + 1;
        return l;
    }
    int f = l + 1;
    while (f <= capacity && used[f] != 0) ++f;
    firstFree = f;  // capacity + 1 when the scan found nothing
    return l;
}

int* LabelController::pickMultiple(int n) {
    int* out = new int[n > 0 ? n : 0];
    for (int i = 0; i < n; ++i) out[i] = pick();
    return out;
}

int LabelController::pick(int l) {
    if (l < 1 || l > capacity || used[l] == 1)
        dhc::fatal(-1, "Etichetta occupata o fuori range", dhc::FatalChannel::StdErr);
    ++usedCount;
    if (firstFree == l) firstFree = l + 1;
    if (l > maxUsed) maxUsed = l;
    // used[l] stays 0 on purpose: a reserved label is counted, not marked.
    return l;
}

void LabelController::release(int l) {
    if (l < 1 || l > capacity || used[l] == 0)
        dhc::fatal(-1, "L'etichetta da rilasciare e' libera o fuori range", dhc::FatalChannel::StdErr);
    const bool belowFirstFree = l < firstFree;
    if (belowFirstFree) firstFree = l;
    if (l == maxUsed) {
        if (belowFirstFree) {
            maxUsed = l - 1;
        } else {
            int m = l - 1;
            while (used[m] == 0) --m;  // used[0] == 1 stops the scan
            maxUsed = m;
        }
    }
    used[l] = 0;
    --usedCount;
}

void LabelController::releaseAll() {
    std::fill(used.begin(), used.end(), 0);
    used[0] = 1;
    firstFree = 1;
    maxUsed = 0;
    usedCount = 1;
}
