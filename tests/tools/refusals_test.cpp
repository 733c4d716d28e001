// Inputs refused by the check the tool shares with the MEX module: settings
// outside their ranges, negative ground-truth labels and more children per
// split than pixels.  Each is one line on
// standard error with status 1, before any output file exists.

#include "ToolTest.h"

namespace tooltest {
namespace {

using Args = std::vector<std::string>;

class Refused : public ToolTest {
  protected:
    void SetUp() override {
        ToolTest::SetUp();
        // A 2-band 6 x 6 image whose left half is class 1 and right half class 2.
        Hraw image{2, 6, 6, {}};
        for (int i = 0; i < 72; ++i) image.values.push_back((i % 6 < 3 ? 10 : 90) + (i * 7) % 5);
        writeHraw("img.hraw", image);
    }

    void expectRefused(const Args& extra, const std::string& message) {
        SCOPED_TRACE(message);
        Args args = {"segment", "img.hraw", "-o", "labels.hraw", "-q"};
        args.insert(args.end(), extra.begin(), extra.end());
        const Result run = dhc(args);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, "dhc: " + message + "\n");
        for (const auto& entry : std::filesystem::directory_iterator(dir_))
            EXPECT_EQ(entry.path().string().find("labels.hraw"), std::string::npos) << entry.path();
    }
};

// A supervised run of two classes {1 1}/{0 1} with the given ground truth.
Args supervised(const std::string& classes, const Args& extra) {
    Args args = {"--set", "SEGM_MAIN_CONFIGURATION.SupervisedMode=1",
                 "--set", "SUPERVISED_MODE_CONF.NumberOfClasses=" + classes,
                 "--set", "SUPERVISED_MODE_CONF.StructureLevels={1 1}",
                 "--set", "SUPERVISED_MODE_CONF.StructurePaths={0 1}"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

// Every range is tested at the shared check (tests/frontend); here, that a
// refusal reaches the tool's user naming the override, and that a class count
// the reader would allocate by is refused before the reader runs.
TEST_F(Refused, SettingsOutsideTheirRange) {
    const std::pair<Args, std::string> cases[] = {
        {{"--set", "POTTS_MODEL.Multiplicity=1000000"},
         "--set POTTS_MODEL.Multiplicity=1000000: Multiplicity must be from 2 to 64, not 1000000"},
        {supervised("2000000000", {}),
         "--set SUPERVISED_MODE_CONF.NumberOfClasses=2000000000: NumberOfClasses must be from 1 to 1000000 "
         "(the label space), not 2000000000"},
    };
    for (const auto& [args, message] : cases) expectRefused(args, message);
}

TEST_F(Refused, InputsTheSettingsCannotUse) {
    // Negative labels, with 0 unlabelled: two distinct non-zero labels, as
    // NumberOfClasses says, but one of them negative.
    Hraw gt{1, 6, 6, {}};
    for (int i = 0; i < 36; ++i) gt.values.push_back(i < 6 ? 0 : i % 6 < 3 ? -1 : 2);
    writeHraw("gt.hraw", gt);
    Hraw three{1, 6, 6, std::vector<int32_t>(36, 0)};
    three.values[7] = three.values[8] = three.values[9] = 1;
    writeHraw("three.hraw", three);
    expectRefused(
        supervised("2", {"--gt", "gt.hraw"}),
        "ground truth \"gt.hraw\" holds the negative label -1 in the region of interest; class labels "
        "are positive, 0 marks unlabelled pixels");
    expectRefused({"--mask", "three.hraw", "--set", "POTTS_MODEL.Multiplicity=4"},
                  "--set POTTS_MODEL.Multiplicity=4: Multiplicity (4) exceeds the 3 pixels of the region of "
                  "interest");

    // The same ground truth with 1 in place of -1 runs.
    for (int32_t& v : gt.values)
        if (v < 0) v = 1;
    writeHraw("gt.hraw", gt);
    Args args = {"segment", "img.hraw", "-o", "labels.hraw", "-q"};
    const Args sup = supervised("2", {"--gt", "gt.hraw"});
    args.insert(args.end(), sup.begin(), sup.end());
    EXPECT_EQ(dhc(args).status, 0);
}

}  // namespace
}  // namespace tooltest
