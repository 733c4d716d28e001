#pragma once
// Whole driver runs on a small synthetic scene for the hierarchy tests.

#include <memory>
#include <vector>

#include "driver/DHC.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"

namespace hierarchy_test {

using driver_test::Scene;

// 30 x 30 in six blocks (2 rows x 3 columns) of well separated classes.
inline Scene sixBlocks() {
    Scene s(30, 30, 2);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c) s.truth[r][c] = 1 + (r >= 15 ? 3 : 0) + c / 10;
    s.paint({{10, 15}, {40, 80}, {70, 30}, {100, 110}, {130, 60}, {160, 140}}, 3);
    // A corner outside the region of interest.
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) s.mask[r][c] = 0;
    return s;
}

inline std::unique_ptr<DHC_SET> gainSettings(int multiplicity, int maxClasses) {
    std::unique_ptr<DHC_SET> s(new DHC_SET());
    s->multiplicity = multiplicity;
    s->betaMin = 0.0;
    s->betaMax = 1.5;
    s->splitGainThreshold = 0.01;
    s->maxNumberOfClasses = maxClasses;
    s->minSplitArea = 8;
    return s;
}

struct SceneRun {
    std::unique_ptr<ROI<int, xy>> roi;
    std::unique_ptr<ROI<int, xy>> gt;
    DHC_OUT out;
};

inline SceneRun run(Scene& scene, DHC_SET& settings) {
    SceneRun r;
    r.roi.reset(scene.dataRoi());
    DHC_IN in;
    in.mode = settings.supervisedMode ? 1 : 0;
    in.roi = r.roi.get();
    in.settings = &settings;
    if (settings.supervisedMode) {
        r.gt.reset(scene.truthRoi(r.roi.get()));
        in.gt = r.gt.get();
    }
    r.out = DHC::dhc(in);
    return r;
}

// Final map of a run, full frame, 0 outside the region of interest.
inline std::vector<int> finalMap(const DHC_OUT& out) {
    const ROI<int, xy>& p = *out.labelRoi;
    std::vector<int> map(static_cast<size_t>(p.imageRows) * p.imageCols, 0);
    for (int k = 0; k < p.count; ++k)
        map[(p.coords[k].x + p.minRow) * p.imageCols + p.coords[k].y + p.minCol] = p.data[k];
    return map;
}

}  // namespace hierarchy_test
