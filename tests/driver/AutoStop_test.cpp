// Automatic stopping by a model-selection criterion and the joint refinement
// of the final map, through whole runs on synthetic scenes with known classes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "driver/DHC.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"

namespace {

using driver_test::Scene;

// Four blocks (one per class) with bands that separate the classes along a
// diagonal, in `bands` bands, values multiplied by scale, bands in the given
// order (order[i] = which band of the plain scene band i shows).
Scene fourBlocks(int bands, int scale, const std::vector<int>& order) {
    Scene plain(112, 112, bands);
    for (int r = 0; r < plain.rows; ++r)
        for (int c = 0; c < plain.cols; ++c)
            plain.truth[r][c] = 1 + (r >= 56 ? 2 : 0) + ((c + r / 8) >= 60 ? 1 : 0);
    std::vector<std::vector<int>> means(4, std::vector<int>(bands));
    for (int k = 0; k < 4; ++k)
        for (int b = 0; b < bands; ++b) means[k][b] = 200 + 45 * k + 15 * ((k + b) % 3);
    plain.paint(means, 24);
    Scene s = plain;
    for (int b = 0; b < bands; ++b)
        for (int r = 0; r < s.rows; ++r)
            for (int c = 0; c < s.cols; ++c) s.cube[b][r][c] = plain.cube[order[b]][r][c] * scale;
    return s;
}

std::vector<int> identity(int n) {
    std::vector<int> v(n);
    for (int i = 0; i < n; ++i) v[i] = i;
    return v;
}

struct Outcome {
    std::vector<int> labels;
    int classes = 0;
    std::string stop;
    std::unique_ptr<dhc::FinalModel> model;
};

Outcome runWith(Scene scene, int criterion, int rounds, int threads) {
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    DHC_SET s;
    s.multiplicity = 2;
    s.betaMin = 0.0;
    s.betaMax = 1.5;
    s.splitGainThreshold = 0.2;
    s.maxNumberOfClasses = 16;
    s.minSplitArea = 64;
    s.stopCriterion = criterion;
    s.finalRefinement = rounds;
    DHC_IN in;
    in.roi = roi.get();
    in.settings = &s;
    in.threads = threads;
    DHC_OUT out = DHC::dhc(in);
    Outcome run;
    EXPECT_NE(out.labelRoi, nullptr);
    if (out.labelRoi != nullptr) run.labels.assign(out.labelRoi->data, out.labelRoi->data + out.labelRoi->count);
    run.classes = static_cast<int>(std::set<int>(run.labels.begin(), run.labels.end()).size());
    if (out.dhc != nullptr) {
        run.stop = out.dhc->stopReason;
        if (out.dhc->finalModel) run.model = std::make_unique<dhc::FinalModel>(*out.dhc->finalModel);
    }
    return run;
}

}  // namespace

TEST(AutoStop, IclFindsTheFourClassesWhateverTheBandsScaleAndOrder) {
    for (int bands : {2, 4, 6, 10}) {
        std::vector<int> reversed = identity(bands);
        std::reverse(reversed.begin(), reversed.end());
        for (int scale : {1, 256}) {
            for (const std::vector<int>& order : {identity(bands), reversed}) {
                const Outcome run = runWith(fourBlocks(bands, scale, order), 1, 0, 1);
                EXPECT_EQ(run.classes, 4) << bands << " bands, scale " << scale << ", order from " << order[0]
                                          << "; " << run.stop;
                EXPECT_NE(run.stop.find("ICL"), std::string::npos) << run.stop;
            }
        }
    }
}

TEST(AutoStop, TheClassicRuleSaysWhyItStopped) {
    const Outcome run = runWith(fourBlocks(4, 1, identity(4)), 0, 0, 1);
    EXPECT_EQ(run.stop.rfind("no split kept: best candidate region ", 0), 0u) << run.stop;
    EXPECT_NE(run.stop.find(" < 0.2"), std::string::npos) << run.stop;
}

TEST(FinalRefinement, NeverLowersThePseudoLikelihoodAndGivesTheModel) {
    for (int bands : {3, 4}) {
        Scene scene = fourBlocks(bands, 1, identity(bands));
        const Outcome plain = runWith(scene, 1, 0, 1);
        const Outcome refined = runWith(scene, 1, 5, 1);
        ASSERT_TRUE(plain.model && refined.model);
        EXPECT_FALSE(plain.model->refined);
        EXPECT_EQ(plain.model->rounds, 0);
        EXPECT_DOUBLE_EQ(plain.model->pseudoLikelihood, plain.model->treePseudoLikelihood);
        EXPECT_DOUBLE_EQ(refined.model->treePseudoLikelihood, plain.model->treePseudoLikelihood);
        EXPECT_GE(refined.model->pseudoLikelihood, refined.model->treePseudoLikelihood);
        EXPECT_GE(refined.model->rounds, 1);
        EXPECT_LE(refined.model->rounds, 5);
        // One class per leaf, their areas the map's.
        long long area = 0;
        for (const dhc::FinalClass& c : refined.model->classes) {
            area += c.area;
            EXPECT_EQ(static_cast<int>(c.mean.size()), bands);
            long long count = 0;
            for (int l : refined.labels) count += l == c.label;
            EXPECT_EQ(count, c.area) << "class " << c.label;
        }
        EXPECT_EQ(area, static_cast<long long>(refined.labels.size()));
        EXPECT_GE(refined.model->beta, 0.0);
        EXPECT_LE(refined.model->beta, 1.5);
    }
}

TEST(FinalRefinement, OneAndTwoThreadsGiveTheSameMapAndModel) {
    Scene scene = fourBlocks(4, 1, identity(4));
    const Outcome one = runWith(scene, 1, 5, 1);
    const Outcome two = runWith(scene, 1, 5, 2);
    EXPECT_EQ(one.labels, two.labels);
    ASSERT_TRUE(one.model && two.model);
    EXPECT_EQ(std::memcmp(&one.model->beta, &two.model->beta, sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(&one.model->pseudoLikelihood, &two.model->pseudoLikelihood, sizeof(double)), 0);
    ASSERT_EQ(one.model->classes.size(), two.model->classes.size());
    for (size_t c = 0; c < one.model->classes.size(); ++c)
        EXPECT_EQ(one.model->classes[c].covariance, two.model->classes[c].covariance);
}
