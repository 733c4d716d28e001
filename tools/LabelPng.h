#pragma once
// A PNG picture of a label map: one distinct colour per label, black for 0
// (outside the region of interest).
//
// Labels are numbered by ascending value among the non-zero labels present;
// the k-th label gets colour k of a fixed palette of well separated colours
// (after that, colours spread by the golden-angle hue rule), so the same label
// map always gives the same picture.

#include <cstdint>
#include <string>
#include <vector>

struct Rgb {
    uint8_t r, g, b;
};

// Colour of the k-th (0-based) non-zero label.
Rgb labelColour(int k);

// Writes labels (rows x cols, row-major) as an 8-bit RGB PNG to the open
// descriptor fd (left open); throws an InputError naming `name` when the
// picture cannot be written.
void writeLabelPng(int fd, const std::string& name, const std::vector<int>& labels, int rows, int cols);
