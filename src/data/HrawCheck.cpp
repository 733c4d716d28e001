#include "data/HrawCheck.h"

#include <cstdint>
#include <fstream>
#include <sstream>

#include "data/xy.h"

namespace {
constexpr int64_t kHeaderBytes = 12;
}  // namespace

bool checkHrawFile(const std::string& path, int& bands, int& rows, int& cols, std::string& error) {
    std::ostringstream msg;
    msg << "hraw file \"" << path << "\": ";
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        error = msg.str() + "cannot be opened (missing or unreadable)";
        return false;
    }
    const int64_t size = static_cast<int64_t>(in.tellg());
    if (size < kHeaderBytes) {
        msg << "header too short (" << size << " bytes, 12 needed)";
        error = msg.str();
        return false;
    }
    int32_t header[3];
    in.seekg(0);
    in.read(reinterpret_cast<char*>(header), sizeof header);
    if (!in) {
        error = msg.str() + "header cannot be read";
        return false;
    }
    bands = header[0];
    rows = header[1];
    cols = header[2];
    if (bands <= 0 || rows <= 0 || cols <= 0) {
        msg << "non-positive size in header (bands " << bands << ", rows " << rows << ", cols " << cols
            << ")";
        error = msg.str();
        return false;
    }
    if (rows > kMaxImageSide || cols > kMaxImageSide) {
        msg << "image side over " << kMaxImageSide << " (rows " << rows << ", cols " << cols << ")";
        error = msg.str();
        return false;
    }
    // rows, cols <= 65535 and bands < 2^31 keep these products within int64.
    const int64_t values = static_cast<int64_t>(bands) * rows * cols;
    if (values > INT32_MAX) {
        msg << "too many values (" << bands << " x " << rows << " x " << cols << " exceeds " << INT32_MAX
            << ")";
        error = msg.str();
        return false;
    }
    const int64_t expected = kHeaderBytes + 4 * static_cast<int64_t>(bands) * rows * cols;
    if (size != expected) {
        msg << "size " << size << " bytes, expected " << expected << " for " << bands << " x " << rows
            << " x " << cols << " int32 values";
        error = msg.str();
        return false;
    }
    error.clear();
    return true;
}
