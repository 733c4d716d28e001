#pragma once
// Pixel coordinate record: 8 bytes, passed by value.  x is the row, y the
// column (so image sides are limited to 65,535); aux is a small value carried
// along with the coordinate; flag is a mark (set by ICM and getFirstNaturals).
#include <cstdint>

struct xy {
    uint16_t x = 0;
    uint16_t y = 0;
    uint16_t aux = 0;
    uint8_t flag = 0;
};
static_assert(sizeof(xy) == 8, "xy is an 8-byte record");

// The largest side of an image any front end takes: its rows and columns
// must fit the coordinates.
constexpr int kMaxImageSide = UINT16_MAX;
