#include "data/ImageFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "data/PaddedMap.h"
#include "data/PaddedMatrix.h"

namespace {

std::string tempPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    std::string base = dir != nullptr ? std::string(dir) + "/" : ::testing::TempDir();
    return base + "img_" + std::to_string(::getpid()) + "_" + name;
}

std::vector<unsigned char> fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

void writeBytes(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// The little-endian int32 at byte offset off, assembled byte by byte.
int32_t leInt(const std::vector<unsigned char>& b, size_t off) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | b[off + i];
    return static_cast<int32_t>(v);
}

std::vector<unsigned char> leBytes(const std::vector<int32_t>& values) {
    std::vector<unsigned char> out;
    for (int32_t v : values)
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<unsigned char>(static_cast<uint32_t>(v) >> (8 * i)));
    return out;
}

int value(int b, int r, int c) {
    return (b + 1) * 100000 - 1000 * r - c * 7 - 3;
}

TEST(HRaw, ThreeBandRoundTripIs108BandSequentialBytes) {
    const std::string path = tempPath("cube.hraw");
    int*** cube = ImageFile<int>::newCube(3, 2, 4);
    for (int b = 0; b < 3; ++b)
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 4; ++c) cube[b][r][c] = value(b, r, c);
    cube[2][1][3] = -1;  // two's complement on disk
    ImageFile<int>::writeHRawInt32(path, cube, 3, 2, 4);

    const std::vector<unsigned char> bytes = fileBytes(path);
    ASSERT_EQ(bytes.size(), 108u);
    EXPECT_EQ(std::vector<unsigned char>(bytes.begin(), bytes.begin() + 4),
              (std::vector<unsigned char>{3, 0, 0, 0}));
    EXPECT_EQ(leInt(bytes, 4), 2);
    EXPECT_EQ(leInt(bytes, 8), 4);
    for (int b = 0; b < 3; ++b)
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 4; ++c)
                EXPECT_EQ(leInt(bytes, 12 + 4 * ((b * 2 + r) * 4 + c)), cube[b][r][c]) << b << r << c;
    EXPECT_EQ(std::vector<unsigned char>(bytes.end() - 4, bytes.end()),
              (std::vector<unsigned char>{0xff, 0xff, 0xff, 0xff}));

    int bands = 0, rows = 0, cols = 0;
    int*** back = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    ASSERT_EQ(bands, 3);
    ASSERT_EQ(rows, 2);
    ASSERT_EQ(cols, 4);
    for (int b = 0; b < 3; ++b)
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 4; ++c) EXPECT_EQ(back[b][r][c], cube[b][r][c]);
    ImageFile<int>::deleteCube(back, bands, rows);
    ImageFile<int>::deleteCube(cube, 3, 2);
    std::remove(path.c_str());
}

TEST(HRaw, SingleBandWriterWritesOnePlane) {
    const std::string path = tempPath("plane.hraw");
    int rowA[3] = {1, 2, 3}, rowB[3] = {4, 5, -6};
    int* plane[2] = {rowA, rowB};
    ImageFile<int>::writeHRawInt32(path, plane, 2, 3);
    EXPECT_EQ(fileBytes(path), leBytes({1, 2, 3, 1, 2, 3, 4, 5, -6}));
    std::remove(path.c_str());
}

TEST(HRaw, ShortAndOddFilesReadWithoutChecks) {
    const std::string path = tempPath("short.hraw");
    int bands = -7, rows = -7, cols = -7;

    // Truncated right after the header: every cell reads 0.
    writeBytes(path, leBytes({2, 3, 2}));
    int*** cube = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    EXPECT_EQ(bands, 2);
    EXPECT_EQ(rows, 3);
    EXPECT_EQ(cols, 2);
    for (int b = 0; b < 2; ++b)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 2; ++c) EXPECT_EQ(cube[b][r][c], 0);
    ImageFile<int>::deleteCube(cube, bands, rows);

    // Truncated inside the data: what is there is read in file order, the rest is 0.
    writeBytes(path, leBytes({1, 2, 2, 9, 8, 7}));
    cube = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    EXPECT_EQ(cube[0][0][0], 9);
    EXPECT_EQ(cube[0][0][1], 8);
    EXPECT_EQ(cube[0][1][0], 7);
    EXPECT_EQ(cube[0][1][1], 0);
    ImageFile<int>::deleteCube(cube, bands, rows);

    // rows = 0: bands empty planes, nothing read.
    writeBytes(path, leBytes({2, 0, 5, 1, 1}));
    cube = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    EXPECT_EQ(bands, 2);
    EXPECT_EQ(rows, 0);
    EXPECT_EQ(cols, 5);
    ASSERT_NE(cube, nullptr);
    ImageFile<int>::deleteCube(cube, bands, rows);

    // A missing file is not an error here: an empty cube with sizes 0.
    std::remove(path.c_str());
    cube = ImageFile<int>::readHRawInt32(path, bands, rows, cols);
    EXPECT_EQ(bands, 0);
    EXPECT_EQ(rows, 0);
    EXPECT_EQ(cols, 0);
    ImageFile<int>::deleteCube(cube, bands, rows);
}

