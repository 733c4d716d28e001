// The tree as a product through the tool on the generator's four-class
// scene: --levels and --cut (also with a multiplicity that makes cuts skip
// class counts), --tree against its schema and the report, and the tree
// pictures against the label map's picture.

#include <png.h>

#include <filesystem>

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
    // of a middle band's class count writes that band (which cut is which is
    // the hierarchy's, tested there).  Returns the class counts.
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
        for (int k = 0; k < stack.bands; ++k) counts.push_back(distinctLabels(band(stack, k)).size());
        const int k = stack.bands / 2;
        const Result cut = segment({"-o", "cut.hraw", "--cut", std::to_string(counts[k])}, settings);
        EXPECT_EQ(cut.status, 0) << cut.err;
        EXPECT_EQ(readHraw("cut.hraw").values, band(stack, k)) << "band " << k;
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

    // The SVG: one leaf group per class, filled with its colour (tooltips and
    // the layout are the picture's, tested in tests/hierarchy).
    const std::string svg = read("tree.svg");
    size_t groups = 0;
    std::set<uint32_t> svgColours;
    for (size_t g = svg.find("<g class=\"node "); g != std::string::npos; g = svg.find("<g class=\"node ", g + 1)) {
        ++groups;
        unsigned r = 0, gr = 0, b = 0;
        ASSERT_EQ(std::sscanf(svg.c_str() + svg.find("<rect ", g), "<rect x=\"%*d\" y=\"%*d\" width=\"%*d\" "
                              "height=\"%*d\" fill=\"rgb(%u,%u,%u)", &r, &gr, &b), 3);
        if (svg.compare(g, 20, "<g class=\"node leaf\"") == 0) svgColours.insert(r << 16 | gr << 8 | b);
    }
    EXPECT_EQ(groups, doc["regions"].size());
    EXPECT_EQ(svgColours, classColours);

    // The PNG is the SVG drawn (tests/hierarchy checks the drawing): its size.
    int svgWidth = 0, svgHeight = 0;
    ASSERT_EQ(std::sscanf(svg.c_str() + svg.find(" width="), " width=\"%d\" height=\"%d\"", &svgWidth, &svgHeight), 2);
    ASSERT_FALSE(readPng(path("tree.png"), w, h).empty());
    EXPECT_EQ(w, svgWidth);
    EXPECT_EQ(h, svgHeight);

    // With --relabel the tree also holds the numbering of the classes, still valid.
    const Result relabelled =
        segment({"-o", "classes.hraw", "--relabel", "--tree", "relabelled.json", "--png", "classes.png"}, {});
    ASSERT_EQ(relabelled.status, 0) << relabelled.err;
    const nlohmann::json withMap = nlohmann::json::parse(read("relabelled.json"));
    const std::vector<std::string> relabelProblems = schema.problems(withMap);
    EXPECT_TRUE(relabelProblems.empty()) << relabelProblems.front();
    std::vector<int32_t> sorted = leaves;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(withMap["relabel"]["classes"].get<std::vector<int32_t>>(), sorted);
    EXPECT_EQ(read("classes.png"), read("labels.png"));  // the same colours for the same regions
}

// The page of --html: everything inline, nothing fetched, and the run it
// describes is the one --tree describes.
TEST_F(Levels, HtmlReportIsOneSelfContainedPage) {
    const Result run = segment({"-o", "labels.hraw", "--tree", "tree.json", "--html", "report.html", "--rgb", "1,3,2"},
                               {"UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=5"});
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string page = read("report.html");
    const nlohmann::json doc = nlohmann::json::parse(read("tree.json"));

    EXPECT_NE(page.find("content=\"default-src 'none'; img-src data:;"), std::string::npos);
    for (const char* outside : {"href=", "url(", "@import", "fetch(", "XMLHttpRequest", "<link", "<iframe"})
        EXPECT_EQ(page.find(outside), std::string::npos) << outside;
    for (size_t at = page.find(" src=\""); at != std::string::npos; at = page.find(" src=\"", at + 1))
        EXPECT_EQ(page.compare(at, 26, " src=\"data:image/png;base6"), 0) << page.substr(at, 40);

    const std::string open = "<script type=\"application/json\" id=\"run-data\">";
    const size_t from = page.find(open) + open.size(), to = page.find("</script>", from);
    ASSERT_NE(to, std::string::npos);
    const nlohmann::json data = nlohmann::json::parse(page.substr(from, to - from));
    EXPECT_EQ(data["cutClasses"], doc["cutClasses"]);
    EXPECT_EQ(data["splitOrder"], doc["splitOrder"]);
    EXPECT_EQ(data["settings"], doc["settings"]);
    EXPECT_EQ(data["rgb"], nlohmann::json::array({1, 3, 2}));
    EXPECT_EQ(data["nodes"].size(), doc["regions"].size());
    EXPECT_EQ(data["rows"], 96);
    EXPECT_EQ(data["step"], 1);
    // The tree beside the map is the --tree-svg picture, one group per region.
    size_t groups = 0;
    for (size_t at = page.find("<g class=\"node "); at != std::string::npos; at = page.find("<g class=\"node ", at + 1))
        ++groups;
    EXPECT_EQ(groups, doc["regions"].size());
}

TEST_F(Levels, HtmlOptionsAreChecked) {
    const Result alone = segment({"-o", "labels.hraw", "--rgb", "3,2,1"}, {});
    EXPECT_EQ(alone.status, 2);
    EXPECT_EQ(alone.err, "dhc: --rgb chooses the bands of --html: give --html too\n");
    const Result twoBands = segment({"-o", "labels.hraw", "--html", "r.html", "--rgb", "3,2"}, {});
    EXPECT_EQ(twoBands.status, 2);
    EXPECT_NE(twoBands.err.find("--rgb 3,2: must be three band numbers"), std::string::npos) << twoBands.err;
    // The scene has four bands: a fifth is refused before the run, and nothing is written.
    const Result fifth = segment({"-o", "labels.hraw", "--html", "r.html", "--rgb", "5,2,1"}, {});
    EXPECT_EQ(fifth.status, 1);
    EXPECT_EQ(fifth.err, "dhc: --rgb: band 5 does not exist; the image has 4 bands, numbered from 1\n");
    const Result pieces =
        segment({"-o", "labels.hraw", "--html", "r.html"}, {"UNSUPERVISED_MODE_CONF.Fragmentation=1"});
    EXPECT_EQ(pieces.status, 1);
    EXPECT_EQ(pieces.err.rfind("dhc: --html is not available with Fragmentation=1", 0), 0u) << pieces.err;
    for (const char* name : {"labels.hraw", "r.html"}) EXPECT_FALSE(std::filesystem::exists(path(name))) << name;
}

}  // namespace
}  // namespace tooltest
