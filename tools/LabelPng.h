#pragma once
// A PNG picture of a label map: one distinct colour per label (the colours of
// hierarchy/LabelColours.h), black for 0 (outside the region of interest).

#include <string>
#include <vector>

#include "hierarchy/LabelColours.h"

// Writes labels (rows x cols, row-major) as an 8-bit RGB PNG to the open
// descriptor fd (left open); throws an InputError naming `name` when the
// picture cannot be written.
void writeLabelPng(int fd, const std::string& name, const std::vector<int>& labels, int rows, int cols);
