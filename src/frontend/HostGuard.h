#pragma once
// What a host that must survive a run (the Python interpreter, the MATLAB or
// Octave session) installs for the run's length: a fatal handler that unwinds
// instead of ending the process, and the stream the core's lines go to.

#include <ostream>
#include <string>

#include "settings/Fatal.h"

namespace dhc {

// A fatal condition of the core, carried out of it by unwinding.
struct FatalCondition {
    int status;
    std::string message;
};

// The handler that throws a FatalCondition.
[[noreturn]] void throwFatalCondition(int status, const std::string& message, FatalChannel channel);

// Installs throwFatalCondition (unless unwind is false: the handler in force
// stays) and out as the core's output stream, and restores the previous ones
// when it goes, however the run ends.  out is flushed first.
class HostGuard {
  public:
    HostGuard(std::ostream& out, bool unwind = true);
    ~HostGuard();
    HostGuard(const HostGuard&) = delete;
    HostGuard& operator=(const HostGuard&) = delete;

  private:
    std::ostream& out_;
    bool unwind_;
    std::ostream* previousOut_ = nullptr;
    FatalHandler previousHandler_ = nullptr;
};

}  // namespace dhc
