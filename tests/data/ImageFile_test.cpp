#include "data/ImageFile.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "common/TestSupport.h"
#include "data/HrawCheck.h"
#include "data/PaddedMap.h"
#include "data/PaddedMatrix.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// The little-endian int32 bytes of the values, assembled byte by byte.
Bytes leBytes(const std::vector<int32_t>& values) {
    Bytes out;
    for (int32_t v : values)
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<unsigned char>(static_cast<uint32_t>(v) >> (8 * i)));
    return out;
}

void writeInts(const std::string& path, const std::vector<int32_t>& values) {
    const Bytes b = leBytes(values);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
}

std::vector<int> cells(int*** cube, int bands, int rows, int cols) {
    std::vector<int> v;
    for (int b = 0; b < bands; ++b)
        for (int r = 0; r < rows; ++r) v.insert(v.end(), cube[b][r], cube[b][r] + cols);
    return v;
}

TEST(HRaw, ThreeBandRoundTripIs108BandSequentialBytes) {
    const std::string path = dhc::test::tmpPath("img_cube.hraw");
    int*** cube = ImageFile<int>::newCube(3, 2, 4);
    std::vector<int32_t> expected = {3, 2, 4};  // header, then band by band, row-major
    for (int b = 0; b < 3; ++b)
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 4; ++c)
                expected.push_back(cube[b][r][c] = (b + 1) * 100000 - 1000 * r - 7 * c);
    cube[2][1][3] = expected.back() = -1;  // two's complement on disk
    ImageFile<int>::writeHRawInt32(path, cube, 3, 2, 4);
    EXPECT_EQ(fileBytes(path), leBytes(expected));  // 108 bytes

    int bands = 0, rows = 0, cols = 0;
    int*** back = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    ASSERT_EQ(std::make_tuple(bands, rows, cols), std::make_tuple(3, 2, 4));
    EXPECT_EQ(cells(back, 3, 2, 4), cells(cube, 3, 2, 4));
    ImageFile<int>::deleteCube(back, bands, rows);
    ImageFile<int>::deleteCube(cube, 3, 2);
    std::remove(path.c_str());
}

TEST(HRaw, FileTruncatedAfterTheHeaderReadsZeros) {
    const std::string path = dhc::test::tmpPath("img_short.hraw");
    writeInts(path, {2, 3, 2});
    int bands = 0, rows = 0, cols = 0;
    int*** cube = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    EXPECT_EQ(cells(cube, bands, rows, cols), std::vector<int>(12, 0));  // not the -2 marker
    ImageFile<int>::deleteCube(cube, bands, rows);
    std::remove(path.c_str());
}

// The owning reader and the front ends' reader give the same cells and header.
TEST(HRaw, OwningReaderAgreesWithTheRowByRowReader) {
    const std::string path = dhc::test::tmpPath("img_owning.hraw");
    writeInts(path, {2, 2, 3, 1, -2, 3, 4, 5, 6, 7, 8, 9, 10, 11, INT32_MIN});
    int bands = 0, rows = 0, cols = 0;
    int*** rowByRow = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    int b2 = 0, r2 = 0, c2 = 0;
    dhc::Cube<int> owned = ImageFile<int>::readHRaw(path, b2, r2, c2);
    EXPECT_EQ(std::make_tuple(b2, r2, c2), std::make_tuple(bands, rows, cols));
    EXPECT_EQ(std::make_tuple(owned.planeCount(), owned.rowCount(), owned.colCount()), std::make_tuple(2, 2, 3));
    EXPECT_EQ(cells(owned.planes(), 2, 2, 3), cells(rowByRow, 2, 2, 3));
    EXPECT_EQ(owned[1][1][2], INT32_MIN);
    ImageFile<int>::deleteCube(rowByRow, bands, rows);

    // A short file reads zeros past its end; a negative size is passed out as
    // written and reads as nothing.
    writeInts(path, {1, 2, 2, 5});
    dhc::Cube<int> shortFile = ImageFile<int>::readHRaw(path);
    EXPECT_EQ(cells(shortFile.planes(), 1, 2, 2), std::vector<int>({5, 0, 0, 0}));
    writeInts(path, {1, -3, 2});
    const dhc::Cube<int> negative = ImageFile<int>::readHRaw(path, b2, r2, c2);
    EXPECT_EQ(r2, -3);
    EXPECT_EQ(negative.rowCount(), 0);
    std::remove(path.c_str());
}

TEST(HRaw, CheckNamesTheFileAndTheFault) {
    const std::string path = dhc::test::tmpPath("img_check.hraw");
    const struct {
        std::vector<int32_t> header;
        int values;        // int32 values after the header; -1: no file at all
        const char* what;  // empty: accepted
    } cases[] = {
        {{3, 2, 4}, 24, ""},
        {{1, 1, 65535}, 65535, ""},  // the largest side is allowed
        {{3, 2, 4}, 23, "expected 108"},
        {{3, 2, 4}, 25, "size 112 bytes"},
        {{1, 65536, 1}, 0, "over 65535"},
        {{40000, 65535, 65535}, 0, "too many values"},  // the product overflows int
        {{1, 2}, 0, "header too short (8 bytes"},
        {{}, -1, "cannot be opened"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::remove(path.c_str());
        if (c.values >= 0) {
            std::vector<int32_t> file = c.header;
            file.insert(file.end(), c.values, 1);
            writeInts(path, file);
        }
        int bands = 0, rows = 0, cols = 0;
        std::string error;
        const bool accepted = c.what[0] == '\0';
        EXPECT_EQ(checkHrawFile(path, bands, rows, cols, error), accepted);
        if (accepted) {
            EXPECT_EQ(std::vector<int>({bands, rows, cols}), c.header);
        } else {
            EXPECT_NE(error.find(path), std::string::npos) << error;
            EXPECT_NE(error.find(c.what), std::string::npos) << error;
        }
    }
    std::remove(path.c_str());
}

TEST(PaddedPlanes, HRawWritersLeaveTheFrameOut) {
    const std::string path = dhc::test::tmpPath("img_padded.hraw");
    PaddedMap pm(3, 2, 2, 777, 0);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 2; ++c) pm.map[r + 2][c + 2] = 10 * r + c;
    paddedMap2HRaw(path, pm);
    EXPECT_EQ(fileBytes(path), leBytes({1, 3, 2, 0, 1, 10, 11, 20, 21}));  // 12 + 4 * 3 * 2 bytes

    PaddedMatrix dm(1, 2, 2, 9.0, 0.0);
    dm.map[2][2] = 0.5;
    dm.map[2][3] = -2.0;
    paddedMatrix2HRaw(path, dm);
    const Bytes bytes = fileBytes(path);
    ASSERT_EQ(bytes.size(), 24u + 8u * 2u);
    // IEEE-754 1.0, little-endian, then rows 1.0, cols 2.0 and the two cells.
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 8), (Bytes{0, 0, 0, 0, 0, 0, 0xf0, 0x3f}));
    double values[5];
    std::memcpy(values, bytes.data(), sizeof values);
    EXPECT_EQ(std::vector<double>(values, values + 5), (std::vector<double>{1.0, 1.0, 2.0, 0.5, -2.0}));
    std::remove(path.c_str());
}

}  // namespace
