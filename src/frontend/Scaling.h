#pragma once
// How floating-point image values become the integers the segmenter works on,
// the same for every front end (rasters read through GDAL, NumPy arrays):
// each value is multiplied by one scale and rounded to the nearest integer,
// half away from zero.  The scale is the user's when given, else the power of
// ten that makes the widest band range span at least 10,000 steps (four
// significant digits).  Integer values go in unchanged.

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace dhc {

// The range of one band's data values; empty until a value is added.
struct ValueRange {
    double lo = std::numeric_limits<double>::infinity();
    double hi = -std::numeric_limits<double>::infinity();
    bool empty() const { return lo > hi; }
    void add(double v) {
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
};

// The automatic scale of bands with these ranges (1 when every band is empty
// or zero).
double automaticScale(const std::vector<ValueRange>& ranges);

// Where a value came from and what the user calls the scale, for the message
// of a value that does not convert.
struct ValueOrigin {
    const std::string& band;  // e.g. "image \"a.tif\" band 2"
    const char* scaleName;    // e.g. "--scale"
};

// Throws the InputError (kExitInput) of a value that is not a whole number or
// does not fit 32 bits; row and col are 0-based.
[[noreturn]] void badValue(double value, bool scaled, double scale, int row, int col,
                           const ValueOrigin& origin);

// The integer of one value: scaled (value * scale, rounded) or taken as it is.
inline int toInteger(double value, bool scaled, double scale, int row, int col, const ValueOrigin& origin) {
    constexpr double kMax = std::numeric_limits<int>::max(), kMin = std::numeric_limits<int>::min();
    const double v = scaled ? std::round(value * scale) : value;
    if (v > kMax || v < kMin || v != std::floor(v)) badValue(value, scaled, scale, row, col, origin);
    return static_cast<int>(v);
}

}  // namespace dhc
