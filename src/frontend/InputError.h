#pragma once
// A problem with what the user handed a front end (command line, files,
// settings, MEX or Python arguments): one message, an exit status and a short
// kind.  The tool prints "dhc: " + message and exits with the status; the MEX
// module raises it as the error "dhc:" + kind, the Python package as its own
// exception types.

#include <stdexcept>
#include <string>
#include <utility>

// Exit statuses of the tool (the library's own fatal statuses pass through unchanged).
constexpr int kExitOk = 0;
constexpr int kExitInput = 1;  // bad input file, configuration or output path
constexpr int kExitUsage = 2;  // bad command line

class InputError : public std::runtime_error {
  public:
    InputError(int status, const std::string& message, std::string kind = "badInput")
        : std::runtime_error(message), status_(status), kind_(std::move(kind)) {}
    int status() const { return status_; }
    // "badSetting", "badGroundTruth", "emptyRoi", ...: what the MEX module's error identifier names.
    const std::string& kind() const { return kind_; }

  private:
    int status_;
    std::string kind_;
};
