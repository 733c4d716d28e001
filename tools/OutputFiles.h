#pragma once
// The output files of one run, written so that a failed run leaves nothing
// behind and never damages a file that already exists, nor one of the inputs.
//
// One object holds every output of a command: it is made with the command's
// inputs, and each output added is compared by file identity with every input
// and with every output added before it, so an output cannot escape the
// comparison.  Adding an output is one line:
//
//     const OutputFiles::Output& polygons = outputs.add(o.polygons, OutputFiles::Writer::path);
//
// (an empty name gives an Output that is not given: `if (polygons.given())`).
// create() then makes every temporary file, before the long part of the run.
//
// Every name is reached once: the target's directory is opened when the
// output is added and everything after goes through that descriptor.
//  - Writer::descriptor: the bytes go to Output::fd, an unnamed file in the
//    target's directory (O_TMPFILE) that gets a name only at commit, so a
//    killed process leaves nothing; where the file system has no unnamed
//    files, a file with a random name (NAME.tmp-XXXXXXXX).
//  - Writer::path (GDAL, which opens files by name): Output::path names the
//    file inside a private directory (mode 700, random name NAME.tmp-XXXXXXXX)
//    made beside the target, reached through its descriptor
//    (/proc/self/fd/N/NAME), so no other user can swap the file under it.
// A character device or a pipe (-o /dev/null, --report /dev/stdout) is
// written in place and never replaced.
//
// commit() gives each file the mode of the file it replaces (a new file gets
// the umask's), flushes it to disk, renames it onto the target and flushes
// the directory, so a power cut leaves the old file or the new one.  Anything
// else (an error, a fatal condition inside the library, a signal, an abort)
// removes the temporary files.

#include <sys/types.h>

#include <deque>
#include <string>
#include <vector>

class OutputFiles {
  public:
    enum class Writer {
        descriptor,  // writes to Output::fd
        path,        // opens Output::path itself
    };

    // One output.
    struct Output {
        std::string target;  // the name the user gave; empty when not given
        std::string path;    // Writer::path: where to write (target when in place)
        int fd = -1;         // Writer::descriptor: open for writing; owned by OutputFiles
        bool inPlace = false;
        bool given() const { return !target.empty(); }

        // Private to OutputFiles.
        Writer writer = Writer::descriptor;
        int dirFd = -1;            // the target's directory
        int privateFd = -1;        // Writer::path: the private directory
        std::string base;          // the target's last component
        std::string temporary;     // the temporary name in dirFd (named file or private directory)
        bool unnamed = false;      // fd is an O_TMPFILE file
        int slot = -1;             // entry in the signal handlers' list
    };

    // inputs: every file the command reads (image, mask, initial
    // segmentation, ground truth, configuration); empty names are skipped.
    explicit OutputFiles(std::vector<std::string> inputs);
    // Removes the temporary files unless commit() succeeded.
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Registers target (nothing for an empty name).  Throws an InputError
    // (usage) when target is one of the inputs or the same file as an output
    // added before.  The reference stays valid as long as this object; its
    // fd and path are set by create().
    const Output& add(const std::string& target, Writer writer = Writer::descriptor);
    // Makes out (added to this object) an output written by path, once its
    // format is known; before create().
    void writeByPath(const Output& out);
    // Creates the temporary file of every output added (or its private
    // directory, or opens a device in place).  Throws an InputError (input)
    // when one cannot be written.
    void create();
    // Gives every file its mode, flushes it and renames it onto its target.
    void commit();
    // Closes every output and removes every temporary file that is still there.
    void discard();

    // Writes all of bytes to out.fd; a short write (file system full) is an
    // InputError naming out.target.
    static void writeAll(const Output& out, const void* bytes, size_t size);
    static void writeAll(const Output& out, const std::string& bytes) {
        writeAll(out, bytes.data(), bytes.size());
    }

    // Removes the temporary files of every live OutputFiles; safe to call
    // from a signal handler or the library's fatal-condition handler.
    static void removeAllTemporaries();
    // Makes every abnormal end of the process remove the temporary files:
    // SIGINT, SIGTERM, SIGHUP and SIGQUIT (each unless it is inherited as
    // ignored, as under nohup) and SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL
    // (assertions, aborts, crashes); the signal then takes its default effect.
    static void removeTemporariesOnSignals();

  private:
    void open(Output& o);
    void commitOne(Output& o);
    void release(Output& o, bool remove);

    std::vector<std::string> inputs_;
    std::deque<Output> outputs_;
    bool committed_ = false;
};
