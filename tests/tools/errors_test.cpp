// Bad input: every row of the README table "What bad input gets".  Each case
// checks the one line on standard error, the exit status, that an existing
// output file keeps its bytes and that no temporary file is left behind.

#include <csignal>

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

// A supervised run of two classes with the given class structure.
Args supervised(const std::string& levels, const std::string& paths, const Args& extra = {}) {
    Args args = segment({"--set", "SEGM_MAIN_CONFIGURATION.SupervisedMode=1", "--set",
                         "SUPERVISED_MODE_CONF.NumberOfClasses=2", "--set",
                         "SUPERVISED_MODE_CONF.StructureLevels=" + levels, "--set",
                         "SUPERVISED_MODE_CONF.StructurePaths=" + paths});
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

TEST_F(BadInput, EveryRowOfTheReadmeTable) {
    writeHraw("trunc.hraw", Hraw{3, 2, 4, std::vector<int32_t>(20, 1)});
    writeHraw("tall.hraw", Hraw{1, 70000, 1, {}});  // the header alone is refused
    writeHraw("mask.hraw", Hraw{1, 5, 6, std::vector<int32_t>(30, 1)});
    writeHraw("two.hraw", Hraw{2, 6, 6, std::vector<int32_t>(72, 1)});
    writeHraw("ones.hraw", Hraw{1, 6, 6, std::vector<int32_t>(36, 1)});
    writeHraw("zeros.hraw", Hraw{1, 6, 6, std::vector<int32_t>(36, 0)});
    // CRLF line ends: the line number and the value are those of the text.
    write("int.ini",
          "[SEGM_MAIN_CONFIGURATION]\r\nSupervisedMode=0\r\n\r\n[UNSUPERVISED_MODE_CONF]\r\n"
          "SplitGainThreshold=0.3\r\nMaxNumberOfClasses=eight\r\n");
    write("nomain.ini", "[POTTS_MODEL]\nMultiplicity=2\n");

    // One case per row of the README table, in its order: bad command lines
    // (status 2), then bad input (status 1).
    const std::pair<Args, std::string> usage[] = {
        {segment({"--bogus"}), "unknown option \"--bogus\" (see dhc --help)"},
        {{"frobnicate"}, "unknown command \"frobnicate\" (see dhc --help)"},
        {{"segment", "img.hraw"}, "segment: missing -o LABELS.hraw (see dhc segment --help)"},
        {segment({"--mask"}), "option \"--mask\" needs a value"},
        {segment({"--report", "labels.hraw"}), "\"labels.hraw\" is given as more than one output"},
        {segment({"--set", "POTTS_MODEL.BetaMax"}),
         "--set \"POTTS_MODEL.BetaMax\": expected SECTION.Key=value"},
        {segment({"--set", "POTTS_MODEL.Beta=1"}),
         "--set \"POTTS_MODEL.Beta=1\": unknown setting POTTS_MODEL.Beta"},
        {segment({"--set", "POTTS_MODEL.BetaMax=abc"}),
         "--set POTTS_MODEL.BetaMax=abc: BetaMax must be a number, not \"abc\""},
    };
    const std::pair<Args, std::string> input[] = {
        {{"segment", "nope.hraw", "-o", "labels.hraw"},
         "cannot open image \"nope.hraw\": No such file or directory"},
        {{"segment", "trunc.hraw", "-o", "labels.hraw"},
         "image: hraw file \"trunc.hraw\": size 92 bytes, expected 108 for 3 x 2 x 4 int32 values"},
        {{"segment", "tall.hraw", "-o", "labels.hraw"},
         "image: hraw file \"tall.hraw\": image side over 65535 (rows 70000, cols 1)"},
        {segment({"--mask", "mask.hraw"}), "mask \"mask.hraw\" is 5 x 6 pixels but the image is 6 x 6"},
        {segment({"--init", "two.hraw"}),
         "initial segmentation \"two.hraw\" has 2 bands; a one-band map is expected"},
        {segment({"--config", "none.ini"}),
         "cannot open configuration \"none.ini\": No such file or directory"},
        {segment({"--config", "int.ini"}), "int.ini:6: MaxNumberOfClasses must be an integer, not \"eight\""},
        {segment({"--config", "nomain.ini"}), "nomain.ini: no [SEGM_MAIN_CONFIGURATION] section"},
        {segment({"--set", "POTTS_MODEL.Multiplicity=1"}),
         "--set POTTS_MODEL.Multiplicity=1: Multiplicity must be at least 2 (children per split)"},
        {supervised("{1 2}", "{0 0 1}"),
         "--set SUPERVISED_MODE_CONF.StructurePaths={0 0 1}: class path 1 is a prefix of class path 2"},
        {supervised("{1 1}", "{0 1}"),
         "supervised mode (SupervisedMode=1) needs a ground truth: --gt GT.hraw"},
        {supervised("{1 1}", "{0 1}", {"--gt", "ones.hraw"}),
         "ground truth \"ones.hraw\" holds 1 class (distinct non-zero labels) in the region of interest, but "
         "NumberOfClasses is 2"},
        {segment({"--set", "UNSUPERVISED_MODE_CONF.Fragmentation=1", "--report", "r.txt"}),
         "--report is not available with Fragmentation=1 or SplitwiseDisconnect=1"},
        {segment({"--init", "zeros.hraw"}),
         "the region of interest is empty: no pixel has a positive initial label"},
        {{"segment", "img.hraw", "-o", "nodir/labels.hraw"},
         "cannot write \"nodir/labels.hraw\": No such file or directory"},
    };
    for (const auto& [args, message] : usage) expectRefused(args, message, 2);
    for (const auto& [args, message] : input) expectRefused(args, message, 1);
}

// The reader separates list items by spaces and tabs only: "{0 1 2 \r 3}" reads
// as {0 1 2 0}, a class structure the check never saw (found by the ini_check
// fuzz target).  The check refuses such a list, naming its line.
TEST_F(BadInput, ListItemsSeparatedByOtherWhiteSpaceAreRefused) {
    Hraw gt{1, 6, 6, {}};
    for (int i = 0; i < 36; ++i) gt.values.push_back(1 + (i / 3) % 4);
    writeHraw("gt.hraw", gt);
    for (const char* paths : {"{0 1 2 \r 3}", "{0 1 2\v3}", "{0 1\f2 3}"}) {
        SCOPED_TRACE(paths);
        write("cr.ini",
              "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n[SUPERVISED_MODE_CONF]\nNumberOfClasses=4\n"
              "StructureLevels={1 1 1 1}\nStructurePaths=" +
                  std::string(paths) + "\n");
        const Result run = dhc(segment({"--config", "cr.ini", "--gt", "gt.hraw"}));
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err.rfind("dhc: cr.ini:7: ", 0), 0u) << run.err;
        EXPECT_EQ(read("labels.hraw"), "precious");
    }
    // Blanks and tabs still separate items.
    write("tab.ini",
          "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n[SUPERVISED_MODE_CONF]\nNumberOfClasses=2\n"
          "StructureLevels={1\t1}\nStructurePaths={0 \t 1}\n");
    const Result tab = dhc(segment({"--config", "tab.ini", "--gt", "gt.hraw"}));
    EXPECT_EQ(tab.status, 1);
    EXPECT_NE(tab.err.find("holds 4 classes"), std::string::npos) << tab.err;
}

// An interrupted run removes its temporary files and leaves the old output.
TEST_F(BadInput, InterruptedRunLeavesNothing) {
    ASSERT_EQ(dhc({"-o", "big.hraw", "--rows", "512", "--cols", "512"}, DHC_SCENE_PATH).status, 0);
    const pid_t pid = start({"segment", "big.hraw", "-o", "labels.hraw", "-q"});
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
