// Bad input: every row of the README table "What bad input gets".  Each case
// checks the one line on standard error, the exit status, that an existing
// output file keeps its bytes and that no temporary file is left behind.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "ToolTest.h"

namespace tooltest {
namespace {

class BadInput : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        // A valid 2-band 6 x 6 image and an existing label map that must survive.
        Hraw image{2, 6, 6, {}};
        for (int i = 0; i < 72; ++i) image.values.push_back(10 + (i * 7) % 13);
        writeHraw(path("img.hraw"), image);
        writeText("labels.hraw", "precious");
    }

    // Runs dhc and checks the refusal.
    void expectRefused(const std::vector<std::string>& args, const std::string& message, int status) {
        const Result run = dhc(args);
        EXPECT_EQ(run.status, status);
        EXPECT_EQ(run.err, "dhc: " + message + "\n");
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(readFile(path("labels.hraw")), "precious");
        for (const std::string& name : files()) EXPECT_EQ(name.find(".tmp."), std::string::npos) << name;
    }

    std::vector<std::string> segment(std::vector<std::string> extra) {
        std::vector<std::string> args = {"segment", "img.hraw", "-o", "labels.hraw"};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }
};

TEST_F(BadInput, CommandLine) {
    expectRefused(segment({"--bogus"}), "unknown option \"--bogus\" (see dhc --help)", 2);
    expectRefused(segment({"-x"}), "unknown option \"-x\" (see dhc --help)", 2);
    expectRefused({"frobnicate"}, "unknown command \"frobnicate\" (see dhc --help)", 2);
    expectRefused({"segment", "img.hraw"}, "segment: missing -o LABELS.hraw (see dhc segment --help)", 2);
    expectRefused({"segment", "-o", "labels.hraw"}, "segment: missing IMAGE.hraw (see dhc segment --help)",
                  2);
    expectRefused(segment({"img.hraw"}), "segment: unexpected argument \"img.hraw\"", 2);
    expectRefused(segment({"--mask"}), "option \"--mask\" needs a value", 2);
    expectRefused(segment({"--quiet=1"}), "option \"--quiet\" takes no value", 2);
    expectRefused(segment({"--report", "labels.hraw"}), "\"labels.hraw\" is given as more than one output",
                  2);
}

TEST_F(BadInput, MissingOrUnreadableFiles) {
    expectRefused({"segment", "nope.hraw", "-o", "labels.hraw"},
                  "cannot open image \"nope.hraw\": No such file or directory", 1);
    expectRefused(segment({"--mask", "nomask.hraw"}),
                  "cannot open mask \"nomask.hraw\": No such file or directory", 1);
    ASSERT_EQ(::mkdir(path("adir").c_str(), 0755), 0);
    expectRefused({"segment", "adir", "-o", "labels.hraw"}, "cannot open image \"adir\": it is a directory",
                  1);
    expectRefused({"info", "nope.hraw"}, "cannot open file \"nope.hraw\": No such file or directory", 1);
    if (::geteuid() != 0) {  // root reads everything
        ASSERT_EQ(::chmod(path("img.hraw").c_str(), 0), 0);
        expectRefused(segment({}), "cannot open image \"img.hraw\": Permission denied", 1);
    }
}

TEST_F(BadInput, WrongHrawSizes) {
    writeText("short.hraw", "abc");
    expectRefused({"segment", "short.hraw", "-o", "labels.hraw"},
                  "image: hraw file \"short.hraw\": header too short (3 bytes, 12 needed)", 1);
    writeHraw(path("trunc.hraw"), Hraw{3, 2, 4, std::vector<int32_t>(20, 1)});
    expectRefused({"segment", "trunc.hraw", "-o", "labels.hraw"},
                  "image: hraw file \"trunc.hraw\": size 92 bytes, expected 108 for 3 x 2 x 4 int32 values",
                  1);
    writeHraw(path("zero.hraw"), Hraw{1, 0, 5, {}});
    expectRefused({"segment", "zero.hraw", "-o", "labels.hraw"},
                  "image: hraw file \"zero.hraw\": non-positive size in header (bands 1, rows 0, cols 5)", 1);
    writeHraw(path("two.hraw"), Hraw{2, 6, 6, std::vector<int32_t>(72, 1)});
    expectRefused(segment({"--init", "two.hraw"}),
                  "initial segmentation \"two.hraw\" has 2 bands; a one-band map is expected", 1);
}

