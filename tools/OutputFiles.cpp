#include "OutputFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/InputError.h"

namespace {

// The temporary names a signal handler may have to remove: fixed storage,
// filled while signals are held, read without allocating.
struct Slot {
    volatile std::sig_atomic_t used;
    int dirFd;      // the directory the name is in
    int privateFd;  // a private directory's own descriptor, -1 for a file
    char name[NAME_MAX + 1];
};
constexpr int kMaxTemporaries = 64;
Slot gSlots[kMaxTemporaries];

// Signals held back while a temporary name is created and registered, so that
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

// Removes every entry of a directory given by its descriptor (the private
// directories hold the writer's file and whatever side files it made).
// Async-signal-safe: the entries are read by the system call, into fixed storage.
void emptyDirectory(int fd) {
    alignas(8) static char buffer[4096];
    for (int round = 0; round < 64; ++round) {
        ::lseek(fd, 0, SEEK_SET);
        bool removed = false;
        for (;;) {
            const long n = ::syscall(SYS_getdents64, fd, buffer, sizeof buffer);
            if (n <= 0) break;
            for (long at = 0; at < n;) {
                const auto* entry = reinterpret_cast<const struct dirent64*>(buffer + at);
                const char* name = entry->d_name;
                if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0 &&
                    ::unlinkat(fd, name, 0) == 0)
                    removed = true;
                at += entry->d_reclen;
            }
        }
        if (!removed) return;
    }
}

void removeSlot(const Slot& s) {
    if (s.privateFd >= 0) {
        emptyDirectory(s.privateFd);
        ::unlinkat(s.dirFd, s.name, AT_REMOVEDIR);
    } else {
        ::unlinkat(s.dirFd, s.name, 0);
    }
}

// Call with signals held.
int takeSlot(int dirFd, int privateFd, const std::string& name) {
    for (int i = 0; i < kMaxTemporaries; ++i) {
        if (gSlots[i].used) continue;
        gSlots[i].dirFd = dirFd;
        gSlots[i].privateFd = privateFd;
        std::snprintf(gSlots[i].name, sizeof gSlots[i].name, "%s", name.c_str());
        gSlots[i].used = 1;
        return i;
    }
    return -1;
}

void freeSlot(int& slot) {
    if (slot < 0) return;
    gSlots[slot].used = 0;
    slot = -1;
}

// NAME.tmp-XXXXXXXX with eight random letters and digits.
std::string randomName(const std::string& base) {
    static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char bytes[8] = {};
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        // No entropy source: time and process id still differ between runs.
        const unsigned long long seed = static_cast<unsigned long long>(::getpid()) * 2654435761ULL ^
                                        static_cast<unsigned long long>(::clock());
        for (size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<unsigned char>(seed >> (8 * i));
    }
    std::string name = base + ".tmp-";
    for (unsigned char b : bytes) name += kAlphabet[b % (sizeof kAlphabet - 1)];
    return name;
}

bool procAvailable() {
    return ::access("/proc/self/fd", X_OK) == 0;
}

std::string procPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

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

std::string directoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string lastComponent(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
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
    char* resolved = ::realpath(directoryOf(path).c_str(), nullptr);
    id.name = resolved != nullptr ? std::string(resolved) + "/" + lastComponent(path) : path;
    std::free(resolved);
    return id;
}

