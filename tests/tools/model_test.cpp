// `dhc segment --model` and `dhc apply` through the tool: the model holds the
// final leaves' statistics (recomputed here from the image and the label map),
// follows its schema and carries the run's tree; the command line refuses what
// it cannot do before any output exists.

#include <cmath>
#include <filesystem>

#include "ToolTest.h"
#include "common/JsonSchemaCheck.h"
#include "common/TestSupport.h"

namespace tooltest {
namespace {

class Models : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        const Result run = dhc({"-o", "scene.hraw", "--truth", "truth.hraw", "--rows", "64", "--cols", "72"},
                               DHC_SCENE_PATH);
        ASSERT_EQ(run.status, 0) << run.err;
    }
    Result segment(std::vector<std::string> extra) {
        std::vector<std::string> args = {"segment", "scene.hraw", "-q",
                                         "--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=4",
                                         "--set", "UNSUPERVISED_MODE_CONF.SplitGainThreshold=0.05"};
        args.insert(args.end(), extra.begin(), extra.end());
        return dhc(args);
    }
};

TEST_F(Models, ModelHoldsTheFinalLeavesStatisticsAndTheTree) {
    const Result run = segment({"-o", "labels.hraw", "--model", "model.json", "--tree", "tree.json"});
    ASSERT_EQ(run.status, 0) << run.err;
    const nlohmann::json model = nlohmann::json::parse(read("model.json"));
    const dhc::test::JsonSchemaCheck schema(
        nlohmann::json::parse(dhc::test::readFile(DHC_SOURCE_DIR "/docs/model.schema.json")));
    const std::vector<std::string> problems = schema.problems(model);
    EXPECT_TRUE(problems.empty()) << problems.front();
    EXPECT_EQ(model["tree"], nlohmann::json::parse(read("tree.json")));

    const Hraw image = readHraw("scene.hraw"), labels = readHraw("labels.hraw");
    const std::vector<int32_t> present = distinctLabels(labels.values);
    ASSERT_EQ(model["leaves"].size(), present.size());
    const size_t plane = static_cast<size_t>(image.rows) * image.cols;
    for (size_t i = 0; i < present.size(); ++i) {
        const nlohmann::json& leaf = model["leaves"][i];
        EXPECT_EQ(leaf["label"], present[i]);
        // The leaf's pixels' mean and (population) covariance.
        std::vector<double> sum(4, 0.0), products(16, 0.0);
        double n = 0;
        for (size_t p = 0; p < plane; ++p) {
            if (labels.values[p] != present[i]) continue;
            ++n;
            for (size_t a = 0; a < 4; ++a) {
                sum[a] += image.values[a * plane + p];
                for (size_t b = 0; b < 4; ++b)
                    products[a * 4 + b] += double(image.values[a * plane + p]) * image.values[b * plane + p];
            }
        }
        for (size_t a = 0; a < 4; ++a) {
            EXPECT_NEAR(leaf["mean"][a].get<double>(), sum[a] / n, 1e-9 * std::fabs(sum[a] / n));
            for (size_t b = 0; b < 4; ++b) {
                const double c = products[a * 4 + b] / n - (sum[a] / n) * (sum[b] / n);
                EXPECT_NEAR(leaf["covariance"][a][b].get<double>(), c, 1e-6 * (1 + std::fabs(c)));
            }
        }
    }
}

TEST_F(Models, ApplyOnTheRunsImageMostlyKeepsItsLabels) {
    ASSERT_EQ(segment({"-o", "labels.hraw", "--model", "model.json"}).status, 0);
    const Result apply = dhc({"apply", "scene.hraw", "--model", "model.json", "-o", "applied.hraw", "--png", "a.png"});
    ASSERT_EQ(apply.status, 0) << apply.err;
    EXPECT_NE(apply.err.find("dhc: labelled 64 x 72 pixels"), std::string::npos) << apply.err;
    const Hraw seg = readHraw("labels.hraw"), applied = readHraw("applied.hraw");
    ASSERT_EQ(applied.values.size(), seg.values.size());
    size_t same = 0;
    for (size_t i = 0; i < seg.values.size(); ++i) same += seg.values[i] == applied.values[i];
    EXPECT_GT(double(same) / double(seg.values.size()), 0.95);
    EXPECT_EQ(read("a.png").substr(1, 3), "PNG");
}

TEST_F(Models, RefusalsComeBeforeAnyOutput) {
    ASSERT_EQ(segment({"-o", "labels.hraw", "--model", "model.json"}).status, 0);
    const std::set<std::string> before = files();
    // No model of a map cut into pieces.
    Result r = segment({"-o", "x.hraw", "--model", "y.json", "--set", "UNSUPERVISED_MODE_CONF.Fragmentation=1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("--model is not available with Fragmentation=1"), std::string::npos) << r.err;
    // The command line of dhc apply.
    const std::pair<std::vector<std::string>, std::string> usage[] = {
        {{"apply", "scene.hraw", "-o", "x.hraw"}, "apply: missing --model MODEL.json"},
        {{"apply", "scene.hraw", "--model", "model.json"}, "apply: missing -o LABELS"},
        {{"apply", "--model", "model.json", "-o", "x.hraw"}, "apply: missing IMAGE"},
        {{"apply", "scene.hraw", "--model", "model.json", "-o", "x.hraw", "--window", "0", "0", "0", "4"},
         "--window: XSIZE must be a whole number from 1"},
        {{"apply", "scene.hraw", "--model", "model.json", "-o", "x.hraw", "--window", "a", "0", "1", "4"},
         "--window: XOFF"},
        {{"apply", "scene.hraw", "--model", "model.json", "-o", "scene.hraw"}, "is the same file as input"},
        {{"apply", "scene.hraw", "--model", "model.json", "-o", "model.json"}, "is the same file as input"},
    };
    for (const auto& [args, message] : usage) {
        r = dhc(args);
        EXPECT_EQ(r.status, 2) << message;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    }
    // Models that do not fit the image, or are not models.
    Hraw three{3, 4, 4, std::vector<int32_t>(48, 7)};
    writeHraw("three.hraw", three);
    std::string text = read("model.json");
    write("newer.json", std::string(text).replace(text.find("\"formatVersion\": 1"), 18, "\"formatVersion\": 2"));
    write("empty.json", "");
    const std::pair<std::vector<std::string>, std::string> input[] = {
        {{"apply", "three.hraw", "--model", "model.json", "-o", "x.hraw"},
         "model \"model.json\" has 4 bands but image \"three.hraw\" has 3"},
        {{"apply", "scene.hraw", "--model", "newer.json", "-o", "x.hraw"}, "newer than this dhc reads"},
        {{"apply", "scene.hraw", "--model", "empty.json", "-o", "x.hraw"}, "not a JSON document"},
        {{"apply", "scene.hraw", "--model", "none.json", "-o", "x.hraw"}, "cannot open model \"none.json\""},
        {{"apply", "scene.hraw", "--model", "model.json", "-o", "x.hraw", "--window", "70", "0", "3", "3"},
         "reaches outside"},
        {{"apply", "scene.hraw", "--model", "model.json", "-o", "x.hraw", "--mask", "three.hraw"},
         "mask \"three.hraw\" is 4 x 4 pixels but the image is 64 x 72"},
    };
    for (const auto& [args, message] : input) {
        r = dhc(args);
        EXPECT_EQ(r.status, 1) << message;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    }
    std::set<std::string> after = before;
    after.insert({"empty.json", "newer.json", "three.hraw"});
    EXPECT_EQ(files(), after);
}

}  // namespace
}  // namespace tooltest
