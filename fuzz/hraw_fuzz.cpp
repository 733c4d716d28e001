// The hraw checker and reader on arbitrary file bytes: the checker must accept
// exactly the well-formed files and the reader must then return the file's
// values; the unchecked readers must not fault on any small file.

#include <algorithm>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "data/HrawCheck.h"
#include "data/ImageFile.h"
#include "data/PaddedMap.h"
#include "data/PaddedMatrix.h"

using namespace dhc::fuzz;

namespace {

int32_t word(const uint8_t* data, size_t i) {
    int32_t v;
    std::memcpy(&v, data + 4 * i, 4);
    return v;
}

// The unchecked reader takes the header as it is (a short file's header is
// completed with zeros, negative sizes count as 0): only read files whose
// header asks for little memory; a huge header is the checker's to refuse.
bool smallHeader(const uint8_t* data, size_t size) {
    uint8_t header[12] = {0};
    std::memcpy(header, data, size < 12 ? size : 12);
    int64_t s[3];
    for (size_t i = 0; i < 3; ++i) s[i] = std::max<int64_t>(0, word(header, i));
    return s[0] <= (1 << 12) && s[0] * s[1] <= (1 << 12) && s[0] * s[1] * s[2] <= (1 << 16);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    MemFile file(data, size);
    int bands = -1, rows = -1, cols = -1;
    std::string error;
    const bool ok = checkHrawFile(file.path(), bands, rows, cols, error);

    // What the checker promises, judged independently from the bytes.
    bool wellFormed = size >= 12;
    if (wellFormed) {
        const int64_t b = word(data, 0), r = word(data, 1), c = word(data, 2);
        wellFormed = b > 0 && r > 0 && c > 0 && r <= 65535 && c <= 65535 && b * r * c <= INT32_MAX &&
                     static_cast<int64_t>(size) == 12 + 4 * b * r * c;
        if (bands != b || rows != r || cols != c) broken("checker did not return the header");
    }
    if (ok != wellFormed)
        broken("checker verdict " + std::to_string(ok) + " on a file that is " +
               (wellFormed ? "well formed" : "malformed"));
    if (ok != error.empty()) broken("checker error text does not match its verdict");
    if (!ok && error.find(file.path()) == std::string::npos) broken("checker error does not name the file");

    if (!smallHeader(data, size)) return 0;
    int b = 0, r = 0, c = 0;
    int*** cube = ImageFile<int>::readHRawInt32(file.path(), b, r, c);
    if (ok) {
        if (b != bands || r != rows || c != cols) broken("reader header differs from the checker's");
        size_t i = 3;
        for (int k = 0; k < b; ++k)
            for (int y = 0; y < r; ++y)
                for (int x = 0; x < c; ++x, ++i)
                    if (cube[k][y][x] != word(data, i)) broken("reader value differs from the file");
    }
    ImageFile<int>::deleteCube(cube, b, r);

    // The raw readers: a plane of a size derived from the file, padded.
    const int side = size >= 4 ? 1 + data[0] % 16 : 1;
    const int pad = size >= 2 ? data[1] % 3 : 0;
    int** plane = ImageFile<int>::readRawInt32(file.path(), side, side, pad, -1);
    PaddedMap::deletePaddedMapFrame(plane, side, side, pad);
    double** dplane = ImageFile<double>::readRawDouble(file.path(), side, side, pad, 0.0);
    PaddedMatrix::deletePaddedMatrixFrame(dplane, side, side, pad);
    return 0;
}
