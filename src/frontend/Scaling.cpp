#include "frontend/Scaling.h"

#include <iomanip>
#include <sstream>

#include "base/InputError.h"

namespace dhc {
namespace {

std::string number(double v) {
    std::ostringstream s;
    s << std::setprecision(10) << v;
    return s.str();
}

}  // namespace

double automaticScale(const std::vector<ValueRange>& ranges) {
    double width = 0, magnitude = 0;
    for (const ValueRange& r : ranges)
        if (!r.empty()) {
            width = std::max(width, r.hi - r.lo);
            magnitude = std::max({magnitude, std::fabs(r.lo), std::fabs(r.hi)});
        }
    if (width == 0) width = magnitude;  // constant bands: keep the digits of the value
    if (width == 0) return 1;
    return std::pow(10.0, std::ceil(4.0 - std::log10(width)));
}

void badValue(double value, bool scaled, double scale, int row, int col, const ValueOrigin& origin) {
    const double v = scaled ? std::round(value * scale) : value;
    const std::string at = " at row " + std::to_string(row + 1) + ", column " + std::to_string(col + 1);
    if (v != std::floor(v))
        throw InputError(kExitInput, origin.band + ": value " + number(v) + at + " is not a whole number");
    if (scaled)
        throw InputError(kExitInput, origin.band + ": value " + number(value) + at + " scaled by " +
                                         number(scale) + " does not fit a 32-bit integer (give a smaller " +
                                         origin.scaleName + ")");
    throw InputError(kExitInput,
                     origin.band + ": value " + number(v) + at + " does not fit a 32-bit integer");
}

}  // namespace dhc
