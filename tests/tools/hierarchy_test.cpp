// The tree as a product through the tool: --levels and --cut on the
// generator's four-class scene, with a multiplicity that makes cuts skip
// class counts.

#include "ToolTest.h"

namespace tooltest {
namespace {

class Levels : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        const Result run = dhc({"-o", "scene.hraw", "--truth", "truth.hraw", "--rows", "96", "--cols", "96"},
                               DHC_SCENE_PATH);
        ASSERT_EQ(run.status, 0) << run.err;
    }

    Result segment(const std::vector<std::string>& extra, const std::vector<std::string>& settings) {
        std::vector<std::string> args = {"segment", "scene.hraw", "-q"};
        args.insert(args.end(), extra.begin(), extra.end());
        for (const std::string& setting : settings) args.insert(args.end(), {"--set", setting});
        return dhc(args);
    }

    static std::vector<int32_t> band(const Hraw& stack, int k) {
        const size_t plane = static_cast<size_t>(stack.rows) * stack.cols;
        return std::vector<int32_t>(stack.values.begin() + k * plane, stack.values.begin() + (k + 1) * plane);
    }

    // --levels with the settings: the last band is the final map, and --cut
    // of every band's class count writes that band.  Returns the class counts.
    std::vector<size_t> checkLevels(const std::vector<std::string>& settings) {
        const Result run = segment({"-o", "labels.hraw", "--levels", "levels.hraw"}, settings);
        EXPECT_EQ(run.status, 0) << run.err;
        const Hraw stack = readHraw("levels.hraw");
        const Hraw labels = readHraw("labels.hraw");
        EXPECT_TRUE(stack.rows == 96 && stack.cols == 96 && stack.bands >= 2) << stack.bands;
        EXPECT_EQ(stack.values.size(), static_cast<size_t>(stack.bands) * 96 * 96);
        if (stack.bands < 1 || stack.values.size() != static_cast<size_t>(stack.bands) * 96 * 96) return {};
        EXPECT_EQ(band(stack, stack.bands - 1), labels.values);
        std::vector<size_t> counts;
        for (int k = 0; k < stack.bands; ++k) {
            const std::vector<int32_t> plane = band(stack, k);
            counts.push_back(distinctLabels(plane).size());
            const std::string name = "cut" + std::to_string(k) + ".hraw";
            const Result cut = segment({"-o", name, "--cut", std::to_string(counts.back())}, settings);
            EXPECT_EQ(cut.status, 0) << cut.err;
            EXPECT_EQ(readHraw(name).values, plane) << "band " << k;
        }
        EXPECT_EQ(counts.front(), 1u);
        return counts;
    }
};

TEST_F(Levels, BinaryCutsAddOneClassPerBand) {
    const std::vector<size_t> counts = checkLevels({});
    for (size_t k = 0; k < counts.size(); ++k) EXPECT_EQ(counts[k], k + 1);
}

TEST_F(Levels, TernaryCutsSkipClassCounts) {
    const std::vector<std::string> ternary = {"POTTS_MODEL.Multiplicity=3"};
    const std::vector<size_t> counts = checkLevels(ternary);
    ASSERT_GE(counts.size(), 2u);
    for (size_t k = 1; k < counts.size(); ++k) EXPECT_EQ(counts[k], counts[k - 1] + 2);
    // A count between two cuts is refused, naming the counts there are.
    write("labels.hraw", "kept");
    const Result two = segment({"-o", "labels.hraw", "--cut", "2"}, ternary);
    EXPECT_EQ(two.status, 1);
    EXPECT_EQ(two.err.rfind("dhc: --cut 2: no cut of the tree has 2 classes (the cuts have 1, 3", 0), 0u)
        << two.err;
    EXPECT_EQ(read("labels.hraw"), "kept");
}

}  // namespace
}  // namespace tooltest
