#pragma once
// A problem with what the user handed a front end (command line, files,
// settings, MEX or Python arguments): one message and an exit status.  The
// tool prints "dhc: " + message and exits with the status; the MEX module and
// the Python package turn it into their own error types.

#include <stdexcept>
#include <string>

// Exit statuses of the tool (the library's own fatal statuses pass through unchanged).
constexpr int kExitOk = 0;
constexpr int kExitInput = 1;  // bad input file, configuration or output path
constexpr int kExitUsage = 2;  // bad command line

class InputError : public std::runtime_error {
  public:
    InputError(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};
