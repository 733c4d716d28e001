#pragma once
// The output files of one run, written so that a failed run leaves nothing
// behind and never damages a file that already exists.
//
// A regular output (or a name not yet taken) is first written under
// "<name>.tmp.<pid>" in the same directory, so that the final rename stays on
// one file system and is atomic.  The temporary file is created empty when the
// output is registered, before the long part of the run, so that an
// unwritable destination is reported at once; it is created with
// O_CREAT|O_EXCL|O_NOFOLLOW, so a file or link planted under that name is
// refused, never followed.  A character device or a pipe (-o /dev/null,
// -o /dev/stdout) is written in place and never replaced.  commit() renames
// the temporary files onto their targets; anything else (an error, a fatal
// condition inside the library, a signal, an abort) removes them.
//
// Writers that can take a descriptor write through Output::fd; writers that
// need a file name (GDAL) write to Output::path, the same file.

#include <cstddef>
#include <string>
#include <vector>

class OutputFiles {
  public:
    // One registered output.
    struct Output {
        std::string target;  // the name the user gave
        std::string path;    // where to write: the temporary file, or target when in place
        int fd = -1;         // open for writing on path; owned by OutputFiles
        bool inPlace = false;
    };

    OutputFiles();
    // Removes the temporary files unless commit() succeeded.
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Registers target and creates its temporary file (or opens a device in
    // place).  Throws an InputError when target cannot be written or names the
    // same file as an output registered before.
    Output add(const std::string& target);
    // Closes every output and renames every temporary file onto its target.
    void commit();
    // Closes every output and removes every temporary file that is still there.
    void discard();

    // Writes all of bytes to out.fd; a short write (file system full) is an
    // InputError naming out.target.
    static void writeAll(const Output& out, const void* bytes, size_t size);
    static void writeAll(const Output& out, const std::string& bytes) {
        writeAll(out, bytes.data(), bytes.size());
    }

    // Throws an InputError (usage status) unless the files are distinct: no
    // output is one of the inputs, no two outputs are one file.  Names are
    // compared by the files they reach (device and inode, or the resolved
    // directory and the name when the file does not exist yet).
    static void checkDistinct(const std::vector<std::string>& inputs,
                              const std::vector<std::string>& outputs);

    // Removes the temporary files of every live OutputFiles; safe to call
    // from a signal handler or the library's fatal-condition handler.
    static void removeAllTemporaries();
    // Makes every abnormal end of the process remove the temporary files:
    // SIGINT, SIGTERM, SIGHUP and SIGQUIT (each unless it is inherited as
    // ignored, as under nohup) and SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL
    // (assertions, aborts, crashes); the signal then takes its default effect.
    static void removeTemporariesOnSignals();

  private:
    void closeAll(bool checked);

    std::vector<Output> outputs_;
    bool committed_ = false;
};
