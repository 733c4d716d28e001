#pragma once
// Loops over pixel values run faster with the band count fixed at compile
// time.  withBandCount(d, f) calls f(std::integral_constant<int, D>()) with D
// = d for the common counts (3, 4 and 6 bands) and D = 0 for any other, where
// f reads the count at run time.
#include <type_traits>

namespace dhc {

template <typename F>
decltype(auto) withBandCount(int d, F&& f) {
    switch (d) {
        case 3:
            return f(std::integral_constant<int, 3>());
        case 4:
            return f(std::integral_constant<int, 4>());
        case 6:
            return f(std::integral_constant<int, 6>());
        default:
            return f(std::integral_constant<int, 0>());
    }
}

}  // namespace dhc