TEST(PaddedPlanes, FrameAndCopies) {
    int** m = PaddedMap::createPaddedMapFrame(2, 3, 2, -1, 5);
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 7; ++c) {
            const bool inner = r >= 2 && r < 4 && c >= 2 && c < 5;
            EXPECT_EQ(m[r][c], inner ? 5 : -1) << r << "," << c;
        }
    PaddedMap pm(m, 2, 3, 2, -1);
    pm.map[3][4] = 42;  // inner (1, 2)

    int pad = 1;  // non-zero: keep the padding
    int** padded = pm.getMap(pad);
    EXPECT_EQ(pad, 2);
    EXPECT_EQ(padded[0][0], -1);
    EXPECT_EQ(padded[5][6], -1);
    EXPECT_EQ(padded[2][2], 5);
    EXPECT_EQ(padded[3][4], 42);
    padded[3][4] = 0;  // a copy, not a view
    EXPECT_EQ(pm.map[3][4], 42);
    PaddedMap::deletePaddedMapFrame(padded, 2, 3, 2);

    pad = 0;
    int** bare = pm.getMap(pad);
    EXPECT_EQ(pad, 0);
    EXPECT_EQ(bare[0][0], 5);
    EXPECT_EQ(bare[1][2], 42);
    PaddedMap::deletePaddedMapFrame(bare, 2, 3, 0);

    PaddedMatrix dm(2, 2, 1, -0.5, 0.25);
    dm.map[2][1] = 3.5;  // inner (1, 0)
    pad = 3;
    double** dpad = dm.getMatrix(pad);
    EXPECT_EQ(pad, 1);
    EXPECT_DOUBLE_EQ(dpad[0][3], -0.5);
    EXPECT_DOUBLE_EQ(dpad[1][1], 0.25);
    EXPECT_DOUBLE_EQ(dpad[2][1], 3.5);
    PaddedMatrix::deletePaddedMatrixFrame(dpad, 2, 2, 1);
}

TEST(PaddedPlanes, HRawWritersLeaveTheFrameOut) {
    const std::string path = tempPath("padded.hraw");
    PaddedMap pm(3, 2, 2, 777, 0);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 2; ++c) pm.map[r + 2][c + 2] = 10 * r + c;
    paddedMap2HRaw(path, pm);
    EXPECT_EQ(fileBytes(path), leBytes({1, 3, 2, 0, 1, 10, 11, 20, 21}));  // 12 + 4 * 3 * 2 bytes

    PaddedMatrix dm(1, 2, 2, 9.0, 0.0);
    dm.map[2][2] = 0.5;
    dm.map[2][3] = -2.0;
    paddedMatrix2HRaw(path, dm);
    const std::vector<unsigned char> bytes = fileBytes(path);
    ASSERT_EQ(bytes.size(), 24u + 8u * 2u);
    // IEEE-754 1.0, little-endian: 00 00 00 00 00 00 f0 3f.
    EXPECT_EQ(std::vector<unsigned char>(bytes.begin(), bytes.begin() + 8),
              (std::vector<unsigned char>{0, 0, 0, 0, 0, 0, 0xf0, 0x3f}));
    double header[5];
    std::memcpy(header, bytes.data(), sizeof header);
    EXPECT_EQ(header[1], 1.0);  // rows
    EXPECT_EQ(header[2], 2.0);  // cols
    EXPECT_EQ(header[3], 0.5);
    EXPECT_EQ(header[4], -2.0);
    std::remove(path.c_str());
}

TEST(Raw, PaddedRoundTripsAndShortFiles) {
    const std::string path = tempPath("plane.raw");
    writeBytes(path, leBytes({1, 2, 3, 4, 5, 6}));
    int** m = ImageFile<int>::readRawInt32(path, 2, 3, 1, -5);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 5; ++c) {
            const bool inner = r >= 1 && r < 3 && c >= 1 && c < 4;
            EXPECT_EQ(m[r][c], inner ? 1 + 3 * (r - 1) + (c - 1) : -5) << r << "," << c;
        }
    m[2][3] = -8;
    const std::string out = tempPath("plane_out.raw");
    ImageFile<int>::writeRawInt32(out, m, 2, 3, 1);
    EXPECT_EQ(fileBytes(out), leBytes({1, 2, 3, 4, 5, -8}));
    PaddedMap::deletePaddedMapFrame(m, 2, 3, 1);

    // Short raw file: the missing elements read as 0, the frame keeps its value.
    writeBytes(path, leBytes({7}));
    m = ImageFile<int>::readRawInt32(path, 1, 2, 1, 3);
    EXPECT_EQ(m[1][1], 7);
    EXPECT_EQ(m[1][2], 0);
    EXPECT_EQ(m[0][0], 3);
    PaddedMap::deletePaddedMapFrame(m, 1, 2, 1);

    double** d = PaddedMatrix::createPaddedMatrixFrame(2, 2, 2, 0.0, 0.0);
    d[2][2] = 1.5;
    d[2][3] = -0.25;
    d[3][2] = 1e300;
    d[3][3] = 3.0;
    ImageFile<double>::writeRawDouble(out, d, 2, 2, 2);
    EXPECT_EQ(fileBytes(out).size(), 32u);
    double** back = ImageFile<double>::readRawDouble(out, 2, 2, 0, -1.0);
    EXPECT_EQ(back[0][0], 1.5);
    EXPECT_EQ(back[0][1], -0.25);
    EXPECT_EQ(back[1][0], 1e300);
    EXPECT_EQ(back[1][1], 3.0);
    PaddedMatrix::deletePaddedMatrixFrame(back, 2, 2, 0);
    PaddedMatrix::deletePaddedMatrixFrame(d, 2, 2, 2);
    std::remove(path.c_str());
    std::remove(out.c_str());
}

}  // namespace
