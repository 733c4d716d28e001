// The tree as a product through the tool on the generator's four-class
// scene: --levels and --cut (also with a multiplicity that makes cuts skip
// class counts), --tree against its schema and the report, and the tree
// pictures against the label map's picture.

#include <png.h>

#include "ToolTest.h"
#include "common/JsonSchemaCheck.h"
#include "common/TestSupport.h"

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

    // The cuts describe the final map when it is the tree's leaves: the
    // split-gain rule without the final refinement.
    Result segment(const std::vector<std::string>& extra, const std::vector<std::string>& settings) {
        std::vector<std::string> args = {"segment", "scene.hraw", "-q", "--set", "UNSUPERVISED_MODE_CONF.StopCriterion=0",
                                         "--set", "UNSUPERVISED_MODE_CONF.FinalRefinement=0"};
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

// Pixels of a PNG as 0xRRGGBB, row-major.
std::vector<uint32_t> readPng(const std::string& file, int& width, int& height) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, file.c_str())) return {};
    image.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) return {};
    width = static_cast<int>(image.width);
    height = static_cast<int>(image.height);
    std::vector<uint32_t> pixels(rgb.size() / 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<uint32_t>(rgb[3 * i] << 16 | rgb[3 * i + 1] << 8 | rgb[3 * i + 2]);
    return pixels;
}

TEST_F(Levels, TreeAsDataAndAsPicture) {
    const Result run =
        segment({"-o", "labels.hraw", "--png", "labels.png", "--report", "report.txt", "--levels",
                 "levels.hraw", "--tree", "tree.json", "--tree-png", "tree.png", "--tree-svg", "tree.svg"},
                {});
    ASSERT_EQ(run.status, 0) << run.err;

    // The JSON: valid, and the same tree as the report.
    const nlohmann::json doc = nlohmann::json::parse(read("tree.json"));
    const dhc::test::JsonSchemaCheck schema(
        nlohmann::json::parse(dhc::test::readFile(DHC_SOURCE_DIR "/docs/tree.schema.json")));
    const std::vector<std::string> problems = schema.problems(doc);
    EXPECT_TRUE(problems.empty()) << problems.front();
    const std::string report = read("report.txt");
    std::vector<int32_t> leaves;
    for (const auto& region : doc["regions"])
        if (region["terminal"].get<bool>()) leaves.push_back(region["label"].get<int32_t>());
    EXPECT_EQ(leaves, listed(report, "Classes"));
    EXPECT_EQ(doc["splitOrder"].get<std::vector<int32_t>>(), listed(report, "SplitOrder"));
    EXPECT_EQ(doc["program"]["version"], DHC_VERSION_TEXT);
    EXPECT_EQ(doc["settings"]["maxNumberOfClasses"], 15);  // the built-in configuration
    const Hraw stack = readHraw("levels.hraw");
    ASSERT_EQ(static_cast<size_t>(stack.bands), doc["cutClasses"].size());
    for (int k = 0; k < stack.bands; ++k)
        EXPECT_EQ(doc["cutClasses"][k].get<size_t>(), distinctLabels(band(stack, k)).size()) << "band " << k;

    // The label map's picture gives the class colours.
    int w = 0, h = 0;
    std::set<uint32_t> classColours;
    for (uint32_t c : readPng(path("labels.png"), w, h))
        if (c != 0) classColours.insert(c);
    ASSERT_EQ(classColours.size(), leaves.size());

    // The tree's picture: besides its own white, black, line grey and inner
    // grey, exactly the class colours, each as one solid square.
    const std::set<uint32_t> own = {0xFFFFFF, 0x000000, 0x5A5A5A, 0xEBEBEB};
    const std::vector<uint32_t> tree = readPng(path("tree.png"), w, h);
    ASSERT_FALSE(tree.empty());
    std::map<uint32_t, std::vector<int>> at;
    for (int i = 0; i < w * h; ++i)
        if (own.count(tree[i]) == 0) at[tree[i]].push_back(i);
    std::set<uint32_t> found;
    for (const auto& [colour, cells] : at) {
        found.insert(colour);
        int x0 = w, x1 = -1, y0 = h, y1 = -1;
        for (int i : cells) {
            x0 = std::min(x0, i % w), x1 = std::max(x1, i % w);
            y0 = std::min(y0, i / w), y1 = std::max(y1, i / w);
        }
        EXPECT_EQ(static_cast<int>(cells.size()), (x1 - x0 + 1) * (y1 - y0 + 1)) << std::hex << colour;
        EXPECT_EQ(x1 - x0, y1 - y0) << std::hex << colour;
        EXPECT_GE(x1 - x0, 6) << std::hex << colour;
    }
    EXPECT_EQ(found, classColours);

    // The SVG: one leaf group per class, filled with its colour.
    const std::string svg = read("tree.svg");
    std::set<uint32_t> svgColours;
    for (size_t at_ = svg.find("<g class=\"leaf\""); at_ != std::string::npos;
         at_ = svg.find("<g class=\"leaf\"", at_ + 1)) {
        unsigned r = 0, g = 0, b = 0;
        const size_t fill = svg.find("fill=\"rgb(", at_);
        ASSERT_EQ(std::sscanf(svg.c_str() + fill, "fill=\"rgb(%u,%u,%u)", &r, &g, &b), 3);
        svgColours.insert(r << 16 | g << 8 | b);
    }
    EXPECT_EQ(svgColours, classColours);
}

}  // namespace
}  // namespace tooltest
