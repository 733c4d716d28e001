// What a hostile user tried: degenerate regions under variable multiplicity,
// outputs naming inputs, replaced files losing their mode, names left by a
// killed run, inputs that block or never end, runs too large for the memory.

#include <sys/stat.h>

#include <csignal>
#include <set>

#include "ToolTest.h"

namespace tooltest {
namespace {

using Args = std::vector<std::string>;

// A band-sequential image from a string of digits.
Hraw digits(int bands, int rows, int cols, const std::string& values) {
    Hraw h{bands, rows, cols, {}};
    for (char c : values) h.values.push_back(c - '0');
    return h;
}

// The settings under which a balanced tree splits tiny regions with variable multiplicity.
const Args kDeepVariable = {"--set", "UNSUPERVISED_MODE_CONF.VariableMultiplicity=1",
                            "--set", "UNSUPERVISED_MODE_CONF.BalancedTree=1",
                            "--set", "UNSUPERVISED_MODE_CONF.GrowDepth=4",
                            "-q"};

class Degenerate : public ToolTest {
  protected:
    // Runs the segmentation; it must end well and label every pixel.
    void expectLabelled(const std::string& image, Args extra) {
        Args args = {"segment", image, "-o", "labels.hraw"};
        args.insert(args.end(), kDeepVariable.begin(), kDeepVariable.end());
        args.insert(args.end(), extra.begin(), extra.end());
        const Result run = dhc(args);
        ASSERT_EQ(run.status, 0) << run.err;
        const Hraw labels = readHraw("labels.hraw");
        const Hraw in = readHraw(image);
        ASSERT_EQ(labels.values.size(), static_cast<size_t>(in.rows) * static_cast<size_t>(in.cols));
        for (int32_t v : labels.values) EXPECT_GT(v, 0);
    }
};

// The image that overflowed the Gram-Schmidt completion: its small regions
// have rank-deficient scatter matrices.
TEST_F(Degenerate, TheReportedImageRunsToTheEnd) {
    writeHraw("img.hraw", digits(3, 5, 8,
                                 "1233003301311311220033323113010130113021030111032302123120131210121312331022"
                                 "31101233023113222233002302333023101003233311"));
    writeHraw("init.hraw", digits(1, 5, 8, "2131321323312132333331122332223123233323"));
    for (const char* disconnect : {"1", "0"}) {
        SCOPED_TRACE(disconnect);
        expectLabelled("img.hraw", {"--init", "init.hraw", "--set",
                                    std::string("UNSUPERVISED_MODE_CONF.SplitwiseDisconnect=") + disconnect});
    }
}

TEST_F(Degenerate, EveryKindOfDegenerateRegionRunsToTheEnd) {
    std::vector<std::pair<std::string, Hraw>> images;
    images.push_back({"one pixel", digits(3, 1, 1, "123")});
    images.push_back({"two pixels", digits(3, 1, 2, "123456")});
    images.push_back({"three pixels", digits(3, 1, 3, "102030405")});
    images.push_back({"all equal", Hraw{3, 6, 6, std::vector<int32_t>(108, 5)}});
    Hraw constantBand{3, 6, 6, {}}, collinear{3, 6, 6, {}}, twoLevels{3, 6, 6, {}};
    for (int b = 0; b < 3; ++b)
        for (int i = 0; i < 36; ++i) {
            const int base = (i * 7) % 5;
            constantBand.values.push_back(b == 1 ? 9 : base + b);
            collinear.values.push_back((b + 1) * base);
            twoLevels.values.push_back(i < 18 ? 3 : 3 + 4 * (b == 0));  // spread along one direction only
        }
    images.push_back({"one band constant", constantBand});
    images.push_back({"collinear bands", collinear});
    images.push_back({"one direction", twoLevels});
    for (const auto& [what, image] : images) {
        SCOPED_TRACE(what);
        writeHraw("img.hraw", image);
        for (const char* disconnect : {"1", "0"})
            expectLabelled("img.hraw", {"--set", std::string("UNSUPERVISED_MODE_CONF.SplitwiseDisconnect=") +
                                                     disconnect});
    }
}

class Files : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        writeSmallImage("img.hraw");
        writeHraw("ones.hraw", Hraw{1, 6, 6, std::vector<int32_t>(36, 1)});
        writeHraw("init.hraw", Hraw{1, 6, 6, std::vector<int32_t>(36, 1)});
        write("cfg.ini", "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n");
    }

    mode_t mode(const std::string& name) const {
        struct stat st {};
        ::lstat(path(name).c_str(), &st);
        return st.st_mode & 07777;
    }
};

// Every output option, naming any input or another output, is refused before
// anything is written; the input keeps its bytes.
TEST_F(Files, NoOutputMayBeAnInputOrAnotherOutput) {
    const std::pair<std::string, std::string> inputs[] = {
        {"", "img.hraw"}, {"--config", "cfg.ini"}, {"--mask", "ones.hraw"}, {"--init", "init.hraw"}};
    const char* outputs[] = {"-o", "--report", "--png", "--levels", "--tree", "--tree-png", "--tree-svg", "--html"};
    for (const auto& [inputOption, input] : inputs)
        for (const char* output : outputs) {
            SCOPED_TRACE(std::string(output) + " " + input);
            const std::string before = read(input);
            Args args = {"segment", "img.hraw", "-q"};
            if (!inputOption.empty()) args.insert(args.end(), {inputOption, input});
            if (std::string(output) != "-o") args.insert(args.end(), {"-o", "labels.hraw"});
            args.insert(args.end(), {output, "./" + input});
            const Result run = dhc(args);
            EXPECT_EQ(run.status, 2);
            EXPECT_EQ(run.err, "dhc: output \"./" + input + "\" is the same file as input \"" + input + "\"\n");
            EXPECT_EQ(read(input), before);
        }
    const Result twice = dhc({"segment", "img.hraw", "-o", "labels.hraw", "--levels", "out.bin", "--tree-svg",
                              "./out.bin", "-q"});
    EXPECT_EQ(twice.status, 2);
    EXPECT_EQ(twice.err, "dhc: outputs \"out.bin\" and \"./out.bin\" are the same file\n");
}

