// Workspace statistics and split at image sizes the driver meets: a square
// image of 4 bands, labelled in four blocks of unequal shape.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

#include "data/ImageFile.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "workspace/PottsWS.h"

namespace {

constexpr int kBands = 4;

struct Scene {
    std::unique_ptr<ROI<int, xy>> roi;
    std::unique_ptr<PottsWS> ws;
    int labels[4] = {10, 11, 12, 13};
};

// side x side pixels of 12-bit values; the map carries four labels split at
// one third of the rows and half of the columns.
std::unique_ptr<Scene> scene(int side) {
    std::mt19937 gen(3605118785u);
    std::uniform_int_distribution<int> value(0, 4095);
    int*** cube = ImageFile<int>::newCube(kBands, side, side);
    int** mask = new int*[side];
    for (int r = 0; r < side; ++r) {
        mask[r] = new int[side];
        for (int c = 0; c < side; ++c) {
            mask[r][c] = 1;
            for (int b = 0; b < kBands; ++b) cube[b][r][c] = value(gen);
        }
    }
    auto s = std::make_unique<Scene>();
    s->roi.reset(buildRoi(side, side, kBands, cube, mask, 1, false));
    s->ws.reset(new PottsWS(s->roi.get(), 1, 1, 3, 2));
    ImageFile<int>::deleteCube(cube, kBands, side);
    for (int r = 0; r < side; ++r) delete[] mask[r];
    delete[] mask;
    for (int r = 0; r < side; ++r)
        for (int c = 0; c < side; ++c)
            s->ws->root->setPixel(r, c, s->labels[(r < side / 3 ? 0 : 2) + (c < side / 2)]);
    return s;
}

void BM_WholeStatistics(benchmark::State& state) {
    auto s = scene(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        s->ws->updateMi();
        s->ws->updateSigma();
        s->ws->updateFeatures();
        benchmark::DoNotOptimize(s->ws->likelihoodEnergy);
    }
    state.SetItemsProcessed(state.iterations() * s->ws->loadedCount);
}
BENCHMARK(BM_WholeStatistics)->Arg(256)->Arg(1024)->Unit(benchmark::kMillisecond);

void BM_LabelCovariances(benchmark::State& state) {
    auto s = scene(static_cast<int>(state.range(0)));
    int counts[4];
    std::vector<std::vector<double>> rows(4 * kBands, std::vector<double>(kBands));
    std::vector<double*> ptrs;
    for (auto& r : rows) ptrs.push_back(r.data());
    double** covs[4] = {&ptrs[0], &ptrs[kBands], &ptrs[2 * kBands], &ptrs[3 * kBands]};
    for (auto _ : state) {
        s->ws->getSigma(4, s->labels, counts, covs);
        benchmark::DoNotOptimize(covs[0][0][0]);
    }
    state.SetItemsProcessed(state.iterations() * s->ws->loadedCount);
}
BENCHMARK(BM_LabelCovariances)->Arg(256)->Arg(1024)->Unit(benchmark::kMillisecond);

// The split with statistics: children, lists, values, mi and sigma, edges.
void BM_SplitFourWays(benchmark::State& state) {
    auto s = scene(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        PottsWS** children = nullptr;
        benchmark::DoNotOptimize(s->ws->split(s->labels, 4, children, true));
        for (int j = 0; j < 4; ++j) delete children[j];
        delete[] children;
    }
    state.SetItemsProcessed(state.iterations() * s->ws->loadedCount);
}
BENCHMARK(BM_SplitFourWays)->Arg(256)->Arg(1024)->Unit(benchmark::kMillisecond);

}  // namespace
