#include "settings/DHC_SET.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace {

std::string tempDir() {
    const char* dir = std::getenv("DHC_TEST_TMP");
    return dir != nullptr ? std::string(dir) + "/" : ::testing::TempDir();
}

std::string writeFile(const std::string& name, const std::string& text) {
    const std::string path = tempDir() + "set_" + std::to_string(::getpid()) + "_" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

// Turns "\n" line ends into "\r\n".
std::string crlf(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

const std::string kPotts =
    "[POTTS_MODEL]\nAdaptive=1\nBetaBound=4.5\nBetaMax=3.25\nBetaMin=0.5\nMultiplicity=3\n"
    "RangeBandwidth=12.5\nSpatialBandwidth=7.75\n\n"
    "[MEANSHIFT]\nAutoAdjustKNN=15\nSkipLast=0.125\nTolerance=0.001\nKernelType=2\n";

const std::string kUnsupervised =
    "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n"
    "[UNSUPERVISED_MODE_CONF]\nVariableMultiplicity=1\nSplitGainThreshold=0.75\nMaxNumberOfClasses=9\n"
    "Fragmentation=1\nDoubleSplit=1\nBalancedTree=1\nGrowDepth=4\nMinRegionArea=30.5\nBlind=1\nMetric=2\n"
    "DistortionThreshold=0.05\nSplitwiseDisconnect=1\nBlindSplitDepthMax=0\nBlindSplitAreaMin=5\n"
    "BlindSplitMSEMin=0\n\n";

void expectPottsAndMeanShift(const DHC_SET& s) {
    EXPECT_TRUE(s.adaptive);
    EXPECT_DOUBLE_EQ(s.betaBound, 4.5);
    EXPECT_DOUBLE_EQ(s.betaMax, 3.25);
    EXPECT_DOUBLE_EQ(s.betaMin, 0.5);
    EXPECT_EQ(s.multiplicity, 3);
    EXPECT_DOUBLE_EQ(s.rangeBandwidth, 12.5);
    EXPECT_DOUBLE_EQ(s.spatialBandwidth, 7.75);
    EXPECT_EQ(s.autoAdjustkNN, 15);
    EXPECT_DOUBLE_EQ(s.skipLast, 0.125);
    EXPECT_DOUBLE_EQ(s.tolerance, 0.001);
    EXPECT_EQ(s.kernelType, 2);
}

TEST(DHC_SET, UnsupervisedFileWithCrlfEndings) {
    for (bool windows : {false, true}) {
        SCOPED_TRACE(windows ? "CRLF" : "LF");
        const std::string text = kUnsupervised + kPotts;
        const std::string path = writeFile("unsup.ini", windows ? crlf(text) : text);
        DHC_SET s(path);
        EXPECT_EQ(s.maxLabels, 1000000);
        EXPECT_FALSE(s.supervisedMode);
        EXPECT_TRUE(s.variableMultiplicity);
        EXPECT_DOUBLE_EQ(s.splitGainThreshold, 0.75);
        EXPECT_EQ(s.maxNumberOfClasses, 9);
        EXPECT_TRUE(s.fragmentation);
        EXPECT_TRUE(s.doubleSplit);
        EXPECT_TRUE(s.balancedTree);
        EXPECT_EQ(s.growDepth, 4);
        EXPECT_DOUBLE_EQ(s.minSplitArea, 30.5);
        EXPECT_TRUE(s.blind);
        EXPECT_EQ(s.metric, 2);
        EXPECT_DOUBLE_EQ(s.distorsionThreshold, 0.05);
        EXPECT_TRUE(s.splitwiseDisconnect);
        EXPECT_DOUBLE_EQ(s.blindDepth, 0.0);
        EXPECT_DOUBLE_EQ(s.blindArea, 5.0);
        EXPECT_DOUBLE_EQ(s.blindMSE, 0.0);
        EXPECT_TRUE(s.blindActive);  // area alone is enough
        EXPECT_EQ(s.numberOfClasses, 0);
        EXPECT_EQ(s.structureLevels, nullptr);
        expectPottsAndMeanShift(s);
        std::remove(path.c_str());
    }
}

TEST(DHC_SET, MissingKeysAndSectionsReadAsZero) {
    const std::string path =
        writeFile("sparse.ini", "[SEGM_MAIN_CONFIGURATION]\n\n[UNSUPERVISED_MODE_CONF]\nGrowDepth=2\n");
    DHC_SET s(path);
    EXPECT_EQ(s.maxLabels, 1000000);
    EXPECT_FALSE(s.supervisedMode);
    EXPECT_EQ(s.growDepth, 2);
    EXPECT_FALSE(s.variableMultiplicity);
    EXPECT_DOUBLE_EQ(s.splitGainThreshold, 0.0);
    EXPECT_EQ(s.maxNumberOfClasses, 0);
    EXPECT_FALSE(s.blindActive);
    EXPECT_FALSE(s.adaptive);
    EXPECT_EQ(s.multiplicity, 0);
    EXPECT_DOUBLE_EQ(s.betaMax, 0.0);
    EXPECT_EQ(s.autoAdjustkNN, 0);
    EXPECT_EQ(s.kernelType, 0);
    EXPECT_EQ(s.structureLevels, nullptr);
    std::remove(path.c_str());
}

TEST(DHC_SET, BlindActiveFollowsTheThreeLimits) {
    // (depth, MSE, area) -> blindActive
    const std::pair<std::string, bool> cases[] = {
        {"0 0 0", false}, {"3 0 0", true}, {"0 0.5 0", true}, {"0 0 5", true}, {"-1 0 0", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        std::istringstream in(c.first);
        std::string depth, mse, area;
        in >> depth >> mse >> area;
        const std::string path = writeFile(
            "blind.ini",
            "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[UNSUPERVISED_MODE_CONF]\nBlindSplitDepthMax=" +
                depth + "\nBlindSplitMSEMin=" + mse + "\nBlindSplitAreaMin=" + area + "\n");
        EXPECT_EQ(DHC_SET(path).blindActive, c.second);
        std::remove(path.c_str());
    }
    DHC_SET r;
    r.blindActive = true;  // a MATLAB "active" = 1 is overridden by the rule
    r.updateBlindActive();
    EXPECT_FALSE(r.blindActive);
}

TEST(DHC_SET, SupervisedFileReadsTheStructureAndSkipsUnsupervisedKeys) {
    const std::string text =
        "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n"
        "[UNSUPERVISED_MODE_CONF]\nVariableMultiplicity=1\nSplitGainThreshold=0.75\nMaxNumberOfClasses=9\n"
        "Fragmentation=1\nBlind=1\nGrowDepth=4\nBlindSplitDepthMax=3\nBlindSplitAreaMin=5\nBlindSplitMSEMin="
        "2\n\n"
        "[SUPERVISED_MODE_CONF]\nNumberOfClasses=3\nStructureLevels={1 2 3}\n"
        "StructurePaths={4 5 6 7 8 9 10 11}\n\n" +
        kPotts;
    const std::string path = writeFile("sup.ini", crlf(text));
    DHC_SET s(path);
    EXPECT_TRUE(s.supervisedMode);
    EXPECT_TRUE(s.fragmentation);  // the one key read from the unsupervised section
    EXPECT_FALSE(s.variableMultiplicity);
    EXPECT_DOUBLE_EQ(s.splitGainThreshold, 0.0);
    EXPECT_EQ(s.maxNumberOfClasses, 0);
    EXPECT_FALSE(s.blind);
    EXPECT_EQ(s.growDepth, 0);
    EXPECT_DOUBLE_EQ(s.blindDepth, 0.0);
    EXPECT_DOUBLE_EQ(s.blindArea, 0.0);
    EXPECT_DOUBLE_EQ(s.blindMSE, 0.0);
    EXPECT_FALSE(s.blindActive);
    EXPECT_EQ(s.numberOfClasses, 3);
    ASSERT_NE(s.structureLevels, nullptr);
    EXPECT_EQ(s.structureLevels[0], 1);
    EXPECT_EQ(s.structureLevels[1], 2);
    EXPECT_EQ(s.structureLevels[2], 3);
    // 1 + 2 + 3 = 6 path entries; the file's extra entries are not part of it.
    ASSERT_NE(s.structurePaths, nullptr);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(s.structurePaths[i], 4 + i);
    expectPottsAndMeanShift(s);
    std::remove(path.c_str());
}

TEST(DHC_SET, SupervisedWithoutClassesLeavesTheStructureUnset) {
    const std::string path = writeFile(
        "sup0.ini",
        "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n[SUPERVISED_MODE_CONF]\nStructureLevels={1 2}\n");
    DHC_SET s(path);
    EXPECT_TRUE(s.supervisedMode);
    EXPECT_EQ(s.numberOfClasses, 0);
    EXPECT_EQ(s.structureLevels, nullptr);
    EXPECT_EQ(s.structurePaths, nullptr);
    std::remove(path.c_str());
}

TEST(DHC_SET, OnlyTheFirst200CharactersOfTheNameAreUsed) {
    const std::string dir = tempDir();
    ASSERT_LT(dir.size(), 150u) << "temporary directory too deep for this test";
    const std::string path = dir + std::string(200 - dir.size(), 'n');
    std::ofstream(path, std::ios::binary) << "[SEGM_MAIN_CONFIGURATION]\n\n[POTTS_MODEL]\nMultiplicity=5\n";
    DHC_SET s(path + ".ignored_tail");
    EXPECT_EQ(s.multiplicity, 5);
    std::remove(path.c_str());
}

TEST(DHC_SETDeath, FileWithoutTheMainSectionEndsWithMinusOne) {
    const std::string path = writeFile("nomain.ini", "[POTTS_MODEL]\nMultiplicity=2\n");
    EXPECT_EXIT({ DHC_SET s(path); }, ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT({ DHC_SET s(tempDir() + "no_such_settings.ini"); }, ::testing::ExitedWithCode(255), "");
    std::remove(path.c_str());
}

}  // namespace
