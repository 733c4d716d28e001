#pragma once
// A problem the tool reports to the user: one line on standard error
// ("dhc: " + message) and an exit status.  Thrown anywhere in the tool,
// caught once in main, after which the temporary output files are removed.

#include <stdexcept>
#include <string>

// Exit statuses of the tool (the library's own fatal statuses pass through unchanged).
constexpr int kExitOk = 0;
constexpr int kExitInput = 1;  // bad input file, configuration or output path
constexpr int kExitUsage = 2;  // bad command line

class CliError : public std::runtime_error {
  public:
    CliError(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};
