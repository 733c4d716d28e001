// Segmentations through the tool on generated images with known truth.

#include <algorithm>
#include <functional>
#include <map>
#include <queue>
#include <set>

#include "ToolTest.h"

namespace tooltest {
namespace {

constexpr int kSide = 96;  // scene size: small enough for a fast suite

class Segment : public ToolTest {
  protected:
    // The generator's four-class scene and its truth.
    void makeFourClassScene() {
        const Result run = makeScene({"-o", "scene.hraw", "--truth", "truth.hraw", "--rows",
                                      std::to_string(kSide), "--cols", std::to_string(kSide)});
        ASSERT_EQ(run.status, 0) << run.err;
    }

    // dhc segment scene.hraw -o OUT --quiet + extra; returns the label map.
    Hraw segment(const std::string& out, std::vector<std::string> extra) {
        std::vector<std::string> args = {"segment", "scene.hraw", "-o", out, "--quiet"};
        args.insert(args.end(), extra.begin(), extra.end());
        const Result run = dhc(args);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        return readHraw(path(out));
    }
};

// Nodes of the report by label.
std::map<int, WorkspaceBlock> byLabel(const std::vector<WorkspaceBlock>& blocks) {
    std::map<int, WorkspaceBlock> m;
    for (const WorkspaceBlock& b : blocks) m[b.label] = b;
    return m;
}

TEST_F(Segment, DefaultSettingsFindTheFourClasses) {
    makeFourClassScene();
    const Hraw labels = segment("labels.hraw", {"--report", "report.txt"});
    const Hraw truth = readHraw(path("truth.hraw"));
    ASSERT_EQ(labels.bands, 1);
    ASSERT_EQ(labels.rows, kSide);
    ASSERT_EQ(labels.cols, kSide);
    EXPECT_EQ(distinctLabels(labels.values).size(), 4u);
    EXPECT_GE(matchedAgreement(labels.values, truth.values), 0.99);

    // The report describes the same leaves as the map.
    const std::vector<WorkspaceBlock> blocks = parseReport(readFile(path("report.txt")));
    std::vector<int32_t> leaves;
    for (const WorkspaceBlock& b : blocks)
        if (b.terminal) leaves.push_back(b.label);
    std::sort(leaves.begin(), leaves.end());
    EXPECT_EQ(leaves, distinctLabels(labels.values));
}

TEST_F(Segment, SameRunTwiceGivesIdenticalBytes) {
    makeFourClassScene();
    for (const std::string run : {"1", "2"})
        segment("labels" + run + ".hraw",
                {"--report", "report" + run + ".txt", "--png", "labels" + run + ".png"});
    EXPECT_EQ(readFile(path("labels1.hraw")), readFile(path("labels2.hraw")));
    EXPECT_EQ(readFile(path("report1.txt")), readFile(path("report2.txt")));
    EXPECT_EQ(readFile(path("labels1.png")), readFile(path("labels2.png")));
    for (const std::string run : {"1", "2"})
        segment("frag" + run + ".hraw", {"--set", "UNSUPERVISED_MODE_CONF.Fragmentation=1", "--fragments",
                                         "fragments" + run + ".hraw"});
    EXPECT_EQ(readFile(path("frag1.hraw")), readFile(path("frag2.hraw")));
    EXPECT_EQ(readFile(path("fragments1.hraw")), readFile(path("fragments2.hraw")));
}

TEST_F(Segment, BalancedDepthTwoGivesAtMostFourLeaves) {
    makeFourClassScene();
    const Hraw labels = segment(
        "labels.hraw", {"--report", "report.txt", "--set", "UNSUPERVISED_MODE_CONF.BalancedTree=1", "--set",
                        "UNSUPERVISED_MODE_CONF.GrowDepth=2", "--set", "POTTS_MODEL.Multiplicity=2", "--set",
                        "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=50"});
    const size_t classes = distinctLabels(labels.values).size();
    EXPECT_LE(classes, 4u);
    EXPECT_GE(classes, 2u);
    for (const WorkspaceBlock& b : parseReport(readFile(path("report.txt")))) {
        EXPECT_LE(b.path.size(), 2u) << "region " << b.label;
        if (!b.children.empty()) {
            EXPECT_EQ(b.children.size(), 2u) << "region " << b.label;
        }
    }
}

TEST_F(Segment, OneClassAtMost) {
    makeFourClassScene();
    const Hraw labels = segment("labels.hraw", {"--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=1"});
    EXPECT_EQ(distinctLabels(labels.values).size(), 1u);
    EXPECT_EQ(std::count(labels.values.begin(), labels.values.end(), 0), 0);
}

TEST_F(Segment, BlindDepthOneSplitsOnlyTheRootAndItsChildren) {
    makeFourClassScene();
    segment("labels.hraw", {"--report", "report.txt", "--set", "UNSUPERVISED_MODE_CONF.Blind=1", "--set",
                            "UNSUPERVISED_MODE_CONF.BlindSplitDepthMax=1", "--set",
                            "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=100"});
    const std::vector<WorkspaceBlock> blocks = parseReport(readFile(path("report.txt")));
    const std::map<int, WorkspaceBlock> nodes = byLabel(blocks);
    std::set<int> split, expected;
    for (const WorkspaceBlock& b : blocks) {
        if (!b.children.empty()) split.insert(b.label);
        if (b.path.empty()) {
            expected.insert(b.label);
            for (int c : b.children) expected.insert(c);
        }
    }
    EXPECT_EQ(split, expected);
    EXPECT_EQ(split.size(), 3u);  // on this scene all three splits succeed
}

TEST_F(Segment, SupervisedTwoLevelStructureReproducesTheTruth) {
    makeFourClassScene();
    // Classes 1, 2 under one node, 3, 4 under the other.
    const Hraw labels = segment("labels.hraw", {"--gt", "truth.hraw", "--report", "report.txt", "--set",
                                                "SEGM_MAIN_CONFIGURATION.SupervisedMode=1", "--set",
                                                "SUPERVISED_MODE_CONF.NumberOfClasses=4", "--set",
                                                "SUPERVISED_MODE_CONF.StructureLevels={2 2 2 2}", "--set",
                                                "SUPERVISED_MODE_CONF.StructurePaths={0 0 0 1 1 0 1 1}"});
    const Hraw truth = readHraw(path("truth.hraw"));
    long same = 0;
    for (size_t i = 0; i < truth.values.size(); ++i) same += labels.values[i] == truth.values[i];
    EXPECT_GE(static_cast<double>(same) / static_cast<double>(truth.values.size()), 0.99);
    // Two levels: the root, two inner nodes, four leaves.
    const std::vector<WorkspaceBlock> blocks = parseReport(readFile(path("report.txt")));
    ASSERT_EQ(blocks.size(), 7u);
    for (const WorkspaceBlock& b : blocks) EXPECT_EQ(b.terminal, b.path.size() == 2) << "region " << b.label;
}

TEST_F(Segment, FragmentsAreTheConnectedPiecesOfTheClasses) {
    makeFourClassScene();
    // A strip outside the region of interest cuts the background in two,
    // between the rectangle and the bar: four classes, five pieces.
    const int n = kSide;
    std::vector<int32_t> mask(static_cast<size_t>(n * n), 1);
    for (int r = 0; r < n; ++r)
        for (int c = 60; c < 64; ++c) mask[static_cast<size_t>(r * n + c)] = 0;
    writeHraw(path("mask.hraw"), plane(n, n, mask));
    const Hraw labels =
        segment("labels.hraw", {"--mask", "mask.hraw", "--set", "UNSUPERVISED_MODE_CONF.Fragmentation=1",
                                "--fragments", "fragments.hraw"});
    const Hraw fragments = readHraw(path("fragments.hraw"));
    ASSERT_EQ(fragments.values.size(), labels.values.size());
    EXPECT_GE(matchedAgreement(labels.values, readHraw(path("truth.hraw")).values, mask), 0.99);

    // Inside the region of interest, adjacent pixels share a fragment exactly
    // when they share a class, and every fragment is one 8-connected piece.
    auto inside = [&](int r, int c) {
        return r >= 0 && c >= 0 && r < n && c < n && mask[static_cast<size_t>(r * n + c)] == 1;
    };
    auto at = [n](const Hraw& h, int r, int c) { return h.values[static_cast<size_t>(r * n + c)]; };
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) {
            if (!inside(r, c)) {
                ASSERT_EQ(at(labels, r, c), 0);
                ASSERT_EQ(at(fragments, r, c), 0);
                continue;
            }
            ASSERT_NE(at(fragments, r, c), 0);
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    if (!inside(r + dr, c + dc)) continue;
                    ASSERT_EQ(at(labels, r, c) == at(labels, r + dr, c + dc),
                              at(fragments, r, c) == at(fragments, r + dr, c + dc))
                        << "at (" << r << ", " << c << ") and (" << r + dr << ", " << c + dc << ")";
                }
        }
    std::set<int32_t> seen;
    std::vector<bool> visited(static_cast<size_t>(n * n), false);
    for (int start = 0; start < n * n; ++start) {
        if (visited[static_cast<size_t>(start)] || !inside(start / n, start % n)) continue;
        const int32_t f = fragments.values[static_cast<size_t>(start)];
        EXPECT_TRUE(seen.insert(f).second) << "fragment " << f << " is in more than one piece";
        std::queue<int> queue;
        queue.push(start);
        visited[static_cast<size_t>(start)] = true;
        while (!queue.empty()) {
            const int p = queue.front();
            queue.pop();
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    const int rr = p / n + dr, cc = p % n + dc;
                    if (!inside(rr, cc)) continue;
                    const int q = rr * n + cc;
                    if (visited[static_cast<size_t>(q)] || fragments.values[static_cast<size_t>(q)] != f)
                        continue;
                    visited[static_cast<size_t>(q)] = true;
                    queue.push(q);
                }
        }
    }
    EXPECT_EQ(distinctLabels(labels.values).size(), 4u);
    EXPECT_EQ(seen.size(), 5u);
}

