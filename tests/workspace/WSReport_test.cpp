#include "workspace/WSReport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "workspace/PottsWS.h"
#include "workspace/WorkspaceFixtures.h"

namespace {

template <class T>
T* array(std::initializer_list<T> v) {
    T* out = new T[v.size()];
    std::copy(v.begin(), v.end(), out);
    return out;
}

class ReportFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        file_ = "/tmp/dhc_ws_report_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".txt";
        std::remove(file_.c_str());
    }
    void TearDown() override { std::remove(file_.c_str()); }
    std::string slurp() const {
        std::ifstream in(file_, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::string file_;
};

TEST_F(ReportFileTest, UnsplitLeafWithStatisticsAndCovariance) {
    WSReport r;
    r.WSLab = 7;
    r.pathLength = 2;
    r.path = array({0, 1});
    r.area = 12;
    r.terminal = true;
    r.beta = 0.5;  // not written: the workspace was not split
    r.totalLikelihoodEnergy = 3.5;
    r.nBands = 2;
    r.mean = array({1.5, 2.0});
    r.covariance = new double* [2] { array({1.0, 0.25}), array({0.25, 2.0}) };
    r.appendToFile(file_, true, true);
    EXPECT_EQ(slurp(),
              "\n"
              "[NEW WORKSPACE]\n"
              "WSLab = 7;\n"
              "Path = [0 1 ];\n"
              "Children = [];\n"
              "Offspring = [];\n"
              "Area = 12;\n"
              "TotalLikelihoodEnergy = 3.5;\n"
              "Mean = [1.5 2 ];\n"
              "Covariance = [\n"
              "1 0.25 \n"
              "0.25 2 ];\n"
              "Split = 0;\n"
              "Terminal = 1;\n");
}

TEST_F(ReportFileTest, SplitNodeWithoutStatisticsIsAppended) {
    {
        std::ofstream pre(file_);
        pre << "HEAD\n";
    }
    WSReport r;
    r.WSLab = 3;
    r.nChildren = 2;
    r.children = array({4, 5});
    r.chAreas = array({30, 70});
    r.nOffspring = 3;
    r.offspring = array({4, 8, 9});
    r.area = 100;
    r.split = true;
    r.beta = 0.123456789;
    r.edges = 10;
    r.textureBased = true;
    r.splitGainMRF = 1e-7;
    r.mixtureSplitGainTFR = 1234567.0;
    r.splitGainTFR = -2.5;
    r.nBands = 1;
    r.mean = array({9.0});
    r.appendToFile(file_, false, false);
    EXPECT_EQ(slurp(),
              "HEAD\n"
              "\n"
              "[NEW WORKSPACE]\n"
              "WSLab = 3;\n"
              "Path = [];\n"
              "Children = [4 5 ];\n"
              "Offspring = [4 8 9 ];\n"
              "Area = 100;\n"
              "Split = 1;\n"
              "Terminal = 0;\n"
              "Beta = 0.123457;\n"
              "Edges = 10;\n"
              "TextureBased = 1;\n"
              "SplitGain_MRF = 1e-07;\n"
              "MixtureSplitGain_TFR = 1.23457e+06;\n"
              "SplitGain_TFR = -2.5;\n"
              "ChAreas = [30 70 ];\n");
}

TEST_F(ReportFileTest, ReportOfAWorkspaceSwapsGainsOnTextureBased) {
    auto b = wstest::makeWS(2, 2, 1, [](int r, int c, int) { return 2 * r + c; });
    PottsWS& ws = *b.ws;
    ws.updateMi();
    ws.updateSigma();
    ws.beta = 0.7;
    ws.edges = 5;
    ws.splitGain = 1.0;
    ws.primaryGain = 2.0;
    ws.secondaryGain = 3.0;
    std::unique_ptr<WSReport> unsplit(ws.getWSReport());
    EXPECT_FALSE(unsplit->split);
    EXPECT_EQ(unsplit->beta, 0.0);  // split scores only for a split workspace
    EXPECT_EQ(unsplit->splitGainMRF, 0.0);
    EXPECT_EQ(unsplit->path, nullptr);
    unsplit->terminal = true;
    unsplit->appendToFile(file_, true, true);
    // Values 0..3: mean 1.5, variance 1.25; energy not computed.
    EXPECT_EQ(
        slurp(),
        "\n[NEW WORKSPACE]\nWSLab = 3;\nPath = [];\nChildren = [];\nOffspring = [];\nArea = 4;\n"
        "TotalLikelihoodEnergy = 0;\nMean = [1.5 ];\nCovariance = [\n1.25 ];\nSplit = 0;\nTerminal = 1;\n");

    ws.splitState = 2;
    std::unique_ptr<WSReport> spectral(ws.getWSReport());
    EXPECT_TRUE(spectral->split);
    EXPECT_EQ(spectral->beta, 0.7);
    EXPECT_EQ(spectral->edges, 5);
    EXPECT_EQ(spectral->splitGainTFR, 1.0);
    EXPECT_EQ(spectral->splitGainMRF, 2.0);
    EXPECT_EQ(spectral->mixtureSplitGainTFR, 3.0);
    ws.textureBased = true;
    std::unique_ptr<WSReport> texture(ws.getWSReport());
    EXPECT_TRUE(texture->textureBased);
    EXPECT_EQ(texture->splitGainMRF, 3.0);
    EXPECT_EQ(texture->mixtureSplitGainTFR, 2.0);
}

}  // namespace
