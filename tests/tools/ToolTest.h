#pragma once
// Helpers of the end-to-end tests: run the built programs in a scratch
// directory, and read and write hraw files with a few lines of independent
// code (the tests do not trust the library's own readers to check its output).

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tooltest {

struct Result {
    int status = -1;  // exit status, or 128 + signal
    std::string out, err;
};

// A hraw file in memory: band-sequential int32 values.
struct Hraw {
    int bands = 0, rows = 0, cols = 0;
    std::vector<int32_t> values;
};

// Each test gets a fresh directory, removed afterwards unless the test
// failed; the programs run in it and file names are relative to it.
class ToolTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    Result dhc(const std::vector<std::string>& args) const;
    Result makeScene(const std::vector<std::string>& args) const;
    std::string read(const std::string& name) const;
    void write(const std::string& name, const std::string& bytes) const;
    Hraw readHraw(const std::string& name) const;
    void writeHraw(const std::string& name, const Hraw& image) const;

    std::string dir_;
};

std::string readFile(const std::string& path);
// Fraction of pixels (where `where` is non-zero, or all) whose truth is the
// most frequent truth of their label, each truth value serving one label.
double matchedAgreement(const std::vector<int32_t>& labels, const std::vector<int32_t>& truth,
                        const std::vector<int32_t>& where = {});
// Distinct non-zero values.
std::vector<int32_t> distinctLabels(const std::vector<int32_t>& labels);
// Number of 8-connected pieces of equal non-zero value in a one-band map.
int pieces(const Hraw& map);
// The numbers of the first "KEY = [ ... ];" line of a report.
std::vector<int32_t> listed(const std::string& report, const std::string& key);

}  // namespace tooltest