TEST_F(Segment, RegionOfInterestAsTheGatewayBuildsIt) {
    makeFourClassScene();
    const int n = kSide;
    // Mask: value 1 selects; 2 does not.  Left half 1, right half 2.
    std::vector<int32_t> mask(n * n), init(n * n);
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) {
            mask[static_cast<size_t>(r * n + c)] = c < n / 2 ? 1 : 2;
            init[static_cast<size_t>(r * n + c)] = r < 4 ? 0 : (c < n / 2 ? 1 : 2);
        }
    writeHraw(path("mask.hraw"), plane(n, n, mask));
    writeHraw(path("init.hraw"), plane(n, n, init));

    const Hraw masked = segment("masked.hraw", {"--mask", "mask.hraw"});
    for (int i = 0; i < n * n; ++i)
        EXPECT_EQ(masked.values[static_cast<size_t>(i)] == 0, mask[static_cast<size_t>(i)] != 1)
            << "pixel " << i;

    // Without a mask the ROI is init > 0; two initial labels seed two leaves,
    // which a class limit of 2 keeps as they are.
    const Hraw seeded = segment(
        "seeded.hraw", {"--init", "init.hraw", "--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=2"});
    for (int i = 0; i < n * n; ++i)
        EXPECT_EQ(seeded.values[static_cast<size_t>(i)] == 0, init[static_cast<size_t>(i)] <= 0)
            << "pixel " << i;
    EXPECT_EQ(matchedAgreement(seeded.values, init, init), 1.0);
}

