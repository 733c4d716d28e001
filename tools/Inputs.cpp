#include "Inputs.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "data/HrawCheck.h"
#include "base/InputError.h"

HrawShape checkHraw(const std::string& path, const std::string& role) {
    // Say why a file does not open (missing, unreadable) in the system's words.
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        throw InputError(kExitInput, "cannot open " + role + " \"" + path + "\": " + std::strerror(errno));
    std::fclose(f);
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw InputError(kExitInput, "cannot open " + role + " \"" + path + "\": it is a directory");
    HrawShape s;
    std::string error;
    if (!checkHrawFile(path, s.bands, s.rows, s.cols, error))
        throw InputError(kExitInput, role + ": " + error);
    return s;
}

HrawShape checkMap(const std::string& path, const std::string& role, const HrawShape& image) {
    const HrawShape s = checkHraw(path, role);
    if (s.rows != image.rows || s.cols != image.cols)
        throw InputError(kExitInput, role + " \"" + path + "\" is " + std::to_string(s.rows) + " x " +
                                         std::to_string(s.cols) + " pixels but the image is " +
                                         std::to_string(image.rows) + " x " + std::to_string(image.cols));
    if (s.bands != 1)
        throw InputError(kExitInput, role + " \"" + path + "\" has " + std::to_string(s.bands) +
                                         " bands; a one-band map is expected");
    return s;
}