TEST_F(BadInput, SidesOver65535) {
    // The header alone is refused; the data would not matter.
    writeHraw(path("tall.hraw"), Hraw{1, 70000, 1, {}});
    expectRefused({"segment", "tall.hraw", "-o", "labels.hraw"},
                  "image: hraw file \"tall.hraw\": image side over 65535 (rows 70000, cols 1)", 1);
    writeHraw(path("wide.hraw"), Hraw{1, 1, 65536, {}});
    expectRefused({"info", "wide.hraw"},
                  "file: hraw file \"wide.hraw\": image side over 65535 (rows 1, cols 65536)", 1);
}

TEST_F(BadInput, ImagesOfDifferentSizes) {
    writeHraw(path("mask.hraw"), plane(5, 6, std::vector<int32_t>(30, 1)));
    expectRefused(segment({"--mask", "mask.hraw"}),
                  "mask \"mask.hraw\" is 5 x 6 pixels but the image is 6 x 6", 1);
    writeHraw(path("gt.hraw"), plane(6, 7, std::vector<int32_t>(42, 1)));
    expectRefused(segment({"--gt", "gt.hraw"}),
                  "ground truth \"gt.hraw\" is 6 x 7 pixels but the image is 6 x 6", 1);
}

TEST_F(BadInput, MalformedConfiguration) {
    writeText("cfg.ini",
              "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[UNSUPERVISED_MODE_CONF]\n"
              "SplitGainThreshold=0.3\nMaxNumberOfClasses=eight\n\n[POTTS_MODEL]\nMultiplicity=2\n");
    expectRefused(segment({"--config", "cfg.ini"}),
                  "cfg.ini:6: MaxNumberOfClasses must be an integer, not \"eight\"", 1);
    writeText("cfg2.ini",
              "[SEGM_MAIN_CONFIGURATION]\r\nSupervisedMode=0\r\n\r\n[POTTS_MODEL]\r\n"
              "Multiplicity=2\r\nBetaMax=1.5x\r\n");
    expectRefused(segment({"--config", "cfg2.ini"}), "cfg2.ini:6: BetaMax must be a number, not \"1.5x\"", 1);
    writeText("cfg3.ini", "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=yes\n");
    expectRefused(segment({"--config", "cfg3.ini"}), "cfg3.ini:2: SupervisedMode must be 0 or 1, not \"yes\"",
                  1);
    writeText("cfg4.ini", "[POTTS_MODEL]\nMultiplicity=2\n");
    expectRefused(segment({"--config", "cfg4.ini"}), "cfg4.ini: no [SEGM_MAIN_CONFIGURATION] section", 1);
    expectRefused(segment({"--config", "none.ini"}),
                  "cannot open configuration \"none.ini\": No such file or directory", 1);
}

TEST_F(BadInput, SettingsThatCannotRun) {
    expectRefused(segment({"--set", "POTTS_MODEL.Multiplicity=1"}),
                  "--set POTTS_MODEL.Multiplicity=1: Multiplicity must be at least 2 (children per split)",
                  1);
    expectRefused(
        segment({"--set", "UNSUPERVISED_MODE_CONF.Blind=1", "--set", "UNSUPERVISED_MODE_CONF.Metric=9"}),
        "--set UNSUPERVISED_MODE_CONF.Metric=9: Metric must be 0 to 8", 1);
    expectRefused(segment({"--set", "POTTS_MODEL.BetaMin=2"}),
                  "--set POTTS_MODEL.BetaMin=2: BetaMin must not exceed BetaMax (1.5)", 1);
    const std::vector<std::string> supervised = {"--set", "SEGM_MAIN_CONFIGURATION.SupervisedMode=1", "--set",
                                                 "SUPERVISED_MODE_CONF.NumberOfClasses=2"};
    auto with = [&](std::vector<std::string> extra) {
        std::vector<std::string> args = segment(supervised);
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    };
    expectRefused(with({"--set", "SUPERVISED_MODE_CONF.StructureLevels={1}"}),
                  "--set SUPERVISED_MODE_CONF.StructureLevels={1}: StructureLevels must list 2 path lengths "
                  "(NumberOfClasses)",
                  1);
    expectRefused(
        with({"--set", "SUPERVISED_MODE_CONF.StructureLevels={1 1}", "--set",
              "SUPERVISED_MODE_CONF.StructurePaths={0 2}"}),
        "--set SUPERVISED_MODE_CONF.StructurePaths={0 2}: path entry 2 skips a child index (paths must "
        "number children 0, 1, 2, ...)",
        1);
    expectRefused(
        with({"--set", "SUPERVISED_MODE_CONF.StructureLevels={1 2}", "--set",
              "SUPERVISED_MODE_CONF.StructurePaths={0 0 1}"}),
        "--set SUPERVISED_MODE_CONF.StructurePaths={0 0 1}: class path 1 is a prefix of class path 2", 1);
}

