// Segmentations through the tool on the generator's four-class scene
// (background, disk, rectangle, bar) with its truth.

#include <algorithm>
#include <map>
#include <set>

#include "ToolTest.h"

namespace tooltest {
namespace {

constexpr int kSide = 96;  // scene size: small enough for a fast suite

class Segment : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        const Result run = makeScene({"-o", "scene.hraw", "--truth", "truth.hraw", "--rows",
                                      std::to_string(kSide), "--cols", std::to_string(kSide)});
        ASSERT_EQ(run.status, 0) << run.err;
        truth = readHraw("truth.hraw").values;
    }

    // dhc segment scene.hraw -o OUT --quiet, the extra arguments and a --set
    // per setting; returns the label map.
    std::vector<int32_t> segment(const std::string& out, const std::vector<std::string>& extra,
                                 const std::vector<std::string>& settings = {}) {
        std::vector<std::string> args = {"segment", "scene.hraw", "-o", out, "--quiet"};
        args.insert(args.end(), extra.begin(), extra.end());
        for (const std::string& setting : settings) args.insert(args.end(), {"--set", setting});
        const Result run = dhc(args);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        const Hraw labels = readHraw(out);
        EXPECT_TRUE(labels.bands == 1 && labels.rows == kSide && labels.cols == kSide);
        return labels.values;
    }

    std::vector<int32_t> truth;
};

TEST_F(Segment, DefaultSettingsFindTheFourClassesTheSameWayTwice) {
    const std::vector<int32_t> labels = segment("a.hraw", {"--report", "a.txt", "--png", "a.png"});
    EXPECT_EQ(distinctLabels(labels).size(), 4u);
    EXPECT_GE(matchedAgreement(labels, truth), 0.99);
    // The report's leaves are the labels of the map.
    std::vector<int32_t> classes = listed(read("a.txt"), "Classes");
    std::sort(classes.begin(), classes.end());
    EXPECT_EQ(classes, distinctLabels(labels));
    segment("b.hraw", {"--report", "b.txt", "--png", "b.png"});
    EXPECT_EQ(read("a.hraw"), read("b.hraw"));
    EXPECT_EQ(read("a.txt"), read("b.txt"));
    EXPECT_EQ(read("a.png"), read("b.png"));
}

