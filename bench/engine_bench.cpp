// Cost of the Potts engine on a 1024 x 1024 four-band workspace (four
// rectangles, means 120 apart per band, Gaussian noise of deviation 60):
//  - EngineSplit/K: one unsupervised split (kGLA, kEstMaxICM, betaHat,
//    workspace split, gain); counters: ICM sweeps run and the split time per
//    pixel per sweep (an upper bound of the sweep cost: it includes clustering,
//    energy tables, beta estimation and the workspace split);
//  - IcmSweeps/K: ICM against a fixed energy table from a noisy labelling,
//    i.e. the sweeps alone; counter: time per pixel per sweep.

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "data/ImageFile.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "engine/PottsEngine.h"
#include "workspace/PottsWS.h"

namespace {

constexpr int kSide = 1024;
constexpr int kBands = 4;
constexpr int kRoot = 3;

struct Image {
    std::unique_ptr<ROI<int, xy>> roi;
    std::unique_ptr<PottsWS> ws;
};

Image& image() {
    static Image im = [] {
        int*** cube = ImageFile<int>::newCube(kBands, kSide, kSide);
        int** mask = new int*[kSide];
        std::mt19937 gen(7);
        std::normal_distribution<double> noise(0.0, 60.0);
        for (int r = 0; r < kSide; ++r) {
            mask[r] = new int[kSide];
            for (int c = 0; c < kSide; ++c) {
                mask[r][c] = 1;
                const int k = (r < kSide / 2 ? 0 : 2) + (c < kSide / 2 ? 0 : 1);
                for (int b = 0; b < kBands; ++b)
                    cube[b][r][c] = static_cast<int>(
                        std::lround(500.0 + 120.0 * k * (b % 2 ? -1 : 1) + 30.0 * b + noise(gen)));
            }
        }
        Image out;
        out.roi.reset(buildRoi(kSide, kSide, kBands, cube, mask, 1, false));
        out.ws.reset(new PottsWS(out.roi.get(), 1, 1, kRoot, 2));
        out.ws->updateMi();
        out.ws->updateSigma();
        ImageFile<int>::deleteCube(cube, kBands, kSide);
        for (int r = 0; r < kSide; ++r) delete[] mask[r];
        delete[] mask;
        return out;
    }();
    return im;
}

void reset(PottsWS& ws) {
    ws.root->mapRefresh(kRoot, false);
    for (int p = 0; p < ws.loadedCount; ++p) ws.coords[p].flag = 0;
    ws.splitState = 0;
}

void EngineSplit(benchmark::State& state) {
    const int k = static_cast<int>(state.range(0));
    PottsWS& ws = *image().ws;
    PottsEngine engine(k, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    int labels[4] = {4, 5, 6, 7};
    double sweeps = 0.0;
    double passes = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        reset(ws);
        state.ResumeTiming();
        PottsWS** children = engine.split(&ws, labels, false, 1.0);
        state.PauseTiming();
        if (children == nullptr) state.SkipWithError("split refused");
        for (int i = 0; children != nullptr && i < k; ++i) delete children[i];
        delete[] children;
        sweeps += engine.lastSweeps;
        passes += engine.lastPasses;
        state.ResumeTiming();
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["sweeps"] = sweeps / iterations;
    state.counters["passes"] = passes / iterations;
    state.counters["s_per_pixel_sweep"] = benchmark::Counter(
        sweeps * ws.loadedCount, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void IcmSweeps(benchmark::State& state) {
    const int k = static_cast<int>(state.range(0));
    PottsWS& ws = *image().ws;
    const int n = ws.loadedCount;
    PottsEngine engine(k, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    engine.ws = &ws;
    engine.beta = 0.8;
    int labels[4] = {4, 5, 6, 7};
    // Energies favour the true quadrant class (folded onto k classes); the
    // start labelling is that class with a quarter of the pixels flipped.
    std::vector<double> rows(static_cast<size_t>(k) * n);
    std::vector<double*> energy(k);
    for (int c = 0; c < k; ++c) energy[c] = rows.data() + static_cast<size_t>(c) * n;
    std::vector<int> start(n);
    std::mt19937 gen(11);
    std::uniform_int_distribution<int> flip(0, 3);
    std::uniform_int_distribution<int> other(0, k - 1);
    for (int p = 0; p < n; ++p) {
        const xy q = ws.coords[p];
        const int truth = ((q.x < kSide / 2 ? 0 : 2) + (q.y < kSide / 2 ? 0 : 1)) % k;
        for (int c = 0; c < k; ++c) energy[c][p] = c == truth ? 0.0 : 1.0;
        start[p] = flip(gen) == 0 ? other(gen) : truth;
    }
    std::vector<double> meanRows(static_cast<size_t>(k) * kBands);
    std::vector<double*> means(k);
    for (int c = 0; c < k; ++c) means[c] = meanRows.data() + static_cast<size_t>(c) * kBands;
    double sweeps = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        for (int p = 0; p < n; ++p) ws.root->setPixel(ws.coords[p].x, ws.coords[p].y, labels[start[p]]);
        state.ResumeTiming();
        benchmark::DoNotOptimize(engine.kICM(means.data(), labels, energy.data()));
        sweeps += engine.lastSweeps;
    }
    state.counters["sweeps"] = sweeps / static_cast<double>(state.iterations());
    state.counters["s_per_pixel_sweep"] =
        benchmark::Counter(sweeps * n, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    reset(ws);
}

}  // namespace

BENCHMARK(EngineSplit)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(IcmSweeps)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->Iterations(5);
