// Command-line conventions, `dhc info`, progress lines and the PNG picture.

#include <png.h>

#include <cstdio>
#include <map>
#include <tuple>

#include "ToolTest.h"

namespace tooltest {
namespace {

class Cli : public ToolTest {};

TEST_F(Cli, HelpAndVersion) {
    for (const char* flag : {"--help", "-h", "help"}) {
        const Result run = dhc({flag});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out.rfind("Usage: dhc COMMAND", 0), 0u) << run.out;
        EXPECT_EQ(run.err, "");
    }
    const Result segmentHelp = dhc({"segment", "--help"});
    EXPECT_EQ(segmentHelp.status, 0);
    EXPECT_EQ(segmentHelp.out.rfind("Usage: dhc segment IMAGE.hraw -o LABELS.hraw", 0), 0u);
    EXPECT_EQ(dhc({"info", "-h"}).out.rfind("Usage: dhc info FILE.hraw", 0), 0u);

    for (const char* flag : {"--version", "-V"}) {
        const Result run = dhc({flag});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, std::string("dhc ") + DHC_VERSION_TEXT + "\n");
    }
    // No command: the usage goes to standard error, as a usage error.
    const Result bare = dhc({});
    EXPECT_EQ(bare.status, 2);
    EXPECT_EQ(bare.out, "");
    EXPECT_EQ(bare.err.rfind("Usage: dhc COMMAND", 0), 0u);
}

TEST_F(Cli, InfoPrintsSizesAndRanges) {
    // Band 1 holds -5..7, band 2 holds 100..103.
    writeHraw(path("a.hraw"), Hraw{2, 2, 3, {-5, 0, 7, 1, 2, 3, 100, 101, 102, 103, 100, 101}});
    writeHraw(path("b.hraw"), plane(1, 1, {42}));
    const Result run = dhc({"info", "a.hraw", "b.hraw"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out,
              "file: a.hraw\nbands: 2\nrows: 2\ncols: 3\nmin: -5\nmax: 103\nband 1: -5 7\nband 2: 100 103\n"
              "\n"
              "file: b.hraw\nbands: 1\nrows: 1\ncols: 1\nmin: 42\nmax: 42\nband 1: 42 42\n");
}

TEST_F(Cli, ProgressLinesUnlessQuiet) {
    ASSERT_EQ(makeScene({"-o", "scene.hraw", "--rows", "64", "--cols", "64"}).status, 0);
    const Result loud = dhc({"segment", "scene.hraw", "-o", "a.hraw"});
    ASSERT_EQ(loud.status, 0) << loud.err;
    EXPECT_EQ(loud.err.rfind("dhc: segmenting \"scene.hraw\": 64 x 64, 4 bands, 4096 pixels in the region of "
                             "interest\n",
                             0),
              0u)
        << loud.err;
    EXPECT_NE(loud.err.find("dhc: split region 2, 2 leaves\n"), std::string::npos) << loud.err;
    EXPECT_NE(loud.err.find(" classes in "), std::string::npos) << loud.err;
    EXPECT_EQ(loud.out.find("dhc:"), std::string::npos);  // standard output is the engine's alone

    const Result quiet = dhc({"segment", "scene.hraw", "-o", "b.hraw", "-q"});
    ASSERT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(quiet.out, loud.out);
    EXPECT_EQ(readFile(path("a.hraw")), readFile(path("b.hraw")));
}

// Decodes an 8-bit RGB PNG.
bool readPng(const std::string& file, int& width, int& height, std::vector<unsigned char>& rgb) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, file.c_str())) return false;
    image.format = PNG_FORMAT_RGB;
    rgb.resize(PNG_IMAGE_SIZE(image));
    width = static_cast<int>(image.width);
    height = static_cast<int>(image.height);
    return png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr) != 0;
}

TEST_F(Cli, PngShowsOneColourPerClassAndBlackOutside) {
    ASSERT_EQ(makeScene({"-o", "scene.hraw", "--truth", "truth.hraw", "--rows", "64", "--cols", "48"}).status,
              0);
    // Leave the top rows out of the region of interest.
    std::vector<int32_t> init(64 * 48, 1);
    std::fill(init.begin(), init.begin() + 5 * 48, 0);
    writeHraw(path("init.hraw"), plane(64, 48, init));
    const Result run = dhc({"segment", "scene.hraw", "-o", "labels.hraw", "--init", "init.hraw", "--png",
                            "labels.png", "--quiet"});
    ASSERT_EQ(run.status, 0) << run.err;
    const Hraw labels = readHraw(path("labels.hraw"));
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;
    ASSERT_TRUE(readPng(path("labels.png"), width, height, rgb));
    ASSERT_EQ(width, 48);
    ASSERT_EQ(height, 64);
    // Label -> colour is a function, one-to-one, black exactly for 0.
    std::map<int32_t, std::tuple<int, int, int>> colourOf;
    std::map<std::tuple<int, int, int>, int32_t> labelOf;
    for (size_t i = 0; i < labels.values.size(); ++i) {
        const auto colour = std::make_tuple(rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]);
        const int32_t label = labels.values[i];
        EXPECT_EQ(label == 0, colour == std::make_tuple(0, 0, 0)) << "pixel " << i;
        EXPECT_EQ(colourOf.emplace(label, colour).first->second, colour) << "pixel " << i;
        EXPECT_EQ(labelOf.emplace(colour, label).first->second, label) << "pixel " << i;
    }
    EXPECT_EQ(colourOf.size(), distinctLabels(labels.values).size() + 1);
}

}  // namespace
}  // namespace tooltest
