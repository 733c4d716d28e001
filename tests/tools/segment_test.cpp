// Segmentations through the tool on the generator's four-class scene
// (background, disk, rectangle, bar) with its truth.

#include <png.h>

#include <algorithm>
#include <climits>
#include <map>

#include <nlohmann/json.hpp>

#include "ToolTest.h"

namespace tooltest {
namespace {

constexpr int kSide = 96;  // scene side, small enough for a fast suite

class Segment : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        const Result run = dhc({"-o", "scene.hraw", "--truth", "truth.hraw", "--rows", "96", "--cols", "96"},
                               DHC_SCENE_PATH);
        ASSERT_EQ(run.status, 0) << run.err;
        truth = readHraw("truth.hraw").values;
    }

    // dhc segment scene.hraw -o OUT, the extra arguments and a --set per
    // setting; keeps the run in `last` and returns the label map.
    std::vector<int32_t> segment(const std::string& out, const std::vector<std::string>& extra,
                                 const std::vector<std::string>& settings = {}) {
        std::vector<std::string> args = {"segment", "scene.hraw", "-o", out};
        args.insert(args.end(), extra.begin(), extra.end());
        for (const std::string& setting : settings) args.insert(args.end(), {"--set", setting});
        last = dhc(args);
        EXPECT_EQ(last.status, 0) << last.err;
        const Hraw labels = readHraw(out);
        EXPECT_TRUE(labels.bands == 1 && labels.rows == kSide && labels.cols == kSide);
        return labels.values;
    }

    std::vector<int32_t> truth;
    Result last;
};

TEST_F(Segment, ClassLimitsAndTreeShapes) {
    // Balanced mode from a file with CRLF line ends and without [POTTS_MODEL],
    // which the overrides add.  Gains and the class limit are not consulted:
    // at least one split, and at most 4 leaves.
    write("balanced.ini",
          "[SEGM_MAIN_CONFIGURATION]\r\nSupervisedMode=0\r\n\r\n[UNSUPERVISED_MODE_CONF]\r\n"
          "SplitGainThreshold=100\r\nMaxNumberOfClasses=50\r\nMinRegionArea=64\r\nBalancedTree=1\r\n"
          "GrowDepth=2\r\n");
    const size_t balanced = distinctLabels(segment("balanced.hraw", {"--config", "balanced.ini"},
                                                   {"POTTS_MODEL.Multiplicity=2", "POTTS_MODEL.BetaMax=1.5"}))
                                .size();
    EXPECT_TRUE(balanced >= 2 && balanced <= 4) << balanced;

    const std::vector<int32_t> one =
        segment("one.hraw", {"--quiet"}, {"UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=1"});
    EXPECT_EQ(distinctLabels(one).size(), 1u);
    EXPECT_EQ(last.err, "");  // no progress lines

    // Blind depth 1: the split regions are the root (label 2), first, then
    // exactly its children; on this scene all three splits succeed.
    segment("blind.hraw", {"--report", "blind.txt"},
            {"UNSUPERVISED_MODE_CONF.Blind=1", "UNSUPERVISED_MODE_CONF.BlindSplitDepthMax=1",
             "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=100"});
    const std::string report = read("blind.txt");
    const std::vector<int32_t> split = listed(report, "SplitOrder"), children = listed(report, "Children");
    ASSERT_EQ(split.size(), 3u);
    EXPECT_EQ(split[0], 2);  // and the first "Children" line is the root's
    EXPECT_TRUE(std::is_permutation(split.begin() + 1, split.end(), children.begin(), children.end()));
}

TEST_F(Segment, SupervisedTwoLevelStructureReproducesTheTruth) {
    // Classes 1, 2 under one node, 3, 4 under the other: three splits in two.
    const std::vector<int32_t> labels =
        segment("labels.hraw", {"--gt", "truth.hraw", "--report", "report.txt"},
                {"SEGM_MAIN_CONFIGURATION.SupervisedMode=1", "SUPERVISED_MODE_CONF.NumberOfClasses=4",
                 "SUPERVISED_MODE_CONF.StructureLevels={2 2 2 2}",
                 "SUPERVISED_MODE_CONF.StructurePaths={0 0 0 1 1 0 1 1}"});
    long same = 0;
    for (size_t i = 0; i < truth.size(); ++i) same += labels[i] == truth[i];
    EXPECT_GE(static_cast<double>(same) / static_cast<double>(truth.size()), 0.99);
    const std::string report = read("report.txt");
    EXPECT_EQ(listed(report, "SplitOrder").size(), 3u);
    EXPECT_EQ(listed(report, "Children").size(), 2u);
}

