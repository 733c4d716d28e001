// Bad input: every row of the README table "What bad input gets".  Each case
// checks the one line on standard error, the exit status, that an existing
// output file keeps its bytes and that no temporary file is left behind.

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <set>

#include "ToolTest.h"

namespace tooltest {
namespace {

using Args = std::vector<std::string>;

class BadInput : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        // A valid 2-band 6 x 6 image and an existing label map that must survive.
        writeSmallImage("img.hraw");
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
            EXPECT_EQ(entry.path().string().find(".tmp"), std::string::npos) << entry.path();
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
    // Devices are reached through links in the scratch directory, so that a
    // faulty tool could never replace the machine's own nodes.
    std::filesystem::create_symlink("/dev/full", path("full"));
    write("nomain.ini", "[POTTS_MODEL]\nMultiplicity=2\n");
    // The reader skips the one character after '=': here the blank, so "{1" would read as 0.
    write("blank.ini",
          "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n[SUPERVISED_MODE_CONF]\nNumberOfClasses=2\n"
          "StructureLevels= {1 1}\nStructurePaths={0 1}\n");
    write("key.ini", "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[POTTS_MODEL]\nMultiplicity =4\n");
    // The reader's lines end at a NUL: this would run with Multiplicity=0.
    write("nul.ini",
          std::string("[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[POTTS_MODEL]\nMultiplicity=\0"
                      "4\n",
                      72));

    // One case per row of the README table, in its order: bad command lines
    // (status 2), then bad input (status 1).
    const std::pair<Args, std::string> usage[] = {
        {segment({"--bogus"}), "unknown option \"--bogus\" (see dhc --help)"},
        {{"frobnicate"}, "unknown command \"frobnicate\" (see dhc --help)"},
        {{"segment", "img.hraw"}, "segment: missing -o LABELS.hraw (see dhc segment --help)"},
        {segment({"--mask"}), "option \"--mask\" needs a value"},
        {segment({"--cut", "0"}), "option \"--cut\" needs a number of classes from 1 to 1000000, not \"0\""},
        {segment({"--report", "labels.hraw"}), "\"labels.hraw\" is given as more than one output"},
        {segment({"--png", "./labels.hraw"}),
         "outputs \"labels.hraw\" and \"./labels.hraw\" are the same file"},
        {segment({"--fragments", "../" + std::filesystem::path(dir_).filename().string() + "/img.hraw"}),
         "output \"../" + std::filesystem::path(dir_).filename().string() +
             "/img.hraw\" is the same file as input \"img.hraw\""},
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
        {segment({"--config", "blank.ini"}),
         "blank.ini:6: StructureLevels must be a list in braces with '{' directly after '=', not \" {1 1}\""},
        {segment({"--config", "key.ini"}),
         "key.ini:5: blank around the key Multiplicity (write Multiplicity=value)"},
        {segment({"--config", "nul.ini"}), "nul.ini:5: control character (byte 0x00) in the line"},
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
        {segment({"--set", "UNSUPERVISED_MODE_CONF.SplitwiseDisconnect=1", "--levels", "l.hraw"}),
         "--levels is not available with Fragmentation=1 or SplitwiseDisconnect=1: the tree does not "
         "describe "
         "the final map"},
        {segment({"--quiet", "--cut", "2"}),
         "--cut 2: no cut of the tree has 2 classes (nothing was split: the only cut has 1 class)"},
        {segment({"--init", "zeros.hraw"}),
         "the region of interest is empty: no pixel has a positive initial label"},
        {{"segment", "img.hraw", "-o", "nodir/labels.hraw"},
         "cannot write \"nodir/labels.hraw\": No such file or directory"},
        {segment({"--report", "full", "-q"}), "cannot write \"full\": No space left on device"},
    };
    for (const auto& [args, message] : usage) expectRefused(args, message, 2);
    for (const auto& [args, message] : input) expectRefused(args, message, 1);
}

class AbnormalEnd : public BadInput {
  protected:
    void SetUp() override {
        BadInput::SetUp();
        // No core files from the signals that dump one.
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_CORE, &none);
        ASSERT_EQ(dhc({"-o", "big.hraw", "--rows", "512", "--cols", "512"}, DHC_SCENE_PATH).status, 0);
        write("labels.tif", "precious");
    }

    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_))
            names.insert(entry.path().filename().string());
        return names;
    }

    // Starts `dhc segment big.hraw -o labels.tif --levels fifo -q` through
    // `sh -c "PREFIX exec dhc ..."` (exec keeps the process id) and waits until
    // it stops in the write of the levels: the GeoTIFF is then written in its
    // private temporary directory and the run cannot end by itself.
    pid_t startRun(const std::string& prefix = "") {
        fifo_ = openFifo("fifo");
        EXPECT_GE(fifo_, 0);
        before_ = files();
        const pid_t pid = start(
            {"-c", prefix + "exec " DHC_TOOL_PATH " segment big.hraw -o labels.tif --levels fifo -q"}, "/bin/sh");
        EXPECT_TRUE(waitUntilPipeFull(fifo_, pid));
        return pid;
    }

    // The names the run added to the directory (its temporary directory).
    std::set<std::string> added() const {
        std::set<std::string> now = files(), extra;
        for (const std::string& name : now)
            if (!before_.count(name) && name != ".stdout" && name != ".stderr") extra.insert(name);
        return extra;
    }

    void TearDown() override {
        if (fifo_ >= 0) ::close(fifo_);
        BadInput::TearDown();
    }

    int fifo_ = -1;
    std::set<std::string> before_;
};

