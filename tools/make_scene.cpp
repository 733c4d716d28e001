// dhc-make-scene: writes a deterministic synthetic 4-band scene with known truth.
//
//   dhc-make-scene -o SCENE.hraw [--truth TRUTH.hraw] [--rows N] [--cols N]
//                  [--noise SIGMA] [--seed S]
//
// Four classes with distinct mean spectra: a background (1), a disk (2), a
// rectangle (3) and a vertical bar (4), placed at fixed fractions of the image
// size so that every size shows the same picture.  Each band value is the class
// mean plus approximately Gaussian noise (the sum of twelve uniform draws of
// std::mt19937, whose sequence is fixed by the C++ standard), so the same
// arguments give the same bytes on every platform.

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kBands = 4;
constexpr int kClasses = 4;
// Mean spectrum of each class (classes 1..4).
constexpr int kMeans[kClasses][kBands] = {
    {60, 80, 70, 120},    // background
    {95, 70, 110, 100},   // disk
    {115, 125, 80, 60},   // rectangle
    {70, 115, 135, 155},  // bar
};

const char* const kUsage =
    "Usage: dhc-make-scene -o SCENE.hraw [--truth TRUTH.hraw] [--rows N] [--cols N]\n"
    "                      [--noise SIGMA] [--seed S]\n"
    "Write a deterministic 4-band synthetic scene of four classes (background,\n"
    "disk, rectangle, bar) and, optionally, its truth map (labels 1 to 4).\n"
    "Defaults: 256 x 256 pixels, noise 5, seed 1.\n";

// Class (1..4) of pixel (r, c) in a rows x cols scene.
int classAt(int r, int c, int rows, int cols) {
    const double y = (r + 0.5) / rows, x = (c + 0.5) / cols;
    if (x >= 0.70 && x < 0.88 && y >= 0.10 && y < 0.90) return 4;
    if (y >= 0.58 && y < 0.88 && x >= 0.10 && x < 0.60) return 3;
    const double dy = (y - 0.30) * rows, dx = (x - 0.33) * cols;
    const double radius = 0.20 * (rows < cols ? rows : cols);
    if (dy * dy + dx * dx < radius * radius) return 2;
    return 1;
}

bool writeHraw(const std::string& path, const std::vector<int32_t>& values, int bands, int rows, int cols) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    const int32_t header[3] = {bands, rows, cols};
    bool ok = std::fwrite(header, sizeof header, 1, f) == 1 &&
              std::fwrite(values.data(), sizeof(int32_t), values.size(), f) == values.size();
    ok = std::fclose(f) == 0 && ok;
    return ok;
}

bool parseInt(const char* text, long lo, long hi, long& out) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < lo || v > hi) return false;
    out = v;
    return true;
}

int fail(const std::string& message) {
    std::cerr << "dhc-make-scene: " << message << "\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string out, truth;
    long rows = 256, cols = 256, noise = 5, seed = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::cout << kUsage;
            return 0;
        }
        if (i + 1 >= argc) return fail("unknown option or missing value: \"" + a + "\"");
        const char* v = argv[++i];
        if (a == "-o" || a == "--output") {
            out = v;
        } else if (a == "--truth") {
            truth = v;
        } else if (a == "--rows") {
            if (!parseInt(v, 1, 65535, rows)) return fail("--rows must be 1 to 65535");
        } else if (a == "--cols") {
            if (!parseInt(v, 1, 65535, cols)) return fail("--cols must be 1 to 65535");
        } else if (a == "--noise") {
            if (!parseInt(v, 0, 1000, noise)) return fail("--noise must be 0 to 1000");
        } else if (a == "--seed") {
            if (!parseInt(v, 0, 4294967295L, seed)) return fail("--seed must be 0 to 4294967295");
        } else {
            return fail("unknown option \"" + a + "\"");
        }
    }
    if (out.empty()) return fail("missing -o SCENE.hraw (see --help)");
    if (static_cast<long long>(rows) * cols * kBands > INT32_MAX) return fail("scene too large");

    const size_t plane = static_cast<size_t>(rows) * static_cast<size_t>(cols);
    std::vector<int32_t> labels(plane), image(plane * kBands);
    for (long r = 0; r < rows; ++r)
        for (long c = 0; c < cols; ++c)
            labels[static_cast<size_t>(r * cols + c)] = classAt(
                static_cast<int>(r), static_cast<int>(c), static_cast<int>(rows), static_cast<int>(cols));

    // Pixel-major draws (all bands of a pixel, then the next pixel) into a
    // band-sequential file.  Twelve draws of 0..1000 sum to a value of mean
    // 6000 and standard deviation of about 1000.
    std::mt19937 generator(static_cast<std::mt19937::result_type>(seed));
    for (size_t p = 0; p < plane; ++p) {
        const int k = labels[p] - 1;
        for (int b = 0; b < kBands; ++b) {
            long sum = 0;
            for (int i = 0; i < 12; ++i) sum += static_cast<long>(generator() % 1001);
            const long deviation = (sum - 6000) * noise;
            // Round half away from zero in integer arithmetic.
            const long offset = deviation >= 0 ? (deviation + 500) / 1000 : -((-deviation + 500) / 1000);
            image[static_cast<size_t>(b) * plane + p] = static_cast<int32_t>(kMeans[k][b] + offset);
        }
    }
    if (!writeHraw(out, image, kBands, static_cast<int>(rows), static_cast<int>(cols)))
        return fail("cannot write \"" + out + "\": " + std::strerror(errno));
    if (!truth.empty() && !writeHraw(truth, labels, 1, static_cast<int>(rows), static_cast<int>(cols)))
        return fail("cannot write \"" + truth + "\": " + std::strerror(errno));
    return 0;
}
