#include "frontend/HostGuard.h"

namespace dhc {

void throwFatalCondition(int status, const std::string& message, FatalChannel) {
    throw FatalCondition{status, message};
}

HostGuard::HostGuard(std::ostream& out, bool unwind) : out_(out), unwind_(unwind) {
    previousOut_ = setOut(&out_);
    if (unwind_) previousHandler_ = setFatalHandler(&throwFatalCondition);
}

HostGuard::~HostGuard() {
    out_.flush();
    if (unwind_) setFatalHandler(previousHandler_);
    setOut(previousOut_);
}

}  // namespace dhc
