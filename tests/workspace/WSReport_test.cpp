#include "workspace/WSReport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "common/TestSupport.h"
#include "workspace/PottsWS.h"
#include "workspace/WorkspaceFixtures.h"

namespace {

TEST(WSReportTest, ReportsOfAnUnsplitAndASplitWorkspace) {
    const std::string file = dhc::test::tmpPath("ws_report.txt");
    std::remove(file.c_str());
    auto b = wstest::makeWS(2, 2, 2, [](int r, int c, int band) { return band ? r : 2 * r + c; });
    PottsWS& ws = *b.ws;
    ws.beta = 0.123456789;  // not reported while the workspace is not split
    ws.edges = 10;
    ws.splitGain = -2.5;
    ws.primaryGain = 1e-7;  // the method's own gain, filed as the MRF gain
    ws.secondaryGain = 1234567.0;
    ws.likelihoodEnergy = 3.5;
    std::unique_ptr<WSReport> unsplit(ws.getWSReport());
    unsplit->pathLength = 2;
    unsplit->path = new int[2]{0, 1};
    unsplit->terminal = true;
    unsplit->appendToFile(file, true, true);  // creates the file

    ws.splitState = 2;
    std::unique_ptr<WSReport> split(ws.getWSReport());
    split->nChildren = 2;
    split->children = new int[2]{4, 5};
    split->chAreas = new int[2]{1, 3};
    split->nOffspring = 3;
    split->offspring = new int[3]{4, 8, 9};
    split->appendToFile(file, false, false);
    // Pixels (0, 0), (1, 0), (2, 1), (3, 1): mean (1.5, 0.5), covariance
    // [[1.25, 0.5], [0.5, 0.25]].
    EXPECT_EQ(dhc::test::readFile(file),
              "\n"
              "[NEW WORKSPACE]\n"
              "WSLab = 3;\n"
              "Path = [0 1 ];\n"
              "Children = [];\n"
              "Offspring = [];\n"
              "Area = 4;\n"
              "TotalLikelihoodEnergy = 3.5;\n"
              "Mean = [1.5 0.5 ];\n"
              "Covariance = [\n"
              "1.25 0.5 \n"
              "0.5 0.25 ];\n"
              "Split = 0;\n"
              "Terminal = 1;\n"
              "\n"
              "[NEW WORKSPACE]\n"
              "WSLab = 3;\n"
              "Path = [];\n"
              "Children = [4 5 ];\n"
              "Offspring = [4 8 9 ];\n"
              "Area = 4;\n"
              "Split = 1;\n"
              "Terminal = 0;\n"
              "Beta = 0.123457;\n"
              "Edges = 10;\n"
              "TextureBased = 0;\n"
              "SplitGain_MRF = 1e-07;\n"
              "MixtureSplitGain_TFR = 1.23457e+06;\n"
              "SplitGain_TFR = -2.5;\n"
              "ChAreas = [1 3 ];\n");
    std::remove(file.c_str());
}

}  // namespace
