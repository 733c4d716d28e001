// dhc: the command-line front end of the hierarchical segmenter.
//
//   dhc segment IMAGE -o LABELS [options]      (hraw, or rasters through GDAL)
//   dhc apply IMAGE --model MODEL -o LABELS [options]
//   dhc info FILE...
//
// Every problem with the user's input is one line on standard error and a
// non-zero exit status, before any output file is touched (InputError).

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "Apply.h"
#include "CommandLine.h"
#include "Inputs.h"
#include "OutputFiles.h"
#include "Segment.h"
#include "base/InputError.h"
#include "io/Raster.h"
#include "settings/Fatal.h"

#ifndef DHC_VERSION
#define DHC_VERSION "unknown"
#endif

namespace {

// A fatal condition inside the library ends the process; the temporary
// outputs go first, then the library's own message and status.
void fatalHandler(int status, const std::string& message, dhc::FatalChannel channel) {
    OutputFiles::removeAllTemporaries();
    dhc::defaultFatalHandler(status, message, channel);
}

// Prints the header sizes and the value range of one hraw file, streaming its
// values so that large images need little memory.
void printInfo(const std::string& path) {
    const HrawShape s = checkHraw(path, "file");
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        throw InputError(kExitInput, "cannot open file \"" + path + "\": " + std::strerror(errno));
    std::fseek(f, 12, SEEK_SET);
    const size_t plane = static_cast<size_t>(s.rows) * static_cast<size_t>(s.cols);
    std::vector<int32_t> buffer(std::min<size_t>(plane, size_t{1} << 20));
    std::vector<int32_t> lo(static_cast<size_t>(s.bands), INT32_MAX),
        hi(static_cast<size_t>(s.bands), INT32_MIN);
    for (int b = 0; b < s.bands; ++b) {
        for (size_t done = 0; done < plane;) {
            const size_t n = std::min(buffer.size(), plane - done);
            if (std::fread(buffer.data(), sizeof(int32_t), n, f) != n) {
                std::fclose(f);
                throw InputError(kExitInput, "cannot read file \"" + path + "\"");
            }
            for (size_t i = 0; i < n; ++i) {
                lo[static_cast<size_t>(b)] = std::min(lo[static_cast<size_t>(b)], buffer[i]);
                hi[static_cast<size_t>(b)] = std::max(hi[static_cast<size_t>(b)], buffer[i]);
            }
            done += n;
        }
    }
    std::fclose(f);
    std::cout << "file: " << path << "\n"
              << "bands: " << s.bands << "\n"
              << "rows: " << s.rows << "\n"
              << "cols: " << s.cols << "\n"
              << "min: " << *std::min_element(lo.begin(), lo.end()) << "\n"
              << "max: " << *std::max_element(hi.begin(), hi.end()) << "\n";
    for (int b = 0; b < s.bands; ++b)
        std::cout << "band " << b + 1 << ": " << lo[static_cast<size_t>(b)] << " "
                  << hi[static_cast<size_t>(b)] << "\n";
}

int run(const std::vector<std::string>& args) {
    if (args.empty()) {
        std::cerr << kUsage;
        return kExitUsage;
    }
    const std::string& command = args[0];
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "-h" || command == "--help" || command == "help") {
        std::cout << kUsage;
        return kExitOk;
    }
    if (command == "-V" || command == "--version") {
        std::cout << "dhc " << DHC_VERSION << "\n";
        return kExitOk;
    }
    if (command == "segment") {
        const SegmentOptions options = parseSegment(rest);
        if (options.help) {
            std::cout << kSegmentUsage;
            return kExitOk;
        }
        return runSegment(options);
    }
    if (command == "apply") {
        const ApplyOptions options = parseApply(rest);
        if (options.help) {
            std::cout << kApplyUsage;
            return kExitOk;
        }
        return runApply(options);
    }
    if (command == "info") {
        const InfoOptions options = parseInfo(rest);
        if (options.help) {
            std::cout << kInfoUsage;
            return kExitOk;
        }
        for (size_t i = 0; i < options.files.size(); ++i) {
            if (i > 0) std::cout << "\n";
            if (dhc::io::isHraw(options.files[i]))
                printInfo(options.files[i]);
            else
                dhc::io::printInfo(options.files[i], std::cout);
        }
        return kExitOk;
    }
    if (!command.empty() && command[0] == '-')
        throw InputError(kExitUsage, "unknown option \"" + command + "\" (see dhc --help)");
    throw InputError(kExitUsage, "unknown command \"" + command + "\" (see dhc --help)");
}

}  // namespace

int main(int argc, char** argv) {
    // A run allocates and frees region-sized blocks level after level.  With
    // glibc's default the mmap threshold rises after the first such free and
    // later blocks stay in the heap once freed, so the resident size keeps
    // the high-water mark of every level; a fixed threshold gives each big
    // block back to the system when it is freed.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    dhc::setFatalHandler(fatalHandler);
    OutputFiles::removeTemporariesOnSignals();
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const InputError& e) {
        std::cerr << "dhc: " << e.what() << std::endl;
        return e.status();
    } catch (const std::bad_alloc&) {
        OutputFiles::removeAllTemporaries();
        std::cerr << "dhc: out of memory" << std::endl;
        return kExitInput;
    }
}
