#pragma once
// Synthetic scenes for the driver tests.

#include <memory>
#include <vector>

#include "data/ROI.h"
#include "data/xy.h"
#include "settings/DHC_SET.h"

namespace driver_test {

// A multi-band scene with its ground truth and mask; values are class means
// plus a small deterministic noise (own generator, so rand() is left alone).
struct Scene {
    int rows = 0, cols = 0, bands = 0;
    std::vector<std::vector<std::vector<int>>> cube;  // [b][r][c]
    std::vector<std::vector<int>> truth;              // [r][c], classes 1..K
    std::vector<std::vector<int>> mask;               // [r][c], 1 = in the region of interest

    Scene(int r, int c, int b)
        : rows(r),
          cols(c),
          bands(b),
          cube(b, std::vector<std::vector<int>>(r, std::vector<int>(c, 0))),
          truth(r, std::vector<int>(c, 0)),
          mask(r, std::vector<int>(c, 1)) {}

    // Fills every pixel from its class: band b = means[class - 1][b] + noise in [-amp, amp].
    void paint(const std::vector<std::vector<int>>& means, int amp) {
        unsigned state = 12345u;
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                for (int b = 0; b < bands; ++b) {
                    state = state * 1103515245u + 12345u;
                    const int noise = amp > 0 ? static_cast<int>((state >> 16) % (2u * amp + 1u)) - amp : 0;
                    cube[b][r][c] = means[truth[r][c] - 1][b] + noise;
                }
    }

    ROI<int, xy>* dataRoi() {
        std::vector<std::vector<int*>> bandRows(bands, std::vector<int*>(rows));
        std::vector<int**> planes(bands);
        for (int b = 0; b < bands; ++b) {
            for (int r = 0; r < rows; ++r) bandRows[b][r] = cube[b][r].data();
            planes[b] = bandRows[b].data();
        }
        std::vector<int*> maskRows(rows);
        for (int r = 0; r < rows; ++r) maskRows[r] = mask[r].data();
        return buildRoi(rows, cols, bands, planes.data(), maskRows.data(), 1, true);
    }

    // One value per point of `points`: the ground truth at the point.
    ROI<int, xy>* truthRoi(ROI<int, xy>* points) {
        std::vector<int*> rowPtr(rows);
        for (int r = 0; r < rows; ++r) rowPtr[r] = truth[r].data();
        return points->extractLabROI(rowPtr.data(), 0, true);
    }
};

// 24 x 24, four quadrant classes well apart along both bands (mean shift
// finds several modes in it).
inline Scene fourQuadrants() {
    Scene s(24, 24, 2);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c) s.truth[r][c] = 1 + (r >= 12 ? 2 : 0) + (c >= 12 ? 1 : 0);
    s.paint({{10, 12}, {40, 45}, {70, 72}, {100, 108}}, 3);
    return s;
}

// Gain-driven settings for the small scenes: two children, up to four classes.
inline std::unique_ptr<DHC_SET> baseSettings() {
    std::unique_ptr<DHC_SET> s(new DHC_SET());
    s->multiplicity = 2;
    s->betaMin = 0.0;
    s->betaMax = 1.5;
    s->splitGainThreshold = 0.01;
    s->maxNumberOfClasses = 4;
    s->minSplitArea = 8;
    return s;
}

}  // namespace driver_test
