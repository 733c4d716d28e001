// Command-line conventions, `dhc info`, progress lines and the PNG picture.

#include <png.h>

#include <algorithm>
#include <map>
#include <set>

#include "ToolTest.h"

namespace tooltest {
namespace {

class Cli : public ToolTest {};

TEST_F(Cli, HelpVersionAndInfo) {
    for (const char* flag : {"--help", "-h", "help"}) {
        const Result run = dhc({flag});
        EXPECT_TRUE(run.status == 0 && run.err.empty() && run.out.rfind("Usage: dhc COMMAND", 0) == 0)
            << run.out;
    }
    EXPECT_EQ(dhc({"segment", "--help"}).out.rfind("Usage: dhc segment IMAGE.hraw -o LABELS.hraw", 0), 0u);
    EXPECT_EQ(dhc({"info", "-h"}).out.rfind("Usage: dhc info FILE.hraw", 0), 0u);
    for (const char* flag : {"--version", "-V"})
        EXPECT_EQ(dhc({flag}).out, std::string("dhc ") + DHC_VERSION_TEXT + "\n");
    // No command: the usage goes to standard error, as a usage error.
    const Result bare = dhc({});
    EXPECT_TRUE(bare.status == 2 && bare.out.empty() && bare.err.rfind("Usage: dhc COMMAND", 0) == 0)
        << bare.err;

    // Band 1 holds -5..7, band 2 holds 100..103.
    writeHraw("a.hraw", Hraw{2, 2, 3, {-5, 0, 7, 1, 2, 3, 100, 101, 102, 103, 100, 101}});
    writeHraw("b.hraw", Hraw{1, 1, 1, {42}});
    const Result info = dhc({"info", "a.hraw", "b.hraw"});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(info.out,
              "file: a.hraw\nbands: 2\nrows: 2\ncols: 3\nmin: -5\nmax: 103\nband 1: -5 7\nband 2: 100 103\n"
              "\n"
              "file: b.hraw\nbands: 1\nrows: 1\ncols: 1\nmin: 42\nmax: 42\nband 1: 42 42\n");
}

TEST_F(Cli, ProgressLinesUnlessQuietAndOneColourPerClass) {
    ASSERT_EQ(makeScene({"-o", "scene.hraw", "--rows", "64", "--cols", "48"}).status, 0);
    // The top five rows are left out of the region of interest.
    std::vector<int32_t> init(64 * 48, 1);
    std::fill(init.begin(), init.begin() + 5 * 48, 0);
    writeHraw("init.hraw", Hraw{1, 64, 48, init});
    const Result loud =
        dhc({"segment", "scene.hraw", "--init", "init.hraw", "-o", "a.hraw", "--png", "a.png"});
    const Result quiet = dhc({"segment", "scene.hraw", "--init", "init.hraw", "-o", "b.hraw", "-q"});
    ASSERT_EQ(loud.status, 0) << loud.err;
    const std::string first =
        "dhc: segmenting \"scene.hraw\": 64 x 48, 4 bands, 2832 pixels in the region of interest\n";
    EXPECT_EQ(loud.err.substr(0, first.size()), first);
    EXPECT_NE(loud.err.find("dhc: split region 2, 2 leaves\n"), std::string::npos) << loud.err;
    EXPECT_NE(loud.err.find(" classes in "), std::string::npos) << loud.err;
    EXPECT_EQ(loud.out.find("dhc:"), std::string::npos);  // standard output is the engine's alone
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(quiet.out, loud.out);
    EXPECT_EQ(read("a.hraw"), read("b.hraw"));

    // Label -> colour is a function, one-to-one, black exactly for 0.
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&image, path("a.png").c_str()));
    image.format = PNG_FORMAT_RGB;
    std::vector<unsigned char> rgb(PNG_IMAGE_SIZE(image));
    ASSERT_TRUE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr));
    ASSERT_TRUE(image.width == 48 && image.height == 64);
    const Hraw labels = readHraw("a.hraw");
    std::map<int32_t, uint32_t> colourOf;
    for (size_t i = 0; i < labels.values.size(); ++i) {
        const uint32_t colour = rgb[3 * i] << 16 | rgb[3 * i + 1] << 8 | rgb[3 * i + 2];
        EXPECT_EQ(labels.values[i] == 0, colour == 0) << "pixel " << i;
        EXPECT_EQ(colourOf.emplace(labels.values[i], colour).first->second, colour) << "pixel " << i;
    }
    std::set<uint32_t> colours;
    for (const auto& entry : colourOf) colours.insert(entry.second);
    EXPECT_EQ(colours.size(), colourOf.size());
}

}  // namespace
}  // namespace tooltest
