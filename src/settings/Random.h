#pragma once
// The pseudo-random sequence of the core's shuffles and random mean-shift starts:
// the C library's srand()/rand() of glibc (its default additive feedback
// generator, r[i] = r[i-3] + r[i-31], outputs r[i] >> 1 after 310 discarded
// draws), drawn inline without the library's lock and call per draw.
//
// One state serves the whole process, as rand()'s did: a shuffle that does not
// reseed continues the sequence where the previous user left it.

#include <cstdint>

namespace dhc {

class Random {
  public:
    explicit Random(unsigned seed = 1) { reseed(seed); }

    // As srand(seed): 0 seeds as 1, then 310 draws are discarded.
    void reseed(unsigned seed);

    // As rand(): 0 .. 2^31 - 1.
    int next() {
        const uint32_t v = static_cast<uint32_t>(r_[f_]) + static_cast<uint32_t>(r_[b_]);
        r_[f_] = static_cast<int32_t>(v);
        f_ = f_ + 1 == kDeg ? 0 : f_ + 1;
        b_ = b_ + 1 == kDeg ? 0 : b_ + 1;
        return static_cast<int>(v >> 1);
    }

  private:
    static constexpr int kDeg = 31;
    static constexpr int kSep = 3;
    int32_t r_[kDeg];
    int f_ = kSep;  // the term that receives the sum
    int b_ = 0;     // the term added to it
};

// The process-wide generator (starts as after srand(1), like rand()).
Random& processRandom();

}  // namespace dhc
