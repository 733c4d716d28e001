#pragma once
// The output files of one run, written so that a failed run leaves nothing
// behind and never damages a file that already exists.
//
// Every output is first written under "<name>.tmp.<pid>" in the same directory
// (so the final rename stays on one file system and is atomic).  The temporary
// files are created empty when they are registered, before the long part of
// the run, so that an unwritable destination is reported at once.  commit()
// renames them all; anything else (an error, a fatal condition inside the
// library, SIGINT/SIGTERM/SIGHUP) removes them.

#include <string>
#include <vector>

class OutputFiles {
  public:
    OutputFiles();
    // Removes the temporary files unless commit() succeeded.
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Registers target and creates its temporary file; returns the temporary
    // name to write to.  Throws a InputError when target cannot be written.
    std::string add(const std::string& target);
    // Renames every temporary file onto its target.
    void commit();
    // Removes every temporary file that is still there.
    void discard();

    // Removes the temporary files of every live OutputFiles; safe to call
    // from a signal handler or the library's fatal-condition handler.
    static void removeAllTemporaries();

  private:
    std::vector<std::string> targets_;
    std::vector<std::string> temporaries_;
    bool committed_ = false;
};
