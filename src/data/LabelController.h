#pragma once
// LabelController: allocator of free region labels 1 .. capacity, so that every
// new region of the hierarchy gets a label no live region uses.  Label 0 is
// never handed out.  Exhaustion and misuse are fatal (status -1, Italian
// message on standard error).
#include <cstdint>
#include <vector>

class LabelController {
  public:
    std::vector<uint8_t> used;  // capacity + 1 bytes, used[l] = 1 when l is taken
    int firstFree = 1;          // lowest label believed free
    int maxUsed = 0;            // highest label taken
    int usedCount = 1;          // taken labels, label 0 included
    int capacity = 0;           // highest label that may be handed out

    explicit LabelController(int capacity);

    // Lowest free label.
    int pick();
    // New array of n labels from n successive pick() calls (delete[]).
    int* pickMultiple(int n);
    // Reserves l.  Deliberately counted but NOT marked used: a later pick() may hand
    // l out again and release(l) of it is fatal.
    int pick(int l);
    // Gives l back.
    void release(int l);
    // Back to the constructed state.
    void releaseAll();
};