TEST_F(Segment, FourClassesAndTheirFragmentsTheSameWayTwice) {
    // A strip outside the region of interest cuts the background in two,
    // between the rectangle and the bar: four classes, five pieces.
    std::vector<int32_t> mask(kSide * kSide, 1);
    for (int r = 0; r < kSide; ++r) std::fill_n(mask.begin() + r * kSide + 60, 4, 0);
    writeHraw("mask.hraw", Hraw{1, kSide, kSide, mask});
    for (const std::string run : {"b", "a"})
        segment(run + ".hraw",
                {"--mask", "mask.hraw", "--fragments", run + "-fragments.hraw", "--png", run + ".png"},
                {"UNSUPERVISED_MODE_CONF.Fragmentation=1"});
    for (const std::string output : {".hraw", "-fragments.hraw", ".png"})
        EXPECT_EQ(read("a" + output), read("b" + output)) << output;

    const std::vector<int32_t> labels = readHraw("a.hraw").values;
    const Hraw fragments = readHraw("a-fragments.hraw");
    ASSERT_EQ(fragments.values.size(), labels.size());
    EXPECT_GE(matchedAgreement(labels, truth), 0.99);
    EXPECT_EQ(distinctLabels(labels).size(), 4u);
    // The fragments are the classes' 8-connected pieces: no piece of a class
    // holds two fragments (its pieces are those of the (class, fragment)
    // pairs), and no fragment two pieces (there are as many of each).
    Hraw pairs{1, kSide, kSide, {}};
    for (size_t i = 0; i < labels.size(); ++i) {
        ASSERT_EQ(fragments.values[i] == 0, mask[i] == 0) << "pixel " << i;
        pairs.values.push_back(labels[i] * 65536 + fragments.values[i]);
    }
    EXPECT_EQ(pieces(Hraw{1, kSide, kSide, labels}), 5);
    EXPECT_EQ(pieces(pairs), 5);
    EXPECT_EQ(distinctLabels(fragments.values).size(), 5u);

    // Progress lines on standard error; standard output is the segmenter's
    // alone.  96 x 96 less the 96 x 4 strip: 8832 pixels.
    const std::string first =
        "dhc: segmenting \"scene.hraw\": 96 x 96, 4 bands, 8832 pixels in the region of interest\n";
    EXPECT_EQ(last.err.substr(0, first.size()), first);
    EXPECT_NE(last.err.find("dhc: split region 2, 2 leaves\n"), std::string::npos) << last.err;
    EXPECT_EQ(last.out.find("dhc:"), std::string::npos);

    // The picture: one distinct colour per class, black exactly outside the region.
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&image, path("a.png").c_str()));
    ASSERT_EQ(image.width * image.height, labels.size());
    image.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
    ASSERT_TRUE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr));
    std::map<int32_t, uint32_t> colourOf;
    std::set<uint32_t> colours;
    for (size_t i = 0; i < labels.size(); ++i) {
        const uint32_t colour = rgb[3 * i] << 16 | rgb[3 * i + 1] << 8 | rgb[3 * i + 2];
        EXPECT_EQ(colour == 0, labels[i] == 0) << "pixel " << i;
        EXPECT_EQ(colourOf.emplace(labels[i], colour).first->second, colour) << "pixel " << i;
        colours.insert(colour);
    }
    EXPECT_EQ(colours.size(), colourOf.size());
}

TEST_F(Segment, QuietSilencesEverythingAndTheLastLineSaysWhyTheRunStopped) {
    // Mean shift with an adjusted neighbour count prints its estimates on
    // standard output: --quiet silences them with the progress lines.
    const std::vector<std::string> meanShift = {"UNSUPERVISED_MODE_CONF.VariableMultiplicity=1",
                                                "MEANSHIFT.AutoAdjustKNN=3"};
    segment("ms.hraw", {}, meanShift);
    EXPECT_NE(last.out.find("N.L.P. = "), std::string::npos) << last.out;
    segment("ms-quiet.hraw", {"--quiet"}, meanShift);
    EXPECT_EQ(last.out, "");
    EXPECT_EQ(last.err, "");

    // The split-gain rule names the refused gain; the criterion its value.
    segment("gain.hraw", {}, {"UNSUPERVISED_MODE_CONF.StopCriterion=0", "UNSUPERVISED_MODE_CONF.FinalRefinement=0"});
    EXPECT_NE(last.err.find("dhc: no split kept: best candidate region "), std::string::npos) << last.err;
    EXPECT_NE(last.err.find(" < 0.2\n"), std::string::npos) << last.err;
    segment("cap.hraw", {}, {"UNSUPERVISED_MODE_CONF.StopCriterion=1", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=2"});
    EXPECT_NE(last.err.find("dhc: MaxNumberOfClasses reached: 2 classes\n"), std::string::npos) << last.err;
    const std::vector<int32_t> icl = segment("icl.hraw", {"--tree", "icl.json"},
                                             {"UNSUPERVISED_MODE_CONF.StopCriterion=1"});
    EXPECT_NE(last.err.find(", ICL -"), std::string::npos) << last.err;
    EXPECT_EQ(distinctLabels(icl).size(), 4u);

    // Every leaf records the split it refused; the final model lists the
    // classes of the final map with their areas there.
    const nlohmann::json doc = nlohmann::json::parse(read("icl.json"));
    EXPECT_EQ(doc["settings"]["stopCriterion"], 1);
    for (const auto& region : doc["regions"]) {
        if (!region["terminal"].get<bool>()) {
            EXPECT_GT(region["criterion"].get<double>(), 0.0) << region["label"];
            continue;
        }
        ASSERT_TRUE(region["refusedSplit"].is_object()) << region["label"];
        EXPECT_LE(region["refusedSplit"]["criterion"].get<double>(), 0.0) << region["label"];
    }
    const auto& model = doc["finalModel"];
    ASSERT_TRUE(model.is_object());
    std::map<int32_t, long> area;
    for (int32_t l : icl) ++area[l];
    ASSERT_EQ(model["classes"].size(), area.size());
    for (const auto& c : model["classes"]) EXPECT_EQ(c["area"].get<long>(), area[c["label"].get<int32_t>()]);
}

}  // namespace
}  // namespace tooltest
