// Help, version and `dhc info`.

#include "ToolTest.h"

namespace tooltest {
namespace {

class Cli : public ToolTest {};

TEST_F(Cli, HelpVersionAndInfo) {
    EXPECT_EQ(dhc({"segment", "--help"}).out.rfind("Usage: dhc segment IMAGE -o LABELS", 0), 0u);
    EXPECT_EQ(dhc({"--version"}).out, std::string("dhc ") + DHC_VERSION_TEXT + "\n");
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

}  // namespace
}  // namespace tooltest
