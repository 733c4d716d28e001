#pragma once
// The one exit door for fatal conditions, and the sink for progress lines.
//
// The core never calls exit() itself: it calls dhc::fatal(status, message,
// channel).  The default handler prints the message (if any) and a line end on
// the named channel and ends the process with the status, which is what the
// command-line tool wants.  A host that must survive (the MEX module) installs
// its own handler, which must not return (it throws or longjmps).
//
// Progress and diagnostic lines that belong on standard output go through
// dhc::out(), so the MEX module can route them to the MATLAB/Octave console.

#include <ostream>
#include <string>

namespace dhc {

// Where the default handler writes the fatal message.
enum class FatalChannel { StdOut, StdErr };

using FatalHandler = void (*)(int status, const std::string& message, FatalChannel channel);

// Reports a fatal condition and never returns.  An empty message prints nothing.
[[noreturn]] void fatal(int status, const std::string& message = std::string(),
                        FatalChannel channel = FatalChannel::StdErr);

// Installs a handler (nullptr restores the default) and returns the previous one.
FatalHandler setFatalHandler(FatalHandler handler);

// The default behaviour: message and line end on the channel, then exit(status).
[[noreturn]] void defaultFatalHandler(int status, const std::string& message, FatalChannel channel);

// Progress/diagnostic stream; standard output unless the host redirects it.
std::ostream& out();

// Redirects out() (nullptr restores standard output); returns the previous stream.
std::ostream* setOut(std::ostream* stream);

}  // namespace dhc
