// Region bookkeeping on large label maps: connected pieces (fragmentOnAuxMap),
// the split of a region into one region per label (split) and the label lists
// (PottsMap::labels over the map, PottsMapRegion::labels over the runs).
//
// The map is a mosaic of 16 x 16 tiles, each tile one of 8 labels drawn at
// random, so every label forms thousands of irregular pieces (a 4096^2 map has
// 65,536 tiles; label 1 alone has about 5,000 pieces).  Sides 1024, 2048 and
// 4096; the counter sec/MP is the time per megapixel of the map.
//
// Measured figures and growth: see the note at the end of this file.
#include <benchmark/benchmark.h>

#include <random>

#include "data/PottsMapRegion.h"

namespace {

constexpr int kTile = 16;
constexpr int kLabels = 8;

// Full-image region (label 0) over a tile mosaic of labels 1..kLabels.
PottsMapRegion* mosaic(int side) {
    PottsMapRegion* full = new PottsMapRegion(side, side, 1, -1, 0, nullptr);
    std::mt19937 gen(3605118785u);
    std::uniform_int_distribution<int> pick(1, kLabels);
    const int tiles = side / kTile;
    for (int tr = 0; tr < tiles; ++tr)
        for (int tc = 0; tc < tiles; ++tc) {
            const int l = pick(gen);
            for (int r = tr * kTile; r < (tr + 1) * kTile; ++r)
                for (int c = tc * kTile; c < (tc + 1) * kTile; ++c) full->setPixel(r, c, l);
        }
    return full;
}

// The region of one label of the mosaic (runs over the whole image).
PottsMapRegion* labelRegion(PottsMapRegion& full, int label) {
    PottsMapRegion* region = new PottsMapRegion(full, label);
    region->minRow = 0;
    region->maxRow = full.rows - 1;
    region->minCol = 0;
    region->maxCol = full.cols - 1;
    region->updateRuns();
    region->updateMargins(false);
    region->updateArea();
    return region;
}

void perMegapixel(benchmark::State& state, int side) {
    state.counters["sec/MP"] =
        benchmark::Counter(static_cast<double>(side) * side / 1e6,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Pieces of one label (about 1/8 of the map in ~5,000 pieces at 4096^2).
void BM_FragmentOnAuxMap(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    PottsMapRegion* full = mosaic(side);
    PottsMapRegion* region = labelRegion(*full, 1);
    int pieces = 0;
    for (auto _ : state) {
        pieces = region->fragmentOnAuxMap();
        benchmark::DoNotOptimize(pieces);
    }
    state.counters["pieces"] = pieces;
    perMegapixel(state, side);
    delete region;
    full->destroyMaps();
    delete full;
}

// Pieces of the whole image: one region of every pixel, one piece.
void BM_FragmentOnAuxMapWholeImage(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    PottsMapRegion* full = mosaic(side);
    full->paint32All(0);
    for (auto _ : state) benchmark::DoNotOptimize(full->fragmentOnAuxMap());
    perMegapixel(state, side);
    full->destroyMaps();
    delete full;
}

// The whole-image region split into its 8 label regions (runs, borders, contours).
void BM_Split(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    PottsMapRegion* full = mosaic(side);
    for (auto _ : state) {
        int n = 0;
        PottsMapRegion* parts = full->split(n);
        benchmark::DoNotOptimize(parts);
        delete[] parts;
    }
    perMegapixel(state, side);
    full->destroyMaps();
    delete full;
}

// One label's region (thousands of pieces) split after fragmentation: one region per piece.
void BM_SplitIntoPieces(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    PottsMapRegion* full = mosaic(side);
    PottsMapRegion* region = labelRegion(*full, 1);
    region->fragmentOnAuxMap();
    region->mapRestore();  // the pieces now carry labels 9, 10, ... in the map
    int n = 0;
    for (auto _ : state) {
        PottsMapRegion* parts = region->split(n);
        benchmark::DoNotOptimize(parts);
        delete[] parts;
    }
    state.counters["regions"] = n;
    perMegapixel(state, side);
    delete region;
    full->destroyMaps();
    delete full;
}

void BM_MapLabels(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    PottsMapRegion* full = mosaic(side);
    for (auto _ : state) {
        int n = 0;
        int* labels = full->PottsMap::labels(n);
        benchmark::DoNotOptimize(labels);
        delete[] labels;
    }
    perMegapixel(state, side);
    full->destroyMaps();
    delete full;
}

void BM_RegionLabels(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    PottsMapRegion* full = mosaic(side);
    for (auto _ : state) {
        int n = 0;
        int* labels = full->labels(n);
        benchmark::DoNotOptimize(labels);
        delete[] labels;
    }
    perMegapixel(state, side);
    full->destroyMaps();
    delete full;
}

}  // namespace

BENCHMARK(BM_FragmentOnAuxMap)->Arg(1024)->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FragmentOnAuxMapWholeImage)->Arg(1024)->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Split)->Arg(1024)->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SplitIntoPieces)->Arg(1024)->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MapLabels)->Arg(1024)->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RegionLabels)->Arg(1024)->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);

// Note (RelWithDebInfo, g++, 2 shared cores, CPU time per megapixel of the map,
// medians of 3; the machine was shared, so figures moved by up to ~30% between runs):
//
//                                   1024^2        2048^2        4096^2
//   fragmentOnAuxMap, one label     3.3-4.3 ms    6.9-8.9 ms    9.7-12 ms   (303 / 1,174 / 4,574 pieces)
//   fragmentOnAuxMap, whole image   4.2-6.1 ms    4.0-6.6 ms    4.0-6.4 ms  (one piece)
//   split, 8 label regions          7.0-10 ms     7.4-10 ms     7.5-7.7 ms
//   split into pieces               0.9-1.2 ms    1.4-2.8 ms    3.4-4.7 ms  (303 / 1,174 / 4,574 regions)
//   PottsMap::labels                0.35-0.43 ms  0.35-0.47 ms  0.35-0.41 ms
//   PottsMapRegion::labels          0.62-0.83 ms  0.65-0.80 ms  0.65-0.66 ms
//
// Growth from 1024^2 to 4096^2 (16x the pixels):
// - labels, split of the whole image and fragmentation of the whole image grow
//   linearly (flat per megapixel): one or a few sequential passes per pixel.
// - fragmentOnAuxMap of one scattered label costs about 2.5-3x more per megapixel at
//   4096^2 (about 45x the time for 16x the pixels).  The number of propagation
//   rounds barely moves (3, 3, 4 rounds measured), so the work is linear; the extra
//   time is memory: at 1024^2 both planes (8 MB) stay in the 32 MB cache, at
//   4096^2 they are 128 MB and every short run touches three rows far apart.
//   Prefetching the rows of runs a few ahead bought ~15%.
// - split into thousands of pieces grows the same way plus per-piece allocation.
// - Every fragmentOnAuxMap call copies the whole map into the aux map (the aux map
//   must be the map outside the region's box afterwards), so fragmenting R regions
//   of one map costs R whole-plane passes whatever their size.