[[noreturn]] void cannotWrite(const std::string& target, int err) {
    throw InputError(kExitInput, "cannot write \"" + target + "\": " + std::strerror(err));
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

OutputFiles::OutputFiles(std::vector<std::string> inputs) : inputs_(std::move(inputs)) {}

OutputFiles::~OutputFiles() {
    if (!committed_) discard();
}

const OutputFiles::Output& OutputFiles::add(const std::string& target, Writer writer) {
    outputs_.emplace_back();
    Output& out = outputs_.back();
    if (target.empty()) return out;

    // No output is an input or another output.
    const FileId id = identify(target, true);
    for (const std::string& in : inputs_)
        if (!in.empty() && identify(in, false) == id && id.exists) {
            outputs_.pop_back();
            throw InputError(kExitUsage, "output \"" + target + "\" is the same file as input \"" + in + "\"");
        }
    for (const Output& o : outputs_) {
        if (&o == &out || !o.given() || !(o.target == target || identify(o.target, true) == id)) continue;
        const std::string earlier = o.target;
        outputs_.pop_back();
        if (earlier == target) throw InputError(kExitUsage, "\"" + target + "\" is given as more than one output");
        throw InputError(kExitUsage, "outputs \"" + earlier + "\" and \"" + target + "\" are the same file");
    }

    out.target = target;
    out.writer = writer;
    out.base = lastComponent(target);
    return out;
}

void OutputFiles::writeByPath(const Output& out) {
    for (Output& o : outputs_)
        if (&o == &out) o.writer = Writer::path;
}

void OutputFiles::create() {
    for (Output& o : outputs_)
        if (o.given() && o.dirFd < 0) open(o);
}

void OutputFiles::open(Output& out) {
    const std::string& target = out.target;
    const Writer writer = out.writer;
    out.dirFd = ::open(directoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (out.dirFd < 0) cannotWrite(target, errno);

    struct stat st;
    if (out.base.empty() || out.base == "." || out.base == "..")
        throw InputError(kExitInput, "cannot write \"" + target + "\": it is a directory");
    if (::fstatat(out.dirFd, out.base.c_str(), &st, 0) == 0 && !S_ISREG(st.st_mode)) {
        if (S_ISDIR(st.st_mode)) throw InputError(kExitInput, "cannot write \"" + target + "\": it is a directory");
        if (!S_ISCHR(st.st_mode) && !S_ISFIFO(st.st_mode))
            throw InputError(kExitInput, "cannot write \"" + target + "\": not a regular file, device or pipe");
        // Devices and pipes are written in place: there is nothing to replace atomically.
        out.fd = ::openat(out.dirFd, out.base.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
        if (out.fd < 0) cannotWrite(target, errno);
        out.path = target;
        out.inPlace = true;
        return;
    }

    const bool proc = procAvailable();
    if (writer == Writer::descriptor && proc) {
        // An unnamed file: nothing to remove whatever ends the process.
        out.fd = ::openat(out.dirFd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
        if (out.fd >= 0) {
            out.unnamed = true;
            return;
        }
        if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) cannotWrite(target, errno);
    }
    for (int attempt = 0;; ++attempt) {
        const std::string name = randomName(out.base);
        int err = 0;
        {
            const SignalsHeld held;
            if (writer == Writer::descriptor) {
                out.fd = ::openat(out.dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                  0666);
                if (out.fd < 0) err = errno;
            } else if (::mkdirat(out.dirFd, name.c_str(), 0700) == 0) {
                out.privateFd = ::openat(out.dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (out.privateFd < 0) {
                    err = errno;
                    ::unlinkat(out.dirFd, name.c_str(), AT_REMOVEDIR);
                }
            } else {
                err = errno;
            }
            if (err == 0) {
                out.temporary = name;
                out.slot = takeSlot(out.dirFd, out.privateFd, name);
            }
        }
        if (err == EEXIST && attempt < 100) continue;
        if (err != 0) cannotWrite(target, err);
        if (out.slot < 0) throw InputError(kExitUsage, "too many output files");
        break;
    }
    if (writer == Writer::path)
        out.path = (proc ? procPath(out.privateFd) : directoryOf(target) + "/" + out.temporary) + "/" + out.base;
}

void OutputFiles::writeAll(const Output& out, const void* bytes, size_t size) {
    const char* at = static_cast<const char*>(bytes);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(out.fd, at + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) cannotWrite(out.target, n < 0 ? errno : ENOSPC);
        done += static_cast<size_t>(n);
    }
}

void OutputFiles::commitOne(Output& o) {
    if (o.inPlace) {
        const int status = ::close(o.fd);
        o.fd = -1;
        if (status != 0) cannotWrite(o.target, errno);
        return;
    }
    // The file to put in place, open: the writer's own descriptor, or the
    // file the path writer left in the private directory.
    int fd = o.fd;
    if (o.writer == Writer::path) {
        fd = ::openat(o.privateFd, o.base.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) cannotWrite(o.target, errno);
    }
    o.fd = -1;
    // A replaced file keeps its mode.
    struct stat old;
    if (::fstatat(o.dirFd, o.base.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.st_mode) &&
        ::fchmod(fd, old.st_mode & 07777) != 0) {
        const int err = errno;
        ::close(fd);
        cannotWrite(o.target, err);
    }
    // On disk before it takes the old file's name.
    if (::fsync(fd) != 0 && errno != EINVAL && errno != EROFS) {
        const int err = errno;
        ::close(fd);
        cannotWrite(o.target, err);
    }
    if (o.unnamed) {
        // A name first (linkat cannot replace a file), then the rename onto the target.
        const std::string source = procPath(fd);
        for (int attempt = 0;; ++attempt) {
            const std::string name = randomName(o.base);
            int err = 0;
            {
                const SignalsHeld held;
                if (::linkat(AT_FDCWD, source.c_str(), o.dirFd, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
                    o.temporary = name;
                    o.slot = takeSlot(o.dirFd, -1, name);
                } else {
                    err = errno;
                }
            }
            if (err == EEXIST && attempt < 100) continue;
            if (err != 0) {
                ::close(fd);
                cannotWrite(o.target, err);
            }
            break;
        }
        o.unnamed = false;
    }
    if (::close(fd) != 0) cannotWrite(o.target, errno);
    const int from = o.writer == Writer::path ? o.privateFd : o.dirFd;
    const std::string fromName = o.writer == Writer::path ? o.base : o.temporary;
    if (::renameat(from, fromName.c_str(), o.dirFd, o.base.c_str()) != 0)
        throw InputError(kExitInput, "cannot rename \"" + fromName + "\" to \"" + o.target +
                                         "\": " + std::strerror(errno));
    if (o.writer == Writer::descriptor) {
        const SignalsHeld held;
        freeSlot(o.slot);
        o.temporary.clear();
    }
    // The new name on disk too.
    ::fsync(o.dirFd);
}

void OutputFiles::commit() {
    for (Output& o : outputs_)
        if (o.given()) commitOne(o);
    committed_ = true;
    for (Output& o : outputs_) release(o, true);
}

void OutputFiles::release(Output& o, bool remove) {
    if (o.fd >= 0) ::close(o.fd);
    o.fd = -1;
    if (remove && !o.temporary.empty()) {
        const SignalsHeld held;
        Slot s{};
        s.dirFd = o.dirFd;
        s.privateFd = o.privateFd;
        std::snprintf(s.name, sizeof s.name, "%s", o.temporary.c_str());
        removeSlot(s);
        freeSlot(o.slot);
        o.temporary.clear();
    }
    if (o.privateFd >= 0) ::close(o.privateFd);
    o.privateFd = -1;
    if (o.dirFd >= 0) ::close(o.dirFd);
    o.dirFd = -1;
}

void OutputFiles::discard() {
    for (Output& o : outputs_) release(o, true);
    outputs_.clear();
}

void OutputFiles::removeAllTemporaries() {
    for (const Slot& s : gSlots)
        if (s.used) removeSlot(s);
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
