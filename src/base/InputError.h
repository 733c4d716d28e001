#pragma once
// A problem with what the user handed a front end (command line, files,
// settings, MEX or Python arguments): one message, an exit status and an
// identifier ("dhc:badSetting"; may be empty).  The tool prints "dhc: " +
// message and exits with the status; the MEX module raises the identifier and
// message as a MATLAB error, and the Python package its own error type.

#include <stdexcept>
#include <string>
#include <utility>

// Exit statuses of the tool (the library's own fatal statuses pass through unchanged).
constexpr int kExitOk = 0;
constexpr int kExitInput = 1;  // bad input file, configuration or output path
constexpr int kExitUsage = 2;  // bad command line

class InputError : public std::runtime_error {
  public:
    InputError(int status, const std::string& message, std::string id = std::string())
        : std::runtime_error(message), status_(status), id_(std::move(id)) {}
    int status() const { return status_; }
    const std::string& id() const { return id_; }

  private:
    int status_;
    std::string id_;
};
