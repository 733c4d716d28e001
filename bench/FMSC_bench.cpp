// Mean-shift mode finding at the size the engine uses: at most 3000 sample
// points in 3 (principal-component) dimensions.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "stats/FMSC.h"

namespace {

// Four Gaussian classes of unequal size, standardised per dimension like the
// engine's samples.
std::vector<std::vector<double>> samples(int n) {
    std::mt19937 gen(3605118785u);
    std::normal_distribution<double> g(0.0, 1.0);
    const double centres[4][3] = {{0, 0, 0}, {6, 1, 0}, {1, 7, 2}, {-5, 3, 6}};
    const double spread[4] = {1.0, 0.8, 1.3, 0.6};
    const double share[4] = {0.4, 0.3, 0.2, 0.1};
    std::vector<std::vector<double>> rows;
    for (int c = 0; c < 4; ++c)
        for (int i = 0; i < static_cast<int>(share[c] * n); ++i)
            rows.push_back({centres[c][0] + spread[c] * g(gen), centres[c][1] + spread[c] * g(gen),
                            centres[c][2] + spread[c] * g(gen)});
    for (int d = 0; d < 3; ++d) {
        double m = 0.0, s = 0.0;
        for (const auto& r : rows) m += r[d];
        m /= rows.size();
        for (const auto& r : rows) s += (r[d] - m) * (r[d] - m);
        s = std::sqrt(s / rows.size());
        for (auto& r : rows) r[d] = (r[d] - m) / s;
    }
    return rows;
}

// Arg: knn.  The engine's choice is ceil(n / (ln(dist) / 2)) with dist the
// root of the workspace's summed squared deviations; for 3000 pixels of
// 12-bit data that is several hundred.
void BM_FindModes3000x3(benchmark::State& state) {
    std::vector<std::vector<double>> rows = samples(3000);
    std::vector<double*> ptrs;
    for (auto& r : rows) ptrs.push_back(r.data());
    const int knn = static_cast<int>(state.range(0));
    int modes = 0;
    for (auto _ : state) {
        FMSC ms(ptrs.data(), 3, static_cast<int>(ptrs.size()), knn, 0.05, 100.0, 0, 0.05, 0.0, 0);
        double** m = ms.getModes(modes);
        for (int j = 0; j < modes; ++j) delete[] m[j];
        delete[] m;
    }
    state.counters["modes"] = modes;
}
BENCHMARK(BM_FindModes3000x3)->Arg(100)->Arg(300)->Arg(650)->Unit(benchmark::kMillisecond);

}  // namespace
