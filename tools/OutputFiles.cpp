#include "OutputFiles.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "frontend/InputError.h"

namespace {

// The names that a signal handler may have to remove: fixed storage, filled
// before the signal handlers can need it, read without allocating.
constexpr int kMaxTemporaries = 16;
char* volatile gTemporaries[kMaxTemporaries];
volatile std::sig_atomic_t gTemporaryCount = 0;

void forget(const std::string& name) {
    for (int i = 0; i < gTemporaryCount; ++i) {
        char* held = gTemporaries[i];
        if (held != nullptr && name == held) {
            gTemporaries[i] = nullptr;  // out of the handlers' sight before it is freed
            std::free(held);
        }
    }
}

// Signals held back while a temporary file is created and registered, so that
// a handler never removes a file this process did not create, nor misses one it did.
class SignalsHeld {
  public:
    SignalsHeld() {
        sigset_t all;
        sigfillset(&all);
        ::sigprocmask(SIG_BLOCK, &all, &saved_);
    }
    ~SignalsHeld() { ::sigprocmask(SIG_SETMASK, &saved_, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

  private:
    sigset_t saved_;
};

// What a file name reaches: the file's device and inode, or, for a name not
// taken yet, its resolved directory and last component.
struct FileId {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    std::string name;
};

bool operator==(const FileId& a, const FileId& b) {
    if (a.exists != b.exists) return false;
    return a.exists ? a.dev == b.dev && a.ino == b.ino : a.name == b.name;
}

// An input is the file it reaches.  An output is its own name (a link there
// is replaced, not followed), unless it leads to a device or pipe written in place.
FileId identify(const std::string& path, bool output) {
    FileId id;
    struct stat st;
    bool found = ::stat(path.c_str(), &st) == 0;
    if (output && !(found && (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode))))
        found = ::lstat(path.c_str(), &st) == 0;
    if (found) {
        id.exists = true;
        id.dev = st.st_dev;
        id.ino = st.st_ino;
        return id;
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    char* resolved = ::realpath(dir.c_str(), nullptr);
    id.name = resolved != nullptr ? std::string(resolved) + "/" + path.substr(slash + 1) : path;
    std::free(resolved);
    return id;
}

void refuseSameOutput(const std::string& a, const std::string& b) {
    if (a == b) throw InputError(kExitUsage, "\"" + a + "\" is given as more than one output");
    throw InputError(kExitUsage, "outputs \"" + a + "\" and \"" + b + "\" are the same file");
}

// The thread that registers the outputs.  Libraries may start threads of
// their own before main (OpenBLAS, loaded with GDAL, does), and the kernel may
// hand a signal to any of them, also while the main thread holds signals off
// to create and register a temporary file.  So the main thread alone cleans
// up: another thread passes the signal on, and it waits until the main thread
// takes signals again, when every temporary file it made is registered.
pthread_t gMainThread;

void onSignal(int sig) {
    if (!pthread_equal(pthread_self(), gMainThread)) {
        ::pthread_kill(gMainThread, sig);
        return;
    }
    OutputFiles::removeAllTemporaries();
    // Now the default: the signal ends the process as it would have without
    // us (core dump included).
    ::signal(sig, SIG_DFL);
    std::raise(sig);
}

}  // namespace

OutputFiles::OutputFiles() = default;

OutputFiles::~OutputFiles() {
    if (!committed_) discard();
}

OutputFiles::Output OutputFiles::add(const std::string& target) {
    const FileId id = identify(target, true);
    for (const Output& o : outputs_)
        if (o.target == target || identify(o.target, true) == id) refuseSameOutput(o.target, target);

    Output out;
    out.target = target;
    struct stat st;
    if (::stat(target.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        if (S_ISDIR(st.st_mode))
            throw InputError(kExitInput, "cannot write \"" + target + "\": it is a directory");
        if (!S_ISCHR(st.st_mode) && !S_ISFIFO(st.st_mode))
            throw InputError(kExitInput,
                             "cannot write \"" + target + "\": not a regular file, device or pipe");
        // Devices and pipes are written in place: there is nothing to replace atomically.
        out.fd = ::open(target.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
        if (out.fd < 0)
            throw InputError(kExitInput, "cannot write \"" + target + "\": " + std::strerror(errno));
        out.path = target;
        out.inPlace = true;
        outputs_.push_back(out);
        return out;
    }

    if (gTemporaryCount >= kMaxTemporaries) throw InputError(kExitUsage, "too many output files");
    out.path = target + ".tmp." + std::to_string(::getpid());
    char* name = strdup(out.path.c_str());
    if (name == nullptr) throw std::bad_alloc();
    int err = 0;
    {
        const SignalsHeld held;
        out.fd = ::open(out.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (out.fd >= 0) {
            gTemporaries[gTemporaryCount] = name;
            gTemporaryCount = gTemporaryCount + 1;
        } else {
            err = errno;
        }
    }
    if (out.fd < 0) {
        std::free(name);
        if (err == EEXIST || err == ELOOP)
            throw InputError(kExitInput,
                             "cannot write \"" + target + "\": \"" + out.path + "\" already exists");
        throw InputError(kExitInput, "cannot write \"" + target + "\": " + std::strerror(err));
    }
    outputs_.push_back(out);
    return out;
}

void OutputFiles::writeAll(const Output& out, const void* bytes, size_t size) {
    const char* at = static_cast<const char*>(bytes);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(out.fd, at + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            throw InputError(kExitInput,
                             "cannot write \"" + out.target + "\": " + std::strerror(n < 0 ? errno : ENOSPC));
        done += static_cast<size_t>(n);
    }
}

void OutputFiles::closeAll(bool checked) {
    for (Output& o : outputs_) {
        if (o.fd < 0) continue;
        const int status = ::close(o.fd);
        o.fd = -1;
        if (status != 0 && checked)
            throw InputError(kExitInput, "cannot write \"" + o.target + "\": " + std::strerror(errno));
    }
}

void OutputFiles::commit() {
    closeAll(true);
    for (const Output& o : outputs_) {
        if (o.inPlace) continue;
        if (std::rename(o.path.c_str(), o.target.c_str()) != 0)
            throw InputError(kExitInput, "cannot rename \"" + o.path + "\" to \"" + o.target +
                                             "\": " + std::strerror(errno));
        forget(o.path);
    }
    committed_ = true;
}

void OutputFiles::discard() {
    closeAll(false);
    for (const Output& o : outputs_) {
        if (o.inPlace) continue;
        ::unlink(o.path.c_str());
        forget(o.path);
    }
    outputs_.clear();
}

void OutputFiles::checkDistinct(const std::vector<std::string>& inputs,
                                const std::vector<std::string>& outputs) {
    std::vector<FileId> outIds;
    for (const std::string& o : outputs) {
        const FileId id = identify(o, true);
        for (size_t j = 0; j < outIds.size(); ++j)
            if (outputs[j] == o || outIds[j] == id) refuseSameOutput(outputs[j], o);
        outIds.push_back(id);
    }
    for (const std::string& in : inputs) {
        const FileId id = identify(in, false);
        if (!id.exists) continue;  // reported when it is opened
        for (size_t j = 0; j < outputs.size(); ++j)
            if (outIds[j] == id)
                throw InputError(kExitUsage,
                                 "output \"" + outputs[j] + "\" is the same file as input \"" + in + "\"");
    }
}

void OutputFiles::removeAllTemporaries() {
    for (int i = 0; i < gTemporaryCount; ++i) {
        const char* name = gTemporaries[i];
        if (name != nullptr) ::unlink(name);
    }
}

void OutputFiles::removeTemporariesOnSignals() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    gMainThread = pthread_self();
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction inherited;
        // An ignored hang-up or interrupt (nohup, a background job) stays ignored.
        if (::sigaction(sig, nullptr, &inherited) == 0 && inherited.sa_handler == SIG_IGN) continue;
        ::sigaction(sig, &action, nullptr);
    }
    for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) ::sigaction(sig, &action, nullptr);
}
