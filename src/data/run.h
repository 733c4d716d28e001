#pragma once
// One horizontal run of a region: cells (row, col) .. (row, col + len - 1),
// inner map coordinates.  Regions keep their pixels as runs in raster order.
#include <cstdint>

struct run {
    uint16_t row = 0;
    uint16_t col = 0;
    uint16_t len = 0;
};
static_assert(sizeof(run) == 6, "run is three packed 16-bit fields");