// An interrupted, killed or aborted run (an assertion or a crash ends in one of
// these signals) removes its temporary files, leaves the old output and ends by
// the signal it got.
TEST_F(AbnormalEnd, EverySignalRemovesTheTemporaryFiles) {
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS, SIGFPE}) {
        SCOPED_TRACE(strsignal(sig));
        const pid_t pid = startRun();
        ASSERT_GT(pid, 0);
        const std::set<std::string> temporary = added();
        ASSERT_EQ(temporary.size(), 1u);
        EXPECT_EQ(temporary.begin()->rfind("labels.tif.tmp-", 0), 0u) << *temporary.begin();
        ::kill(pid, sig);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
        EXPECT_EQ(read("labels.tif"), "precious");
        EXPECT_EQ(added(), std::set<std::string>());
        ::close(fifo_);
        fifo_ = -1;
        std::filesystem::remove(path("fifo"));
    }
}

// A run killed without a chance to clean up (SIGKILL, the OOM killer) leaves
// at most its temporary directory, under a name no later run can meet; the
// hraw outputs are unnamed until they are complete and leave nothing.
TEST_F(AbnormalEnd, AKilledRunLeavesNothingALaterRunMeets) {
    const pid_t pid = startRun();
    ASSERT_GT(pid, 0);
    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(added().size(), 1u);
    const Result again = dhc({"segment", "big.hraw", "-o", "labels.tif", "--report", "r.txt", "-q"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(read("labels.tif"), "precious");
}

// Under nohup (SIGHUP inherited as ignored) a hang-up does not end the run.
TEST_F(AbnormalEnd, AnIgnoredHangUpStaysIgnored) {
    const pid_t pid = startRun("trap '' HUP; ");
    ASSERT_GT(pid, 0);
    ::kill(pid, SIGHUP);
    // The run goes on: it finishes once the levels are read.
    std::string levels;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fifo_, buffer, sizeof buffer);
        if (n > 0) levels.append(buffer, static_cast<size_t>(n));
        if (n == 0) break;
        if (n < 0) ::usleep(1000);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(read("labels.tif"), "precious");
    EXPECT_GT(levels.size(), 12u + 512u * 512u * 4u);
    EXPECT_EQ(added(), std::set<std::string>());
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


// A run that would not fit the address-space limit is refused before it
// starts: one line naming the estimate and the limit, status 1, nothing left.
TEST_F(AbnormalEnd, ARunBeyondTheAddressSpaceLimitIsRefusedBeforeItStarts) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer needs more address space than the limit allows";
#endif
    // The run takes about 300 MB; the program with the GDAL libraries it
    // loads maps about 350 MB before it starts, which leaves about 220 MB.
    ASSERT_EQ(dhc({"-o", "huge.hraw", "--rows", "2048", "--cols", "2048"}, DHC_SCENE_PATH).status, 0);
    const std::set<std::string> before = files();
    const pid_t pid = start(
        {"-c", "ulimit -v 560000; exec " DHC_TOOL_PATH " segment huge.hraw -o labels.hraw -q"}, "/bin/sh");
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    const std::string err = read(".stderr");
    // 2048 x 2048 pixels of 40 bytes and 4 bands of 8.
    EXPECT_EQ(err.rfind("dhc: image \"huge.hraw\" is 2048 x 2048 x 4: a run needs about 301989888 bytes of "
                        "memory, but ",
                        0),
              0u)
        << err;
    EXPECT_NE(err.find(" bytes are available (the address-space limit (ulimit -v))\n"), std::string::npos) << err;
    EXPECT_EQ(read("labels.hraw"), "precious");
    std::set<std::string> after = files();
    after.erase(".stdout");
    after.erase(".stderr");
    EXPECT_EQ(after, before);
}

// A link planted under any name a run might take is neither followed nor
// removed, and does not stop the run: a temporary name is random (here the
// name a run with this process id took before, NAME.tmp.PID).
TEST_F(BadInput, APlantedTemporaryIsNeitherFollowedNorInTheWay) {
    write("victim", "keep");
    const pid_t pid = start({"-c", "ln -s victim labels.hraw.tmp.$$ && exec " DHC_TOOL_PATH
                                   " segment img.hraw -o labels.hraw -q"},
                            "/bin/sh");
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    const std::string temporary = "labels.hraw.tmp." + std::to_string(pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << read(".stderr");
    EXPECT_EQ(read("victim"), "keep");
    EXPECT_EQ(readHraw("labels.hraw").rows, 6);
    EXPECT_TRUE(std::filesystem::is_symlink(path(temporary)));
}

// A device is written in place, never replaced by a regular file; the same
// bytes reach it as a regular output gets.
TEST_F(BadInput, ADeviceOutputIsWrittenInPlace) {
    ASSERT_EQ(dhc(segment({"-q", "--report", "r.txt"})).status, 0);
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    // The reading end is open before the run (the report fits in the pipe's buffer).
    const int reader = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    // A link to the device, not the device itself: a faulty tool would replace the link.
    std::filesystem::create_symlink("/dev/null", path("null"));
    const Result run = dhc({"segment", "img.hraw", "-o", "null", "--report", "fifo", "-q"});
    std::string received;
    char buffer[4096];
    for (ssize_t n; (n = ::read(reader, buffer, sizeof buffer)) > 0;)
        received.append(buffer, static_cast<size_t>(n));
    ::close(reader);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(std::filesystem::is_symlink(path("null")));
    EXPECT_TRUE(std::filesystem::is_fifo(path("fifo")));
    EXPECT_EQ(received, read("r.txt"));
    EXPECT_NE(read("r.txt"), "");
}

}  // namespace
}  // namespace tooltest
