#include "settings/Random.h"

namespace dhc {

void Random::reseed(unsigned seed) {
    if (seed == 0) seed = 1;
    // 16807^i * seed mod (2^31 - 1) by Schrage's method, in the generator's
    // signed 32-bit arithmetic (a seed above 2^31 starts negative, as in glibc).
    int32_t word = static_cast<int32_t>(seed);
    r_[0] = word;
    for (int i = 1; i < kDeg; ++i) {
        const int32_t hi = word / 127773;
        const int32_t lo = word % 127773;
        word = 16807 * lo - 2836 * hi;
        if (word < 0) word += 2147483647;
        r_[i] = word;
    }
    f_ = kSep;
    b_ = 0;
    for (int i = 0; i < 10 * kDeg; ++i) next();
}

Random& processRandom() {
    static Random generator;
    return generator;
}

}  // namespace dhc