TEST_F(Segment, ClassLimitsAndTreeShapes) {
    // At most 4 leaves in balanced mode, whatever the class limit says.
    const size_t balanced =
        distinctLabels(
            segment("balanced.hraw", {},
                    {"UNSUPERVISED_MODE_CONF.BalancedTree=1", "UNSUPERVISED_MODE_CONF.GrowDepth=2",
                     "POTTS_MODEL.Multiplicity=2", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=50"}))
            .size();
    EXPECT_TRUE(balanced >= 2 && balanced <= 4) << balanced;

    const std::vector<int32_t> one = segment("one.hraw", {}, {"UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=1"});
    EXPECT_EQ(distinctLabels(one).size(), 1u);
    EXPECT_EQ(std::count(one.begin(), one.end(), 0), 0);

    // Blind depth 1: the split regions are exactly the root (label 2) and its
    // children; on this scene all three splits succeed.
    segment("blind.hraw", {"--report", "blind.txt"},
            {"UNSUPERVISED_MODE_CONF.Blind=1", "UNSUPERVISED_MODE_CONF.BlindSplitDepthMax=1",
             "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=100"});
    const std::string report = read("blind.txt");
    std::vector<int32_t> split = listed(report, "SplitOrder"), expected = listed(report, "Children");
    expected.push_back(2);  // the first workspace block is the root's
    std::sort(split.begin(), split.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(split, expected);
    EXPECT_EQ(split.size(), 3u);
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

TEST_F(Segment, FragmentsAreTheConnectedPiecesOfTheClasses) {
    // A strip outside the region of interest cuts the background in two,
    // between the rectangle and the bar: four classes, five pieces.
    std::vector<int32_t> mask(kSide * kSide, 1);
    for (int r = 0; r < kSide; ++r) std::fill_n(mask.begin() + r * kSide + 60, 4, 0);
    writeHraw("mask.hraw", Hraw{1, kSide, kSide, mask});
    for (const std::string run : {"1", "2"})
        segment("labels" + run + ".hraw", {"--mask", "mask.hraw", "--fragments", "fragments" + run + ".hraw"},
                {"UNSUPERVISED_MODE_CONF.Fragmentation=1"});
    EXPECT_EQ(read("labels1.hraw"), read("labels2.hraw"));
    EXPECT_EQ(read("fragments1.hraw"), read("fragments2.hraw"));
    const std::vector<int32_t> labels = readHraw("labels1.hraw").values;
    const Hraw fragments = readHraw("fragments1.hraw");
    ASSERT_EQ(fragments.values.size(), labels.size());
    EXPECT_GE(matchedAgreement(labels, truth, mask), 0.99);
    EXPECT_EQ(distinctLabels(labels).size(), 4u);
    // Each fragment lies in one class and is one piece, and there are as many
    // fragments as pieces of classes: the fragments are those pieces.
    std::map<int32_t, std::set<int32_t>> classesOf;
    for (size_t i = 0; i < labels.size(); ++i) {
        ASSERT_EQ(labels[i] == 0, mask[i] == 0) << "pixel " << i;
        ASSERT_EQ(fragments.values[i] == 0, mask[i] == 0) << "pixel " << i;
        classesOf[fragments.values[i]].insert(labels[i]);
    }
    for (const auto& [fragment, classes] : classesOf)
        EXPECT_EQ(classes.size(), 1u) << "fragment " << fragment;
    EXPECT_EQ(pieces(Hraw{1, kSide, kSide, labels}), 5);
    EXPECT_EQ(pieces(fragments), 5);
    EXPECT_EQ(distinctLabels(fragments.values).size(), 5u);
}

TEST_F(Segment, RegionOfInterestAsTheGatewayBuildsIt) {
    // Mask value 1 selects, 2 does not: left half 1, right half 2.  Initial
    // labels: top rows 0, then left half 1, right half 2.
    std::vector<int32_t> mask(kSide * kSide), init(kSide * kSide);
    for (int i = 0; i < kSide * kSide; ++i) {
        mask[i] = i % kSide < kSide / 2 ? 1 : 2;
        init[i] = i < 4 * kSide ? 0 : mask[i];
    }
    writeHraw("mask.hraw", Hraw{1, kSide, kSide, mask});
    writeHraw("init.hraw", Hraw{1, kSide, kSide, init});
    const std::vector<int32_t> masked = segment("masked.hraw", {"--mask", "mask.hraw"});
    for (int i = 0; i < kSide * kSide; ++i) EXPECT_EQ(masked[i] == 0, mask[i] != 1) << "pixel " << i;

    // Without a mask the region is init > 0; two initial labels seed two
    // leaves, which a class limit of 2 keeps as they are.
    const std::vector<int32_t> seeded =
        segment("seeded.hraw", {"--init", "init.hraw"}, {"UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=2"});
    for (int i = 0; i < kSide * kSide; ++i) EXPECT_EQ(seeded[i] == 0, init[i] <= 0) << "pixel " << i;
    EXPECT_EQ(matchedAgreement(seeded, init, init), 1.0);
}

TEST_F(Segment, ConfigFileAndOverridesReadAlike) {
    // The default configuration with CRLF line ends and one changed key reads
    // like the built-in one with the same key overridden.
    std::string crlf;
    for (char ch : readFile(DHC_DEFAULT_INI_PATH))
        crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
    const std::string key = "MaxNumberOfClasses=8";
    ASSERT_NE(crlf.find(key), std::string::npos);
    write("two.ini", crlf.replace(crlf.find(key), key.size(), "MaxNumberOfClasses=2"));
    segment("a.hraw", {"--config", "two.ini", "--report", "a.txt"});
    segment("b.hraw", {"--report", "b.txt"}, {"UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=2"});
    EXPECT_EQ(read("a.hraw"), read("b.hraw"));
    EXPECT_EQ(read("a.txt"), read("b.txt"));
    EXPECT_EQ(distinctLabels(readHraw("a.hraw").values).size(), 2u);
    // Sections the file lacks are added by overrides.
    write("nomodel.ini",
          "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[UNSUPERVISED_MODE_CONF]\n"
          "SplitGainThreshold=0.3\nMaxNumberOfClasses=2\nMinRegionArea=64\n");
    segment("c.hraw", {"--config", "nomodel.ini"},
            {"POTTS_MODEL.Multiplicity=2", "POTTS_MODEL.BetaMax=1.5", "MEANSHIFT.Tolerance=0.05",
             "MEANSHIFT.SkipLast=0.1"});
    EXPECT_EQ(read("a.hraw"), read("c.hraw"));
}

}  // namespace
}  // namespace tooltest
