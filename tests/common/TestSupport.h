#pragma once
// Helpers shared by the test programs.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace dhc::test {

// The directory of the scratch files: the one CTest names (DHC_TEST_TMP), else
// a private directory made once under TMPDIR (or /tmp) and removed when the
// process that made it ends, so a test program run by hand from any directory
// never litters it.
inline const std::string& scratchDirectory() {
    static const std::string dir = [] {
        if (const char* given = std::getenv("DHC_TEST_TMP")) return std::string(given);
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/dhc-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        static const pid_t owner = ::getpid();
        static const std::string made = pattern;
        // Death tests end their children through exit(): only the maker removes it.
        std::atexit([] {
            if (::getpid() == owner) std::filesystem::remove_all(made);
        });
        return pattern;
    }();
    return dir;
}

// A path for a scratch file in scratchDirectory().
inline std::string tmpPath(const std::string& name) {
    return scratchDirectory() + "/" + name;
}

// The whole content of a file, byte for byte (empty when it cannot be read).
inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// Writes text as given (so CRLF endings survive) to a scratch file; returns its path.
inline std::string writeScratch(const std::string& name, const std::string& text) {
    const std::string path = tmpPath(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

// The text with every line end turned into CRLF.
inline std::string crlf(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return out;
}

}  // namespace dhc::test
