#include "OutputFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frontend/InputError.h"

namespace {

// The names that a signal handler may have to remove: fixed storage, filled
// before the signal handlers can need it, read without allocating.
constexpr int kMaxTemporaries = 16;
char* gTemporaries[kMaxTemporaries];
volatile std::sig_atomic_t gTemporaryCount = 0;

void forget(const std::string& name) {
    for (int i = 0; i < gTemporaryCount; ++i)
        if (gTemporaries[i] != nullptr && name == gTemporaries[i]) {
            std::free(gTemporaries[i]);
            gTemporaries[i] = nullptr;
        }
}

}  // namespace

OutputFiles::OutputFiles() = default;

OutputFiles::~OutputFiles() {
    if (!committed_) discard();
}

std::string OutputFiles::add(const std::string& target) {
    for (const std::string& t : targets_)
        if (t == target) throw InputError(kExitUsage, "\"" + target + "\" is given as more than one output");
    struct stat st;
    if (::stat(target.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw InputError(kExitInput, "cannot write \"" + target + "\": it is a directory");
    if (gTemporaryCount >= kMaxTemporaries) throw InputError(kExitUsage, "too many output files");

    // Registered before it exists, so that a signal can never miss it.
    const std::string temporary = target + ".tmp." + std::to_string(::getpid());
    gTemporaries[gTemporaryCount] = strdup(temporary.c_str());
    gTemporaryCount = gTemporaryCount + 1;
    targets_.push_back(target);
    temporaries_.push_back(temporary);
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        const int err = errno;
        temporaries_.pop_back();
        targets_.pop_back();
        forget(temporary);
        throw InputError(kExitInput, "cannot write \"" + target + "\": " + std::strerror(err));
    }
    ::close(fd);
    return temporary;
}

void OutputFiles::commit() {
    for (size_t i = 0; i < targets_.size(); ++i) {
        if (std::rename(temporaries_[i].c_str(), targets_[i].c_str()) != 0)
            throw InputError(kExitInput, "cannot rename \"" + temporaries_[i] + "\" to \"" + targets_[i] +
                                             "\": " + std::strerror(errno));
        forget(temporaries_[i]);
    }
    committed_ = true;
}

void OutputFiles::discard() {
    for (const std::string& t : temporaries_) {
        std::remove(t.c_str());
        forget(t);
    }
    temporaries_.clear();
    targets_.clear();
}

void OutputFiles::removeAllTemporaries() {
    for (int i = 0; i < gTemporaryCount; ++i)
        if (gTemporaries[i] != nullptr) ::unlink(gTemporaries[i]);
}
