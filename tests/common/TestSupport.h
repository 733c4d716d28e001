#pragma once
// Helpers shared by the test programs.

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace dhc::test {

// A path for a scratch file: in the directory CTest names (DHC_TEST_TMP), else
// the current directory, so runs from the build tree never litter the sources.
inline std::string tmpPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    return std::string(dir != nullptr ? dir : ".") + "/" + name;
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
