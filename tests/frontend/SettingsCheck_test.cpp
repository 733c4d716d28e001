// The shared refusals of the front ends: settings outside their documented
// ranges, malformed class structures, images that cannot be held, and region
// inputs the core cannot use (negative ground-truth labels, more children per
// split than pixels).  Each message is checked whole, in the ini's terms and
// in the MATLAB object's, which differ only in the names of the settings.

#include "frontend/SettingsCheck.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "base/InputError.h"
#include "frontend/Segmentation.h"
#include "settings/DHC_SET.h"

namespace dhc {
namespace {

// The values of examples/default.ini.
void defaults(DHC_SET& s) {
    s.splitGainThreshold = 0.2;
    s.maxNumberOfClasses = 8;
    s.minSplitArea = 64;
    s.multiplicity = 2;
    s.betaMin = 0.0;
    s.betaMax = 1.5;
    s.tolerance = 0.05;
    s.skipLast = 0.1;
}

// The message and identifier of the InputError fn throws ("" when none).
std::string refusal(const std::function<void()>& fn, std::string* id = nullptr) {
    try {
        fn();
    } catch (const InputError& e) {
        EXPECT_EQ(e.status(), kExitInput);
        if (id != nullptr) *id = e.id();
        return e.what();
    }
    return std::string();
}

std::string check(const std::function<void(DHC_SET&)>& change, const SettingNames& names = iniName,
                  const GivenStructure& structure = GivenStructure()) {
    DHC_SET s;
    defaults(s);
    change(s);
    return refusal([&] { checkSettings(s, structure, names); });
}

TEST(SettingsCheck, ValuesOutsideTheirRangeAreRefusedInEachFrontEndsTerms) {
    const double nan = std::nan("");
    const double inf = std::numeric_limits<double>::infinity();
    struct Case {
        std::function<void(DHC_SET&)> change;
        std::string ini, matlab;
    };
    const Case cases[] = {
        {[](DHC_SET& s) { s.multiplicity = 1; }, "Multiplicity must be at least 2 (children per split)",
         "unsupSet.multiplicity must be at least 2 (children per split)"},
        {[](DHC_SET& s) { s.multiplicity = -4; }, "Multiplicity must be at least 2 (children per split)",
         "unsupSet.multiplicity must be at least 2 (children per split)"},
        {[](DHC_SET& s) { s.multiplicity = 1000000; }, "Multiplicity must be from 2 to 64, not 1000000",
         "unsupSet.multiplicity must be from 2 to 64, not 1000000"},
        {[](DHC_SET& s) { s.betaMin = 2; }, "BetaMin must not exceed BetaMax (1.5)",
         "engineSet.betaMin must not exceed engineSet.betaMax (1.5)"},
        {[](DHC_SET& s) { s.betaMin = -1e100; }, "BetaMin must be a number from -100 to 100, not -1e+100",
         "engineSet.betaMin must be a number from -100 to 100, not -1e+100"},
        {[nan](DHC_SET& s) { s.betaMax = nan; }, "BetaMax must be a number from -100 to 100, not NaN",
         "engineSet.betaMax must be a number from -100 to 100, not NaN"},
        {[inf](DHC_SET& s) { s.betaBound = inf; }, "BetaBound must be a number from -100 to 100, not Inf",
         "engineSet.betaBound must be a number from -100 to 100, not Inf"},
        {[](DHC_SET& s) { s.splitGainThreshold = -1e17; },
         "SplitGainThreshold must be a number from -1e+09 to 1e+09, not -1e+17",
         "unsupSet.classicSet.splitGainThreshold must be a number from -1e+09 to 1e+09, not -1e+17"},
        {[nan](DHC_SET& s) { s.splitGainThreshold = nan; },
         "SplitGainThreshold must be a number from -1e+09 to 1e+09, not NaN",
         "unsupSet.classicSet.splitGainThreshold must be a number from -1e+09 to 1e+09, not NaN"},
        {[](DHC_SET& s) { s.maxNumberOfClasses = 2000000; },
         "MaxNumberOfClasses must be from 0 to 1000000 (the label space), not 2000000",
         "unsupSet.classicSet.maxNumberOfClasses must be from 0 to 1000000 (the label space), not 2000000"},
        {[nan](DHC_SET& s) { s.minSplitArea = nan; },
         "MinRegionArea must be a number from 0 to 1e+15, not NaN",
         "unsupSet.classicSet.minSplitArea must be a number from 0 to 1e+15, not NaN"},
        {[](DHC_SET& s) {
             s.blind = true;
             s.metric = 99;
         },
         "Metric must be 0 to 8", "unsupSet.blindSet.metric must be 0 to 8"},
        {[](DHC_SET& s) {
             s.balancedTree = true;
             s.growDepth = 5000;
         },
         "GrowDepth must be from 0 to 1000, not 5000", "unsupSet.growDepth must be from 0 to 1000, not 5000"},
        {[](DHC_SET& s) {
             s.variableMultiplicity = true;
             s.autoAdjustkNN = 65;
         },
         "AutoAdjustKNN must be from 0 to 64, not 65",
         "engineSet.autoAdjustkNN must be from 0 to 64, not 65"},
        {[](DHC_SET& s) {
             s.variableMultiplicity = true;
             s.tolerance = 1.5;
         },
         "Tolerance must be a number from 0 to 1, not 1.5",
         "engineSet.tolerance must be a number from 0 to 1, not 1.5"},
        {[](DHC_SET& s) { s.stopCriterion = 3; }, "StopCriterion must be 0 (split gain), 1 (ICL) or 2 (BIC), not 3",
         "unsupSet.classicSet.stopCriterion must be 0 (split gain), 1 (ICL) or 2 (BIC), not 3"},
        {[](DHC_SET& s) { s.stopCriterion = -1; }, "StopCriterion must be 0 (split gain), 1 (ICL) or 2 (BIC), not -1",
         "unsupSet.classicSet.stopCriterion must be 0 (split gain), 1 (ICL) or 2 (BIC), not -1"},
        {[](DHC_SET& s) { s.finalRefinement = 1001; }, "FinalRefinement must be from 0 to 1000 rounds, not 1001",
         "unsupSet.finalRefinement must be from 0 to 1000 rounds, not 1001"},
        {[](DHC_SET& s) { s.finalRefinement = -1; }, "FinalRefinement must be from 0 to 1000 rounds, not -1",
         "unsupSet.finalRefinement must be from 0 to 1000 rounds, not -1"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(check(c.change), c.ini);
        EXPECT_EQ(check(c.change, matlabName), c.matlab);
    }
    // An origin leads the message.
    const SettingNames located = [](Setting s) { return SettingName{"cfg.ini:7", iniName(s).name}; };
    EXPECT_EQ(check([](DHC_SET& s) { s.multiplicity = 0; }, located),
              "cfg.ini:7: Multiplicity must be at least 2 (children per split)");
}

TEST(SettingsCheck, TheEdgesOfEveryRangeAndUnusedSettingsPass) {
    const std::function<void(DHC_SET&)> fine[] = {
        [](DHC_SET&) {},
        [](DHC_SET& s) { s.multiplicity = 64; },
        [](DHC_SET& s) { s.betaMin = s.betaMax = 100; },  // equal bounds fix beta
        [](DHC_SET& s) { s.betaMin = -100; },
        [](DHC_SET& s) { s.splitGainThreshold = -1e9; },
        [](DHC_SET& s) { s.maxNumberOfClasses = 1000000; },
        [](DHC_SET& s) { s.stopCriterion = 2; },
        [](DHC_SET& s) { s.finalRefinement = 1000; },
        // Without blind splitting the metric is not read, with blind limits neither.
        [](DHC_SET& s) { s.metric = 99; },
        [](DHC_SET& s) {
            s.blind = true;
            s.metric = 99;
            s.blindArea = 5;
            s.updateBlindActive();
        },
        // Mean shift chooses the children: Multiplicity is not used.
        [](DHC_SET& s) {
            s.variableMultiplicity = true;
            s.multiplicity = 0;
            s.autoAdjustkNN = 64;
        },
        // The depth limit counts only with a balanced tree.
        [](DHC_SET& s) { s.growDepth = -3; },
    };
    for (const auto& change : fine) EXPECT_EQ(check(change), "");
}

TEST(SettingsCheck, TheClassStructureMustDescribeATreeWhoseLeavesAreTheClasses) {
    auto supervised = [](int classes) {
        return [classes](DHC_SET& s) {
            s.supervisedMode = true;
            s.numberOfClasses = classes;
            s.multiplicity = 0;  // not used in supervised runs
        };
    };
    auto structure = [&](int classes, std::vector<int> levels, std::vector<int> paths,
                         const SettingNames& names = iniName) {
        return check(supervised(classes), names, GivenStructure{std::move(levels), std::move(paths)});
    };
    EXPECT_EQ(structure(4, {2, 2, 2, 2}, {0, 0, 0, 1, 1, 0, 1, 1}), "");
    EXPECT_EQ(structure(3, {1, 2, 2}, {0, 1, 0, 1, 1}), "");
    EXPECT_EQ(structure(0, {}, {}), "NumberOfClasses must be at least 1 in supervised mode");
    EXPECT_EQ(structure(2000000, {}, {}),
              "NumberOfClasses must be from 1 to 1000000 (the label space), not 2000000");
    EXPECT_EQ(structure(2, {1}, {0}), "StructureLevels must list 2 path lengths (NumberOfClasses)");
    EXPECT_EQ(structure(2, {1}, {0}, matlabName),
              "supSet.structureLevels must list 2 path lengths (supSet.numberOfClasses)");
    EXPECT_EQ(structure(2, {1, 1, 1}, {0, 1, 2}),
              "StructureLevels must list 2 path lengths (NumberOfClasses)");
    EXPECT_EQ(structure(2, {1, 0}, {0}), "StructureLevels: every path length must be at least 1");
    EXPECT_EQ(structure(2, {1, 1001}, {}), "StructureLevels: a path length must not exceed 1000, not 1001");
    EXPECT_EQ(structure(2, {1, 1}, {0}), "StructurePaths must hold 2 entries (the sum of StructureLevels)");
    EXPECT_EQ(structure(2, {1, 1}, {0, 1, 2}),
              "StructurePaths must hold 2 entries (the sum of StructureLevels)");
    EXPECT_EQ(structure(2, {1, 1}, {0, 0}), "StructurePaths: class path 1 repeats class path 2");
    EXPECT_EQ(structure(2, {1, 2}, {0, 0, 1}), "StructurePaths: class path 1 is a prefix of class path 2");
    EXPECT_EQ(structure(2, {1, 1}, {0, 2}),
              "StructurePaths: path entry 2 skips a child index (paths must number children 0, 1, 2, ...)");
    EXPECT_EQ(
        structure(2, {1, 1}, {0, -1}, matlabName),
        "supSet.structurePaths: path entry -1 skips a child index (paths must number children 0, 1, 2, ...)");
}

TEST(SettingsCheck, ImagesThatCannotBeHeldAreRefused) {
    std::string id;
    EXPECT_EQ(refusal([] { checkImageSize(2048, 2048, 4, "\"data\""); }), "");
    EXPECT_EQ(refusal([] { checkImageSize(65535, 65535, 1LL << 40, "\"data\""); }, &id),
              "\"data\" is 65535 x 65535 x 1099511627776: its size overflows the address space");
    EXPECT_EQ(id, "dhc:tooLarge");
    // The run's peak: 40 bytes per pixel and 8 per pixel and band.
    EXPECT_EQ(runMemoryEstimate(1000, 1000, 3), 64000000u);
    EXPECT_EQ(runMemoryEstimate(30000, 30000, 2), 50400000000u);
    // What a run may take now is known here and no more than the machine has.
    const unsigned long long memory = physicalMemory();
    ASSERT_GT(memory, 0u);
    const MemoryLimit available = availableMemory();
    EXPECT_FALSE(available.source.empty());
    EXPECT_LE(available.bytes, memory);
    // A run beyond the machine's memory: refused naming the estimate and the bound.
    const long long bands = static_cast<long long>(memory / (65535ULL * 65535ULL * 8ULL)) + 1;
    const std::string message =
        refusal([&] { checkImageSize(65535, 65535, bands, "image \"s.hraw\""); }, &id);
    EXPECT_EQ(message.rfind("image \"s.hraw\" is 65535 x 65535 x " + std::to_string(bands) +
                                ": a run needs about " + std::to_string(runMemoryEstimate(65535, 65535, bands)) +
                                " bytes of memory, but ",
                            0),
              0u)
        << message;
    EXPECT_NE(message.find(" bytes are available (" + available.source), std::string::npos) << message;
    EXPECT_EQ(id, "dhc:tooLarge");
}

// A 4 x 4 one-band image with its planes, handed to prepareRun.
struct Frame {
    std::vector<int> image = std::vector<int>(16, 7), gt = std::vector<int>(16, 1);
    std::vector<int*> imageRows, gtRows;
    int** imagePlane = nullptr;
    Frame() {
        for (int r = 0; r < 4; ++r) {
            imageRows.push_back(&image[static_cast<size_t>(r) * 4]);
            gtRows.push_back(&gt[static_cast<size_t>(r) * 4]);
        }
        imagePlane = imageRows.data();
    }
    std::string prepare(const DHC_SET& s, std::string* id = nullptr, int** mask = nullptr) {
        int** cube[] = {imagePlane};
        return refusal([&] { prepareRun(4, 4, 1, cube, mask, nullptr, gtRows.data(), s); }, id);
    }
};

TEST(SettingsCheck, GroundTruthLabelsMustNotBeNegative) {
    DHC_SET s;
    s.supervisedMode = true;
    s.numberOfClasses = 2;
    Frame f;
    f.gt[5] = 2;
    f.gt[0] = 0;  // unlabelled
    EXPECT_EQ(f.prepare(s), "");
    f.gt[9] = -1;
    f.gt[10] = -3;
    std::string id;
    EXPECT_EQ(f.prepare(s, &id),
              "ground truth holds the negative label -3 in the region of interest; class labels are "
              "positive, 0 marks unlabelled pixels");
    EXPECT_EQ(id, "dhc:badGroundTruth");
}

TEST(SettingsCheck, TheRegionMustHoldTheChildrenOfASplit) {
    DHC_SET s;
    defaults(s);
    Frame f;
    s.multiplicity = 16;
    EXPECT_EQ(f.prepare(s), "");
    s.multiplicity = 17;
    std::string id;
    EXPECT_EQ(f.prepare(s, &id), "Multiplicity (17) exceeds the 16 pixels of the region of interest");
    EXPECT_EQ(id, "dhc:badSetting");
    // An all-zero mask selects nothing.
    std::vector<int> zeros(16, 0);
    std::vector<int*> maskRows = {&zeros[0], &zeros[4], &zeros[8], &zeros[12]};
    EXPECT_EQ(f.prepare(s, &id, maskRows.data()), "the region of interest is empty: no mask value is 1");
    EXPECT_EQ(id, "dhc:emptyRoi");
}

// The report's picture bands: three numbers from 1 to the band count.
TEST(RgbBands, ParsedAndCheckedAgainstTheImage) {
    EXPECT_EQ(parseRgbBands("3,2,1", "--rgb"), (std::vector<long long>{3, 2, 1}));
    EXPECT_EQ(checkRgbBands({3, 2, 1}, 6, "--rgb"), (std::array<int, 3>{2, 1, 0}));
    EXPECT_EQ(checkRgbBands({1, 1, 1}, 1, "rgb"), (std::array<int, 3>{0, 0, 0}));
    auto usage = [](const std::string& text) {
        try {
            parseRgbBands(text, "--rgb");
        } catch (const InputError& e) {
            EXPECT_EQ(e.status(), kExitUsage);
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    for (const char* bad : {"", "3,2", "3,2,1,4", "3,,1", "a,b,c", "3,2,1.5", "3, 2,1", "-3,2,1", "3,2,1,"})
        EXPECT_EQ(usage(bad), "--rgb " + std::string(bad) + ": must be three band numbers such as 3,2,1 (red, green, blue)");
    auto refused = [](const std::vector<long long>& bands, int imageBands) {
        try {
            checkRgbBands(bands, imageBands, "rgb");
        } catch (const InputError& e) {
            EXPECT_EQ(e.status(), kExitInput);
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(refused({7, 3, 2}, 6), "rgb: band 7 does not exist; the image has 6 bands, numbered from 1");
    EXPECT_EQ(refused({0, 1, 1}, 1), "rgb: band 0 does not exist; the image has 1 band, numbered from 1");
    EXPECT_EQ(refused({1, 2}, 6), "rgb needs three bands (red, green, blue), not 2");
}

}  // namespace
}  // namespace dhc
