#pragma once
// A PNG picture of a label map: one distinct colour per label (the colours of
// hierarchy/LabelColours.h), black for 0 (outside the region of interest).

#include <string>
#include <vector>

#include "hierarchy/LabelColours.h"

// Writes labels (rows x cols, row-major) as an 8-bit RGB PNG; throws a
// InputError when the file cannot be written.
void writeLabelPng(const std::string& path, const std::vector<int>& labels, int rows, int cols);
