#include "settings/DHC_SET.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "common/TestSupport.h"

namespace {

using dhc::test::crlf;

std::string writeIni(const std::string& name, const std::string& text) {
    return dhc::test::writeScratch("set_" + name, text);
}

// A field's value next to the expected one; fields of every type compare as doubles.
struct Field {
    template <typename T>
    Field(const char* n, T g, double w) : name(n), got(static_cast<double>(g)), want(w) {}
    const char* name;
    double got, want;
};
#define FIELD(set, f, want) Field(#f, (set).f, want)

void expectFields(std::initializer_list<Field> fields) {
    for (const Field& f : fields) EXPECT_EQ(f.got, f.want) << f.name;
}

const std::string kPotts =
    "[POTTS_MODEL]\nAdaptive=1\nBetaBound=4.5\nBetaMax=3.25\nBetaMin=0.5\nMultiplicity=3\n"
    "RangeBandwidth=12.5\nSpatialBandwidth=7.75\n\n"
    "[MEANSHIFT]\nAutoAdjustKNN=15\nSkipLast=0.125\nTolerance=0.001\nKernelType=2\n";

// Distinct values per key, so a key read into the wrong field shows.
const std::string kUnsupervisedKeys =
    "VariableMultiplicity=1\nSplitGainThreshold=0.75\nMaxNumberOfClasses=9\nFragmentation=1\nDoubleSplit=1\n"
    "BalancedTree=1\nGrowDepth=4\nMinRegionArea=30.5\nBlind=1\nMetric=2\nDistortionThreshold=0.05\n"
    "SplitwiseDisconnect=1\nBlindSplitDepthMax=0\nBlindSplitAreaMin=5\nBlindSplitMSEMin=0\n\n";

void expectPottsAndMeanShift(const DHC_SET& s) {
    expectFields({FIELD(s, adaptive, 1), FIELD(s, betaBound, 4.5), FIELD(s, betaMax, 3.25),
                  FIELD(s, betaMin, 0.5), FIELD(s, multiplicity, 3), FIELD(s, rangeBandwidth, 12.5),
                  FIELD(s, spatialBandwidth, 7.75), FIELD(s, autoAdjustkNN, 15), FIELD(s, skipLast, 0.125),
                  FIELD(s, tolerance, 0.001), FIELD(s, kernelType, 2)});
}

TEST(DHC_SET, UnsupervisedFileReadsEveryKey) {
    const std::string path =
        writeIni("unsup.ini", "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[UNSUPERVISED_MODE_CONF]\n" +
                                  kUnsupervisedKeys + kPotts);
    DHC_SET s(path);
    expectFields({FIELD(s, maxLabels, 1000000), FIELD(s, supervisedMode, 0),
                  FIELD(s, variableMultiplicity, 1), FIELD(s, splitGainThreshold, 0.75),
                  FIELD(s, maxNumberOfClasses, 9), FIELD(s, fragmentation, 1), FIELD(s, doubleSplit, 1),
                  FIELD(s, balancedTree, 1), FIELD(s, growDepth, 4), FIELD(s, minSplitArea, 30.5),
                  FIELD(s, blind, 1), FIELD(s, metric, 2), FIELD(s, distorsionThreshold, 0.05),
                  FIELD(s, splitwiseDisconnect, 1), FIELD(s, blindDepth, 0), FIELD(s, blindArea, 5),
                  FIELD(s, blindMSE, 0), FIELD(s, blindActive, 1), FIELD(s, numberOfClasses, 0)});
    EXPECT_EQ(s.structureLevels, nullptr);
    expectPottsAndMeanShift(s);
    std::remove(path.c_str());
}

TEST(DHC_SET, BlindActiveIsTrueExactlyWhenALimitIsNonZero) {
    // An absent limit reads as 0.
    const std::pair<const char*, bool> cases[] = {
        {"BlindSplitDepthMax=0\nBlindSplitMSEMin=0\nBlindSplitAreaMin=0\n", false},
        {"BlindSplitDepthMax=3\n", true},
        {"BlindSplitMSEMin=0.5\n", true},
        {"BlindSplitAreaMin=5\n", true},
        {"BlindSplitDepthMax=-1\n", true}};
    for (const auto& [limits, active] : cases) {
        SCOPED_TRACE(limits);
        const std::string path = writeIni(
            "blind.ini", std::string("[SEGM_MAIN_CONFIGURATION]\n\n[UNSUPERVISED_MODE_CONF]\n") + limits);
        EXPECT_EQ(DHC_SET(path).blindActive, active);
        std::remove(path.c_str());
    }
    DHC_SET r;
    r.blindActive = true;  // a MATLAB "active" = 1 is overridden by the rule
    r.updateBlindActive();
    EXPECT_FALSE(r.blindActive);
}

TEST(DHC_SET, SupervisedFileReadsTheStructureAndSkipsUnsupervisedKeys) {
    const std::string text = "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n[UNSUPERVISED_MODE_CONF]\n" +
                             kUnsupervisedKeys +
                             "[SUPERVISED_MODE_CONF]\nNumberOfClasses=3\nStructureLevels={1 2 3}\n"
                             "StructurePaths={4 5 6 7 8 9 10 11}\n\n" +
                             kPotts;
    const std::string path = writeIni("sup.ini", crlf(text));
    DHC_SET s(path);
    expectFields({FIELD(s, supervisedMode, 1), FIELD(s, fragmentation, 1), FIELD(s, variableMultiplicity, 0),
                  FIELD(s, splitGainThreshold, 0), FIELD(s, maxNumberOfClasses, 0), FIELD(s, blind, 0),
                  FIELD(s, growDepth, 0), FIELD(s, blindArea, 0), FIELD(s, blindActive, 0),
                  FIELD(s, numberOfClasses, 3)});
    ASSERT_NE(s.structureLevels, nullptr);
    EXPECT_EQ(std::vector<int>(s.structureLevels, s.structureLevels + 3), (std::vector<int>{1, 2, 3}));
    // 1 + 2 + 3 = 6 path entries; the file's extra entries are not part of it.
    ASSERT_NE(s.structurePaths, nullptr);
    EXPECT_EQ(std::vector<int>(s.structurePaths, s.structurePaths + 6), (std::vector<int>{4, 5, 6, 7, 8, 9}));
    expectPottsAndMeanShift(s);
    std::remove(path.c_str());

    // Without classes the structure stays unset.
    const std::string none = writeIni(
        "sup0.ini",
        "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n[SUPERVISED_MODE_CONF]\nStructureLevels={1 2}\n");
    DHC_SET z(none);
    EXPECT_EQ(z.structureLevels, nullptr);
    EXPECT_EQ(z.structurePaths, nullptr);
    std::remove(none.c_str());
}

TEST(DHC_SET, MissingKeysAndSectionsReadAsZeroAndOnlyTheFirst200CharactersOfTheNameCount) {
    const std::string dir = dhc::test::tmpPath("");
    ASSERT_LT(dir.size(), 150u) << "scratch directory too deep for this test";
    const std::string path = dir + std::string(200 - dir.size(), 'n');
    std::ofstream(path, std::ios::binary) << "[SEGM_MAIN_CONFIGURATION]\n\n[POTTS_MODEL]\nMultiplicity=5\n";
    DHC_SET s(path + ".ignored_tail");
    expectFields({FIELD(s, multiplicity, 5), FIELD(s, maxLabels, 1000000), FIELD(s, supervisedMode, 0),
                  FIELD(s, growDepth, 0), FIELD(s, splitGainThreshold, 0), FIELD(s, blindActive, 0),
                  FIELD(s, betaMax, 0), FIELD(s, kernelType, 0)});
    std::remove(path.c_str());
}

TEST(DHC_SETDeath, FileWithoutTheMainSectionEndsWithMinusOne) {
    const std::string path = writeIni("nomain.ini", "[POTTS_MODEL]\nMultiplicity=2\n");
    EXPECT_EXIT(DHC_SET{path}, ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(DHC_SET{path + ".absent"}, ::testing::ExitedWithCode(255), "");
    std::remove(path.c_str());
}

}  // namespace
