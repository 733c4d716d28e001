#include "data/HrawCheck.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::string tempPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    std::string base = dir != nullptr ? std::string(dir) + "/" : ::testing::TempDir();
    return base + "chk_" + std::to_string(::getpid()) + "_" + name;
}

// Header (bands, rows, cols) followed by extraInts int32 values.
void writeHraw(const std::string& path, int32_t bands, int32_t rows, int32_t cols, int64_t extraInts) {
    std::ofstream out(path, std::ios::binary);
    const int32_t header[3] = {bands, rows, cols};
    out.write(reinterpret_cast<const char*>(header), sizeof header);
    const std::vector<int32_t> data(static_cast<size_t>(extraInts), 1);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(4 * extraInts));
}

struct Check {
    bool ok;
    int bands = 0, rows = 0, cols = 0;
    std::string error;
    explicit Check(const std::string& path) { ok = checkHrawFile(path, bands, rows, cols, error); }
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(HrawCheck, AcceptsAWellFormedFile) {
    const std::string path = tempPath("good.hraw");
    writeHraw(path, 3, 2, 4, 24);
    Check c(path);
    EXPECT_TRUE(c.ok) << c.error;
    EXPECT_EQ(c.bands, 3);
    EXPECT_EQ(c.rows, 2);
    EXPECT_EQ(c.cols, 4);
    EXPECT_TRUE(c.error.empty());
    std::remove(path.c_str());
}

TEST(HrawCheck, NamesTheFileAndTheFault) {
    const std::string path = tempPath("bad.hraw");
    struct Case {
        int32_t bands, rows, cols;
        int64_t ints;
        const char* what;
    };
    const Case cases[] = {
        {3, 2, 4, 23, "expected 108"},    // one value short
        {3, 2, 4, 25, "size 112 bytes"},  // one value too many
        {1, 0, 4, 0, "non-positive"},    {-1, 2, 2, 4, "non-positive"},
        {1, 3, -2, 6, "non-positive"},   {1, 65536, 1, 0, "over 65535"},
        {1, 1, 70000, 0, "over 65535"},  {40000, 65535, 65535, 0, "too many values"},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        writeHraw(path, k.bands, k.rows, k.cols, k.ints);
        Check c(path);
        EXPECT_FALSE(c.ok);
        EXPECT_TRUE(contains(c.error, path)) << c.error;
        EXPECT_TRUE(contains(c.error, k.what)) << c.error;
    }
    // The largest side is allowed.
    writeHraw(path, 1, 1, 65535, 65535);
    EXPECT_TRUE(Check(path).ok);

    std::ofstream(path, std::ios::binary) << "12345";
    Check shortHeader(path);
    EXPECT_FALSE(shortHeader.ok);
    EXPECT_TRUE(contains(shortHeader.error, "header too short (5 bytes")) << shortHeader.error;

    std::remove(path.c_str());
    Check missing(path);
    EXPECT_FALSE(missing.ok);
    EXPECT_TRUE(contains(missing.error, path));
    EXPECT_TRUE(contains(missing.error, "cannot be opened")) << missing.error;
}

}  // namespace
