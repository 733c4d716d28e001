#pragma once
// File names handed to the hraw label-map reader, the driver's map writer and
// the ini-file settings reader are copied into a fixed 200-character buffer;
// a longer name is cut, not refused.  Keep this limit: scripts rely on the
// exact file that gets opened.
#include <cstddef>
#include <string>

namespace dhc {

constexpr std::size_t kFileNameLimit = 200;

// The first kFileNameLimit characters of name.
inline std::string cutFileName(const std::string& name) {
    return name.substr(0, kFileNameLimit);
}

}  // namespace dhc
