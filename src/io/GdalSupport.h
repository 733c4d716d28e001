#pragma once
// What the GDAL readers and writers of this directory share; not for outside it.

#include <cpl_error.h>
#include <gdal_priv.h>

#include <cctype>
#include <memory>
#include <string>

namespace dhc::io::detail {

inline std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

inline std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

inline bool endsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// GDAL's messages are collected, not printed: the front ends say one line.
class QuietGdal {
  public:
    QuietGdal() {
        GDALAllRegister();
        CPLPushErrorHandler(CPLQuietErrorHandler);
        CPLErrorReset();
    }
    ~QuietGdal() { CPLPopErrorHandler(); }
    QuietGdal(const QuietGdal&) = delete;
    QuietGdal& operator=(const QuietGdal&) = delete;
    // GDAL's last message, or `otherwise` when it said nothing.
    static std::string lastError(const std::string& otherwise = "not a raster GDAL can read") {
        // One line: GDAL's own line breaks and runs of spaces become one space.
        std::string m;
        for (const char* c = CPLGetLastErrorMsg(); *c != '\0'; ++c) {
            const char ch = *c == '\n' ? ' ' : *c;
            if (ch != ' ' || (!m.empty() && m.back() != ' ')) m += ch;
        }
        while (!m.empty() && (m.back() == ' ' || m.back() == '.')) m.pop_back();
        return m.empty() ? otherwise : m;
    }
};

struct DatasetCloser {
    void operator()(GDALDataset* d) const { GDALClose(d); }
};
using Dataset = std::unique_ptr<GDALDataset, DatasetCloser>;

// Whether path names a file of one of GDAL's virtual file systems
// (/vsizip/, /vsimem/, /vsicurl/, ...), which only GDAL can open.
inline bool isVirtual(const std::string& path) {
    return path.rfind("/vsi", 0) == 0;
}

}  // namespace dhc::io::detail
