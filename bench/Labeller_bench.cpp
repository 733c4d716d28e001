// Labelling with a model (src/model) on one thread: pixel-bands per second
// of the maximum-likelihood start and the sweeps, on a noisy 4-band scene of
// 2048 x 2048 pixels and models of 4, 8 and 16 leaves (rates per CPU second:
// on a shared machine the wall time also counts the other processes).

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "model/Labelling.h"
#include "model/Model.h"

namespace {

constexpr int kBands = 4, kSide = 2048;

struct Scene {
    std::vector<int> values;
    std::vector<int*> rows;
    std::vector<int**> bands;
    Scene() : values(static_cast<size_t>(kBands) * kSide * kSide), rows(static_cast<size_t>(kBands) * kSide) {
        std::mt19937 random(7);
        std::normal_distribution<double> noise(0.0, 12.0);
        for (int b = 0; b < kBands; ++b)
            for (int r = 0; r < kSide; ++r) {
                rows[static_cast<size_t>(b * kSide + r)] = &values[(static_cast<size_t>(b) * kSide + r) * kSide];
                for (int c = 0; c < kSide; ++c) {
                    const int cls = (r / 97 + c / 131 + b) % 4;
                    rows[static_cast<size_t>(b * kSide + r)][c] = 1000 + 60 * cls + static_cast<int>(noise(random));
                }
            }
        for (int b = 0; b < kBands; ++b) bands.push_back(&rows[static_cast<size_t>(b * kSide)]);
    }
};

dhc::Model model(int leaves) {
    dhc::Model m;
    m.bands = kBands;
    m.beta = 1.0;
    for (int k = 0; k < leaves; ++k) {
        dhc::ModelLeaf leaf;
        leaf.label = k + 1;
        for (int b = 0; b < kBands; ++b) leaf.mean.push_back(1000 + 60.0 * ((k + b) % 4) + 3.0 * (k / 4));
        leaf.covariance.assign(kBands * kBands, 20.0);
        for (int b = 0; b < kBands; ++b) leaf.covariance[static_cast<size_t>(b * kBands + b)] = 150.0 + k;
        m.leaves.push_back(leaf);
    }
    return m;
}

void BM_Label(benchmark::State& state) {
    static const Scene scene;
    const dhc::Labeller labeller(model(static_cast<int>(state.range(0))));
    std::vector<int32_t> out(static_cast<size_t>(kSide) * kSide);
    for (auto _ : state) {
        labeller.label(const_cast<int***>(scene.bands.data()), nullptr, kSide, kSide, 0, 0, out.data(), 1);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["pixel-bands/s"] = benchmark::Counter(static_cast<double>(kBands) * kSide * kSide,
                                                          benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_Label)->Arg(4)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);

}  // namespace
