#pragma once
// What every fuzz target shares: a fatal handler that unwinds instead of
// ending the process (a fatal status is an answer, not a crash), a quiet
// progress stream, and in-memory files for the readers that take a path.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "settings/Fatal.h"

namespace dhc::fuzz {

// A fatal condition of the core, carried out by unwinding (as the MEX module does).
struct FatalStatus {
    int status;
    std::string message;
};

inline void throwFatal(int status, const std::string& message, FatalChannel) {
    throw FatalStatus{status, message};
}

// Swallows whatever the core prints on its progress stream.
class NullBuffer : public std::streambuf {
  protected:
    int overflow(int c) override { return c; }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Installs the unwinding fatal handler and the silent progress stream; temporary
// files (the settings reader's) go to memory when /dev/shm exists.
inline void setUp() {
    static NullBuffer buffer;
    static std::ostream silent(&buffer);
    setFatalHandler(&throwFatal);
    setOut(&silent);
    if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
}

// A file in memory with the given bytes, reachable by a path (/proc/self/fd/N),
// so the readers that take file names read it without touching the disk.
class MemFile {
  public:
    MemFile(const uint8_t* data, size_t size) {
        fd_ = ::memfd_create("dhc-fuzz", 0);
        if (fd_ < 0) std::abort();
        size_t done = 0;
        while (done < size) {
            const ssize_t n = ::write(fd_, data + done, size - done);
            if (n <= 0) std::abort();
            done += static_cast<size_t>(n);
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    explicit MemFile(const std::string& text)
        : MemFile(reinterpret_cast<const uint8_t*>(text.data()), text.size()) {}
    ~MemFile() { ::close(fd_); }
    MemFile(const MemFile&) = delete;
    MemFile& operator=(const MemFile&) = delete;
    const std::string& path() const { return path_; }

  private:
    int fd_ = -1;
    std::string path_;
};

// Reads the fuzzer's bytes as a sequence of small decisions; past the end every
// read yields 0, so short inputs still make a complete case.
class Bytes {
  public:
    Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    // A value in [lo, hi].
    int range(int lo, int hi) {
        const unsigned span = static_cast<unsigned>(hi - lo) + 1u;
        unsigned v = byte();
        if (span > 256) v = (v << 8) | byte();
        return lo + static_cast<int>(v % span);
    }
    bool flag() { return (byte() & 1) != 0; }
    size_t left() const { return pos_ < size_ ? size_ - pos_ : 0; }
    // The remaining bytes as text.
    std::string rest() {
        std::string s(reinterpret_cast<const char*>(data_ + pos_), left());
        pos_ = size_;
        return s;
    }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// What the current input means, printed with a broken property (set by targets
// whose bytes are decoded into a case).
inline std::string& context() {
    static std::string text;
    return text;
}

// Stops the fuzzer with a readable report: a property the code promises failed.
[[noreturn]] inline void broken(const std::string& what) {
    std::fprintf(stderr, "fuzz: property broken: %s\n", what.c_str());
    if (!context().empty()) std::fprintf(stderr, "fuzz: case:\n%s\n", context().c_str());
    std::abort();
}

}  // namespace dhc::fuzz
