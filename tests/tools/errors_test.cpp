// Bad input: every row of the README table "What bad input gets".  Each case
// checks the one line on standard error, the exit status, that an existing
// output file keeps its bytes and that no temporary file is left behind.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "ToolTest.h"

namespace tooltest {
namespace {

using Args = std::vector<std::string>;

class BadInput : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        // A valid 2-band 6 x 6 image and an existing label map that must survive.
        Hraw image{2, 6, 6, {}};
        for (int i = 0; i < 72; ++i) image.values.push_back(10 + (i * 7) % 13);
        writeHraw("img.hraw", image);
        write("labels.hraw", "precious");
    }

    void expectRefused(const Args& args, const std::string& message, int status) {
        SCOPED_TRACE(message);
        const Result run = dhc(args);
        EXPECT_EQ(run.status, status);
        EXPECT_EQ(run.err, "dhc: " + message + "\n");
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(read("labels.hraw"), "precious");
        for (const auto& entry : std::filesystem::directory_iterator(dir_))
            EXPECT_EQ(entry.path().string().find(".tmp."), std::string::npos) << entry.path();
    }
};

// dhc segment img.hraw -o labels.hraw, then the given arguments.
Args segment(const Args& extra) {
    Args args = {"segment", "img.hraw", "-o", "labels.hraw"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

// dhc segment IMAGE -o labels.hraw
Args on(const std::string& image) {
    return {"segment", image, "-o", "labels.hraw"};
}

// A supervised run of two classes with the given class structure.
Args supervised(const std::string& levels, const std::string& paths, const Args& extra = {}) {
    Args args = segment({"--set", "SEGM_MAIN_CONFIGURATION.SupervisedMode=1", "--set",
                         "SUPERVISED_MODE_CONF.NumberOfClasses=2", "--set",
                         "SUPERVISED_MODE_CONF.StructureLevels=" + levels});
    if (!paths.empty()) args.insert(args.end(), {"--set", "SUPERVISED_MODE_CONF.StructurePaths=" + paths});
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

TEST_F(BadInput, EveryRowOfTheReadmeTable) {
    auto map6 = [](int32_t value) { return Hraw{1, 6, 6, std::vector<int32_t>(36, value)}; };
    write("short.hraw", "abc");
    writeHraw("trunc.hraw", Hraw{3, 2, 4, std::vector<int32_t>(20, 1)});
    writeHraw("zero.hraw", Hraw{1, 0, 5, {}});
    writeHraw("tall.hraw", Hraw{1, 70000, 1, {}});  // the header alone is refused
    writeHraw("mask.hraw", Hraw{1, 5, 6, std::vector<int32_t>(30, 1)});
    writeHraw("two.hraw", Hraw{2, 6, 6, std::vector<int32_t>(72, 1)});
    writeHraw("ones.hraw", map6(1));
    writeHraw("zeros.hraw", map6(0));
    writeHraw("twos.hraw", map6(2));
    write("int.ini",
          "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[UNSUPERVISED_MODE_CONF]\n"
          "SplitGainThreshold=0.3\nMaxNumberOfClasses=eight\n");
    write("flag.ini", "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=yes\n");
    write("real.ini",
          "[SEGM_MAIN_CONFIGURATION]\r\nSupervisedMode=0\r\n\r\n[POTTS_MODEL]\r\nBetaMax=1.5x\r\n");
    write("nomain.ini", "[POTTS_MODEL]\nMultiplicity=2\n");
    ASSERT_EQ(::mkdir(path("adir").c_str(), 0755), 0);

    // The README's rows in its order, each with its message and the variants
    // it names: bad command lines (status 2), then bad input (status 1).
    const std::pair<Args, std::string> usage[] = {
        {segment({"--bogus"}), "unknown option \"--bogus\" (see dhc --help)"},
        {{"frobnicate"}, "unknown command \"frobnicate\" (see dhc --help)"},
        {{"segment", "img.hraw"}, "segment: missing -o LABELS.hraw (see dhc segment --help)"},
        {{"segment", "-o", "labels.hraw"}, "segment: missing IMAGE.hraw (see dhc segment --help)"},
        {segment({"img.hraw"}), "segment: unexpected argument \"img.hraw\""},
        {segment({"--mask"}), "option \"--mask\" needs a value"},
        {segment({"--quiet=1"}), "option \"--quiet\" takes no value"},
        {segment({"--report", "labels.hraw"}), "\"labels.hraw\" is given as more than one output"},
        {segment({"--set", "POTTS_MODEL.BetaMax"}),
         "--set \"POTTS_MODEL.BetaMax\": expected SECTION.Key=value"},
        {segment({"--set", "POTTS_MODEL.Beta=1"}),
         "--set \"POTTS_MODEL.Beta=1\": unknown setting POTTS_MODEL.Beta"},
        {segment({"--set", "POTTS_MODEL.BetaMax=abc"}),
         "--set POTTS_MODEL.BetaMax=abc: BetaMax must be a number, not \"abc\""},
    };
    const std::pair<Args, std::string> input[] = {
        {on("nope.hraw"), "cannot open image \"nope.hraw\": No such file or directory"},
        {on("adir"), "cannot open image \"adir\": it is a directory"},
        {on("trunc.hraw"),
         "image: hraw file \"trunc.hraw\": size 92 bytes, expected 108 for 3 x 2 x 4 int32 values"},
        {on("short.hraw"), "image: hraw file \"short.hraw\": header too short (3 bytes, 12 needed)"},
        {on("zero.hraw"),
         "image: hraw file \"zero.hraw\": non-positive size in header (bands 1, rows 0, cols 5)"},
        {on("tall.hraw"), "image: hraw file \"tall.hraw\": image side over 65535 (rows 70000, cols 1)"},
        {segment({"--mask", "mask.hraw"}), "mask \"mask.hraw\" is 5 x 6 pixels but the image is 6 x 6"},
        {segment({"--init", "two.hraw"}),
         "initial segmentation \"two.hraw\" has 2 bands; a one-band map is expected"},
        {segment({"--config", "none.ini"}),
         "cannot open configuration \"none.ini\": No such file or directory"},
        {segment({"--config", "int.ini"}), "int.ini:6: MaxNumberOfClasses must be an integer, not \"eight\""},
        {segment({"--config", "flag.ini"}), "flag.ini:2: SupervisedMode must be 0 or 1, not \"yes\""},
        {segment({"--config", "real.ini"}), "real.ini:5: BetaMax must be a number, not \"1.5x\""},
        {segment({"--config", "nomain.ini"}), "nomain.ini: no [SEGM_MAIN_CONFIGURATION] section"},
        {segment({"--set", "POTTS_MODEL.Multiplicity=1"}),
         "--set POTTS_MODEL.Multiplicity=1: Multiplicity must be at least 2 (children per split)"},
        {segment({"--set", "UNSUPERVISED_MODE_CONF.Blind=1", "--set", "UNSUPERVISED_MODE_CONF.Metric=9"}),
         "--set UNSUPERVISED_MODE_CONF.Metric=9: Metric must be 0 to 8"},
        {segment({"--set", "POTTS_MODEL.BetaMin=2"}),
         "--set POTTS_MODEL.BetaMin=2: BetaMin must not exceed BetaMax (1.5)"},
        {supervised("{1}", ""),
         "--set SUPERVISED_MODE_CONF.StructureLevels={1}: StructureLevels must list 2 path lengths "
         "(NumberOfClasses)"},
        {supervised("{1 1}", "{0 2}"),
         "--set SUPERVISED_MODE_CONF.StructurePaths={0 2}: path entry 2 skips a child index (paths must "
         "number "
         "children 0, 1, 2, ...)"},
        {supervised("{1 2}", "{0 0 1}"),
         "--set SUPERVISED_MODE_CONF.StructurePaths={0 0 1}: class path 1 is a prefix of class path 2"},
        {supervised("{1 1}", "{0 1}"),
         "supervised mode (SupervisedMode=1) needs a ground truth: --gt GT.hraw"},
        {segment({"--gt", "ones.hraw"}),
         "--gt is used only in supervised mode (set SEGM_MAIN_CONFIGURATION.SupervisedMode=1)"},
        {supervised("{1 1}", "{0 1}", {"--gt", "ones.hraw"}),
         "ground truth \"ones.hraw\" holds 1 class (distinct non-zero labels) in the region of interest, but "
         "NumberOfClasses is 2"},
        {segment({"--set", "UNSUPERVISED_MODE_CONF.Fragmentation=1", "--report", "r.txt"}),
         "--report is not available with Fragmentation=1 or SplitwiseDisconnect=1"},
        {segment({"--fragments", "f.hraw"}), "--fragments needs Fragmentation=1 and SplitwiseDisconnect=0"},
        {segment({"--init", "zeros.hraw"}),
         "the region of interest is empty: no pixel has a positive initial label"},
        {segment({"--mask", "twos.hraw"}), "the region of interest is empty: no mask value is 1"},
        {{"segment", "img.hraw", "-o", "nodir/labels.hraw"},
         "cannot write \"nodir/labels.hraw\": No such file or directory"},
        {segment({"--report", "adir"}), "cannot write \"adir\": it is a directory"},
    };
    for (const auto& [args, message] : usage) expectRefused(args, message, 2);
    for (const auto& [args, message] : input) expectRefused(args, message, 1);
    if (::geteuid() != 0) {  // root reads everything
        ASSERT_EQ(::chmod(path("img.hraw").c_str(), 0), 0);
        expectRefused(segment({}), "cannot open image \"img.hraw\": Permission denied", 1);
    }
}

// An interrupted run removes its temporary files and leaves the old output.
TEST_F(BadInput, InterruptedRunLeavesNothing) {
    ASSERT_EQ(makeScene({"-o", "big.hraw", "--rows", "512", "--cols", "512"}).status, 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::chdir(dir_.c_str()) != 0) ::_exit(127);
        ::execl(DHC_TOOL_PATH, "dhc", "segment", "big.hraw", "-o", "labels.hraw", "-q",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ASSERT_GT(pid, 0);
    // The temporary file exists from before the run to its end.
    const std::string temporary = path("labels.hraw.tmp." + std::to_string(pid));
    for (int i = 0; i < 20000 && !std::filesystem::exists(temporary); ++i) ::usleep(100);
    ASSERT_TRUE(std::filesystem::exists(temporary));
    ::kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(read("labels.hraw"), "precious");
    EXPECT_FALSE(std::filesystem::exists(temporary));
}

}  // namespace
}  // namespace tooltest