// A replaced output keeps its mode; a new one gets the umask's.
TEST_F(Files, AReplacedFileKeepsItsMode) {
    for (const char* name : {"labels.hraw", "report.txt", "labels.tif"}) {
        write(name, "old");
        ::chmod(path(name).c_str(), 0600);
    }
    ::chmod(path("report.txt").c_str(), 0640);
    const Result run =
        dhc({"segment", "img.hraw", "-o", "labels.hraw", "--report", "report.txt", "--png", "new.png", "-q"});
    ASSERT_EQ(run.status, 0) << run.err;
    const Result tif = dhc({"segment", "img.hraw", "-o", "labels.tif", "-q"});
    ASSERT_EQ(tif.status, 0) << tif.err;
    EXPECT_NE(read("labels.hraw"), "old");
    EXPECT_NE(read("report.txt"), "old");
    EXPECT_NE(read("labels.tif"), "old");
    EXPECT_EQ(mode("labels.hraw"), 0600u);
    EXPECT_EQ(mode("report.txt"), 0640u);
    EXPECT_EQ(mode("labels.tif"), 0600u);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(mode("new.png"), 0666u & ~mask);
}

// The GeoTIFF is written in a private directory beside it and renamed into
// place: a link at the target is replaced, not followed, and nothing else stays.
TEST_F(Files, AGdalOutputReplacesALinkAndLeavesNothingElse) {
    write("victim", "keep");
    std::filesystem::create_symlink("victim", path("labels.tif"));
    const std::set<std::string> before = files();
    const Result run = dhc({"segment", "img.hraw", "-o", "labels.tif", "-q"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(read("victim"), "keep");
    EXPECT_FALSE(std::filesystem::is_symlink(path("labels.tif")));
    EXPECT_EQ(read("labels.tif").substr(0, 2), "II");  // a little-endian TIFF
    std::set<std::string> after = files();
    EXPECT_EQ(after, before);
}

// A pipe or a device as an input is refused at once (a FIFO without writer
// would block the open forever, /dev/zero would never end), and so is a
// configuration beyond the bound.
TEST_F(Files, InputsThatBlockOrNeverEndAreRefused) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", path("zero"));
    // Sparse: 16 MiB and one byte of nothing.
    write("huge.ini", "");
    ASSERT_EQ(::truncate(path("huge.ini").c_str(), (16 << 20) + 1), 0);
    const std::pair<Args, std::string> cases[] = {
        {{"segment", "fifo", "-o", "labels.hraw"}, "cannot open image \"fifo\": not a regular file"},
        {{"segment", "img.hraw", "-o", "labels.hraw", "--config", "fifo"},
         "cannot open configuration \"fifo\": not a regular file"},
        {{"segment", "img.hraw", "-o", "labels.hraw", "--mask", "fifo"},
         "cannot open mask \"fifo\": not a regular file"},
        {{"segment", "img.hraw", "-o", "labels.hraw", "--init", "zero"},
         "cannot open initial segmentation \"zero\": not a regular file"},
        {{"segment", "img.hraw", "-o", "labels.hraw", "--config", "zero"},
         "cannot open configuration \"zero\": not a regular file"},
        {{"segment", "img.hraw", "-o", "labels.hraw", "--config", "huge.ini"},
         "configuration \"huge.ini\" is larger than 16777216 bytes (16777217)"},
    };
    for (const auto& [args, message] : cases) {
        SCOPED_TRACE(message);
        // Started apart so that a run blocked in open() fails the test instead of hanging it.
        const pid_t pid = start(args);
        int status = 0;
        pid_t ended = 0;
        for (int i = 0; i < 3000 && (ended = ::waitpid(pid, &status, WNOHANG)) == 0; ++i) ::usleep(10000);
        if (ended == 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            ADD_FAILURE() << "the run blocked";
            continue;
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
        EXPECT_EQ(read(".stderr"), "dhc: " + message + "\n");
        EXPECT_FALSE(std::filesystem::exists(path("labels.hraw")));
    }
}

// An image whose run would need more memory than there is is refused before
// it is read, naming the estimate and the memory available.
TEST_F(Files, ARunLargerThanTheMemoryIsRefusedUpFront) {
    // 30000 x 30000 x 2 int32 values: a sparse file of 7.2 GB with its header.
    const int32_t header[3] = {2, 30000, 30000};
    write("big.hraw", std::string(reinterpret_cast<const char*>(header), sizeof header));
    ASSERT_EQ(::truncate(path("big.hraw").c_str(), 12 + 30000LL * 30000 * 2 * 4), 0);
    const Result run = dhc({"segment", "big.hraw", "-o", "labels.hraw"});
    EXPECT_EQ(run.status, 1);
    // 9e8 pixels of 40 bytes and 2 bands of 8: 50.4 GB, more than this machine has.
    const std::string start =
        "dhc: image \"big.hraw\" is 30000 x 30000 x 2: a run needs about 50400000000 bytes of memory, but ";
    EXPECT_EQ(run.err.rfind(start, 0), 0u) << run.err;
    EXPECT_NE(run.err.find(" bytes are available ("), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1);
    EXPECT_FALSE(std::filesystem::exists(path("labels.hraw")));
}

}  // namespace
}  // namespace tooltest
