#include "settings/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace dhc {

namespace {
FatalHandler g_handler = nullptr;
std::ostream* g_out = nullptr;
}  // namespace

void defaultFatalHandler(int status, const std::string& message, FatalChannel channel) {
    if (!message.empty()) {
        std::ostream& os = channel == FatalChannel::StdOut ? static_cast<std::ostream&>(out()) : std::cerr;
        os << message << std::endl;
    }
    std::cout.flush();
    std::exit(status);
}

void fatal(int status, const std::string& message, FatalChannel channel) {
    if (g_handler != nullptr) g_handler(status, message, channel);
    // A handler that returns has broken its contract; fall back to the literal behaviour.
    defaultFatalHandler(status, message, channel);
}

FatalHandler setFatalHandler(FatalHandler handler) {
    FatalHandler previous = g_handler;
    g_handler = handler;
    return previous;
}

std::ostream& out() {
    return g_out != nullptr ? *g_out : std::cout;
}

std::ostream* setOut(std::ostream* stream) {
    std::ostream* previous = g_out;
    g_out = stream;
    return previous;
}

}  // namespace dhc
