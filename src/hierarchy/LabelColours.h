#pragma once
// The colours of label pictures: one distinct colour per class, the same in
// the label map's PNG and in the tree picture, so a class can be found in both.
//
// Labels are numbered by ascending value among the non-zero labels present;
// the k-th label gets colour k of a fixed palette of well separated colours
// (after that, colours spread by the golden-angle hue rule).

#include <cstdint>

struct Rgb {
    uint8_t r, g, b;
};

inline bool operator==(Rgb a, Rgb b) {
    return a.r == b.r && a.g == b.g && a.b == b.b;
}

// Colour of the k-th (0-based) non-zero label.
Rgb labelColour(int k);