TEST_F(Segment, ConfigFileAndOverridesReadAlike) {
    makeFourClassScene();
    // The default configuration with CRLF line ends and one changed key reads
    // like the built-in one with the same key overridden.
    std::string ini = readFile(DHC_DEFAULT_INI_PATH);
    std::string crlf;
    for (char ch : ini) crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
    const std::string key = "MaxNumberOfClasses=8";
    ASSERT_NE(crlf.find(key), std::string::npos);
    crlf.replace(crlf.find(key), key.size(), "MaxNumberOfClasses=2");
    writeText("two.ini", crlf);
    segment("a.hraw", {"--config", "two.ini", "--report", "a.txt"});
    segment("b.hraw", {"--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=2", "--report", "b.txt"});
    EXPECT_EQ(readFile(path("a.hraw")), readFile(path("b.hraw")));
    EXPECT_EQ(readFile(path("a.txt")), readFile(path("b.txt")));
    EXPECT_EQ(distinctLabels(readHraw(path("a.hraw")).values).size(), 2u);
    // A section the file lacks is added by an override.
    writeText("nomodel.ini",
              "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[UNSUPERVISED_MODE_CONF]\n"
              "SplitGainThreshold=0.3\nMaxNumberOfClasses=2\nMinRegionArea=64\n");
    segment("c.hraw", {"--config", "nomodel.ini", "--set", "POTTS_MODEL.Multiplicity=2", "--set",
                       "POTTS_MODEL.BetaMax=1.5", "--set", "MEANSHIFT.Tolerance=0.05", "--set",
                       "MEANSHIFT.SkipLast=0.1"});
    EXPECT_EQ(readFile(path("a.hraw")), readFile(path("c.hraw")));
}

}  // namespace
}  // namespace tooltest