TEST_F(BadInput, Overrides) {
    expectRefused(segment({"--set", "POTTS_MODEL.BetaMax"}),
                  "--set \"POTTS_MODEL.BetaMax\": expected SECTION.Key=value", 2);
    expectRefused(segment({"--set", "POTTS_MODEL.Beta=1"}),
                  "--set \"POTTS_MODEL.Beta=1\": unknown setting POTTS_MODEL.Beta", 2);
    expectRefused(segment({"--set", "POTTS_MODEL.BetaMax=abc"}),
                  "--set POTTS_MODEL.BetaMax=abc: BetaMax must be a number, not \"abc\"", 2);
}

TEST_F(BadInput, InputsTheModeDoesNotUse) {
    writeHraw(path("gt.hraw"), plane(6, 6, std::vector<int32_t>(36, 1)));
    expectRefused(segment({"--gt", "gt.hraw"}),
                  "--gt is used only in supervised mode (set SEGM_MAIN_CONFIGURATION.SupervisedMode=1)", 1);
    const std::vector<std::string> supervised = {"--set", "SEGM_MAIN_CONFIGURATION.SupervisedMode=1",
                                                 "--set", "SUPERVISED_MODE_CONF.NumberOfClasses=2",
                                                 "--set", "SUPERVISED_MODE_CONF.StructureLevels={1 1}",
                                                 "--set", "SUPERVISED_MODE_CONF.StructurePaths={0 1}"};
    expectRefused(segment(supervised),
                  "supervised mode (SupervisedMode=1) needs a ground truth: --gt GT.hraw", 1);
    std::vector<std::string> withGt = segment(supervised);
    withGt.insert(withGt.end(), {"--gt", "gt.hraw"});
    expectRefused(
        withGt,
        "ground truth \"gt.hraw\" holds 1 class (distinct non-zero labels) in the region of interest, "
        "but NumberOfClasses is 2",
        1);
    expectRefused(segment({"--set", "UNSUPERVISED_MODE_CONF.Fragmentation=1", "--report", "r.txt"}),
                  "--report is not available with Fragmentation=1 or SplitwiseDisconnect=1", 1);
    expectRefused(segment({"--fragments", "f.hraw"}),
                  "--fragments needs Fragmentation=1 and SplitwiseDisconnect=0", 1);
}

TEST_F(BadInput, EmptyRegionOfInterest) {
    writeHraw(path("zeros.hraw"), plane(6, 6, std::vector<int32_t>(36, 0)));
    expectRefused(segment({"--init", "zeros.hraw"}),
                  "the region of interest is empty: no pixel has a positive initial label", 1);
    writeHraw(path("twos.hraw"), plane(6, 6, std::vector<int32_t>(36, 2)));
    expectRefused(segment({"--mask", "twos.hraw"}), "the region of interest is empty: no mask value is 1", 1);
}

TEST_F(BadInput, OutputThatCannotBeWritten) {
    expectRefused({"segment", "img.hraw", "-o", "nodir/labels.hraw"},
                  "cannot write \"nodir/labels.hraw\": No such file or directory", 1);
    ASSERT_EQ(::mkdir(path("outdir").c_str(), 0755), 0);
    expectRefused(segment({"--report", "outdir"}), "cannot write \"outdir\": it is a directory", 1);
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
    for (int i = 0; i < 20000 && !fileExists(temporary); ++i) ::usleep(100);
    ASSERT_TRUE(fileExists(temporary));
    ::kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(readFile(path("labels.hraw")), "precious");
    EXPECT_FALSE(fileExists(temporary));
}

}  // namespace
}  // namespace tooltest
