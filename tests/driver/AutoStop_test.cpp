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

// k classes in blocks of 16 x 16 pixels (block (i, j) holds class
// (3i + j) mod k + 1), class c's mean 40 c apart from the next in every
// band, plus a near-Gaussian noise of standard deviation about `sd` (the sum
// of four uniform draws; an own generator, so rand() is left alone).
Scene blocks(int k, int side, int bands, int sd) {
    Scene s(side, side, bands);
    for (int r = 0; r < side; ++r)
        for (int c = 0; c < side; ++c) s.truth[r][c] = 1 + (3 * (r / 16) + c / 16) % k;
    unsigned state = 2024u;
    auto uniform = [&]() {
        state = state * 1664525u + 1013904223u;
        return static_cast<double>(state >> 8) / 16777216.0 - 0.5;
    };
    // Four uniforms on [-1/2, 1/2) have variance 1/3.
    const double spread = sd * std::sqrt(3.0);
    for (int b = 0; b < bands; ++b)
        for (int r = 0; r < side; ++r)
            for (int c = 0; c < side; ++c) {
                const double noise = spread * (uniform() + uniform() + uniform() + uniform());
                s.cube[b][r][c] = 60 + 40 * (s.truth[r][c] - 1) + 7 * b + static_cast<int>(std::lround(noise));
            }
    return s;
}

std::vector<int> identity(int n) {
    std::vector<int> v(n);
    for (int i = 0; i < n; ++i) v[i] = i;
    return v;
}

struct Outcome {
    std::vector<int> labels;
    std::vector<xy> at;  // each label's pixel
    int classes = 0;
    std::string stop;
    std::unique_ptr<dhc::FinalModel> model;
};

Outcome runWith(Scene scene, int criterion, int rounds, int threads, double threshold = 0.2, int cap = 16) {
    std::unique_ptr<ROI<int, xy>> roi(scene.dataRoi());
    DHC_SET s;
    s.multiplicity = 2;
    s.betaMin = 0.0;
    s.betaMax = 1.5;
    s.splitGainThreshold = threshold;
    s.maxNumberOfClasses = cap;
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
    if (out.labelRoi != nullptr) {
        run.labels.assign(out.labelRoi->data, out.labelRoi->data + out.labelRoi->count);
        run.at.assign(out.labelRoi->coords, out.labelRoi->coords + out.labelRoi->count);
    }
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

TEST(AutoStop, BothCriteriaFindTheTrueCountOfSmallAndLargeScenes) {
    struct Case {
        int classes, side, bands;
    };
    // The first: two classes in three bands on 64 x 64 pixels, where the
    // number of pairs a split separates is large against the pixels.  Three
    // classes along a line: a binary tree has to cut the middle one to part
    // the outer two, and the refinement joins its parts.
    for (const Case& c : {Case{2, 64, 3}, Case{3, 96, 2}, Case{3, 96, 7}, Case{5, 128, 4}}) {
        const Scene scene = blocks(c.classes, c.side, c.bands, 12);
        for (int criterion : {1, 2}) {
            const Outcome run = runWith(scene, criterion, 10, 1);
            EXPECT_EQ(run.classes, c.classes) << c.classes << " classes, " << c.side << " pixels a side, " << c.bands
                                              << " bands, criterion " << criterion << "; " << run.stop;
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
        EXPECT_EQ(refined.model->merged, 0);
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

// Every split kept (a threshold no gain falls below) cuts two classes into
// six leaves; the refinement merges them back to the two classes, and the
// classes it merged pay for themselves: the final map's pseudo-likelihood
// less half ln N per mean and covariance entry of its classes is at least
// the leaves' map's.
TEST(FinalRefinement, DropsTheClassesTheTreeCutOutOfOne) {
    const int bands = 3;
    const Scene scene = blocks(2, 96, bands, 12);
    const Outcome tree = runWith(scene, 0, 0, 1, -1e9, 6);
    ASSERT_EQ(tree.classes, 6) << tree.stop;
    const Outcome refined = runWith(scene, 0, 10, 1, -1e9, 6);
    EXPECT_EQ(refined.classes, 2);
    ASSERT_TRUE(refined.model);
    EXPECT_GE(refined.model->merged, 1);
    const double perClass = 0.5 * std::log(96.0 * 96.0) * (bands + bands * (bands + 1) / 2);
    EXPECT_GE(refined.model->pseudoLikelihood - 2 * perClass, refined.model->treePseudoLikelihood - 6 * perClass);
    // The map is the truth, up to the names of the classes.
    std::set<std::pair<int, int>> pairs;
    for (size_t i = 0; i < refined.labels.size(); ++i)
        pairs.insert({scene.truth[refined.at[i].x][refined.at[i].y], refined.labels[i]});
    EXPECT_EQ(pairs.size(), 2u);

    const Outcome two = runWith(scene, 0, 10, 2, -1e9, 6);
    EXPECT_EQ(two.labels, refined.labels);
}
