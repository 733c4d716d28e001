#pragma once
// Helpers of the end-to-end tests: run the built programs in a scratch
// directory, and read and write hraw files with a few lines of independent
// code (the tests do not trust the library's own readers to check its output).

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tooltest {

// Result of one program run.
struct Result {
    int status = -1;  // exit status, or 128 + signal
    std::string out;  // standard output
    std::string err;  // standard error
};

// A hraw file in memory: band-sequential int32 values.
struct Hraw {
    int bands = 0, rows = 0, cols = 0;
    std::vector<int32_t> values;
    int32_t at(int b, int r, int c) const {
        return values[(static_cast<size_t>(b) * rows + r) * static_cast<size_t>(cols) + c];
    }
};

// Each test gets a fresh directory, removed afterwards.
class ToolTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Path of a file in the scratch directory.
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    // Runs `dhc` / `dhc-make-scene` with the arguments (in the scratch directory).
    Result dhc(const std::vector<std::string>& args) const;
    Result makeScene(const std::vector<std::string>& args) const;
    // Writes a text file in the scratch directory and returns its path.
    std::string writeText(const std::string& name, const std::string& text) const;
    // Names of the files in the scratch directory.
    std::vector<std::string> files() const;

    std::string dir_;
};

std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
void writeHraw(const std::string& path, const Hraw& image);
Hraw readHraw(const std::string& path);
// A one-band map from a rows x cols row-major vector.
Hraw plane(int rows, int cols, const std::vector<int32_t>& values);

// Fraction of pixels (over those where `where` is non-zero, or all when
// where is empty) on which the labels agree with the truth after the best
// one-to-one matching of label values.
double matchedAgreement(const std::vector<int32_t>& labels, const std::vector<int32_t>& truth,
                        const std::vector<int32_t>& where = {});
// Distinct non-zero values.
std::vector<int32_t> distinctLabels(const std::vector<int32_t>& labels);

// One parsed "[NEW WORKSPACE]" block of a text report.
struct WorkspaceBlock {
    int label = 0;
    std::vector<int> path, children, offspring;
    int area = 0;
    bool split = false, terminal = false;
};
// The workspace blocks of a report, in file order.
std::vector<WorkspaceBlock> parseReport(const std::string& text);

}  // namespace tooltest
