// The command-line parser on arbitrary argument vectors (arguments separated by
// NUL bytes; the first byte picks the command): it returns options or refuses
// with a usage status, and what it returns is complete.

#include <string>
#include <vector>

#include "CommandLine.h"
#include "FuzzSupport.h"
#include "base/InputError.h"

using namespace dhc::fuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const bool segment = (data[0] & 1) != 0;
    std::vector<std::string> args;
    std::string current;
    for (size_t i = 1; i < size; ++i) {
        if (data[i] == 0) {
            args.push_back(current);
            current.clear();
        } else {
            current += static_cast<char>(data[i]);
        }
    }
    if (size > 1) args.push_back(current);
    try {
        if (segment) {
            const SegmentOptions o = parseSegment(args);
            // An empty operand is a name like any other: the file check refuses it.
            if (!o.help && o.output.empty()) broken("segment options accepted without an output");
            for (const std::string& s : o.sets)
                if (s.empty()) broken("an empty --set value was accepted");
        } else if ((data[0] & 2) != 0) {
            const ApplyOptions o = parseApply(args);
            // As for segment, an empty IMAGE operand is a name: the file check refuses it.
            if (!o.help && (o.model.empty() || o.output.empty()))
                broken("apply options accepted without a model or an output");
            if (o.hasWindow && (o.window[0] < 0 || o.window[1] < 0 || o.window[2] < 1 || o.window[3] < 1 ||
                                o.window[2] > 65535 || o.window[3] > 65535))
                broken("a window outside the accepted ranges");
        } else {
            const InfoOptions o = parseInfo(args);
            if (!o.help && o.files.empty()) broken("info accepted without files");
        }
    } catch (const InputError& e) {
        if (e.status() != kExitUsage) broken("command line refused with a status other than usage");
        if (std::string(e.what()).empty()) broken("empty usage message");
    }
    return 0;
}
