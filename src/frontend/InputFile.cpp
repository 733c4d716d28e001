#include "frontend/InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/InputError.h"

namespace dhc {
namespace {

// The descriptor of a regular file opened for reading; closed on scope exit.
class RegularFile {
  public:
    RegularFile(const std::string& path, const std::string& role) {
        const std::string what = "cannot open " + role + " \"" + path + "\": ";
        // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
        fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd_ < 0) throw InputError(kExitInput, what + std::strerror(errno));
        if (::fstat(fd_, &st_) != 0) {
            const int err = errno;
            ::close(fd_);
            throw InputError(kExitInput, what + std::strerror(err));
        }
        if (!S_ISREG(st_.st_mode)) {
            ::close(fd_);
            throw InputError(kExitInput,
                             what + (S_ISDIR(st_.st_mode) ? "it is a directory" : "not a regular file"));
        }
    }
    ~RegularFile() { ::close(fd_); }
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;

    int fd() const { return fd_; }
    size_t size() const { return static_cast<size_t>(st_.st_size); }

  private:
    int fd_ = -1;
    struct stat st_ {};
};

}  // namespace

void checkInputFile(const std::string& path, const std::string& role) {
    const RegularFile file(path, role);
}

std::string readInputFile(const std::string& path, const std::string& role, size_t maxBytes) {
    const RegularFile file(path, role);
    auto tooLarge = [&](size_t bytes) {
        return InputError(kExitInput, role + " \"" + path + "\" is larger than " + std::to_string(maxBytes) +
                                          " bytes (" + std::to_string(bytes) + ")");
    };
    if (file.size() > maxBytes) throw tooLarge(file.size());
    // The file may grow while it is read: no more than the bound plus one byte is taken.
    std::string text(maxBytes + 1 < file.size() + 1 ? maxBytes + 1 : file.size() + 1, '\0');
    size_t done = 0;
    for (;;) {
        if (done == text.size()) {
            if (done > maxBytes) throw tooLarge(done);
            text.resize(std::min(text.size() * 2, maxBytes + 1));
            if (done == text.size()) throw tooLarge(done);
        }
        const ssize_t n = ::read(file.fd(), &text[done], text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0)
            throw InputError(kExitInput, "cannot read " + role + " \"" + path + "\": " + std::strerror(errno));
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    text.resize(done);
    return text;
}

}  // namespace dhc
