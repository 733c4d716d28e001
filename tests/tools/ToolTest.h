#pragma once
// Helpers of the end-to-end tests: run the built programs in a scratch
// directory, and read and write hraw files with a few lines of independent
// code (the tests do not trust the library's own readers to check its output).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace tooltest {

struct Result {
    int status = -1;  // exit status, or 128 + signal
    std::string out, err;
};

// A hraw file in memory: band-sequential int32 values.
struct Hraw {
    int bands = 0, rows = 0, cols = 0;
    std::vector<int32_t> values;
};

// Each test gets a fresh directory, removed afterwards unless the test
// failed; the programs run in it and file names are relative to it.
class ToolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* base = std::getenv("DHC_TEST_TMP");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/dhc-e2e-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override {
        if (!dir_.empty() && !HasFailure()) std::filesystem::remove_all(dir_);
    }

    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // Starts `program args` with standard output and error sent to files.
    pid_t start(const std::vector<std::string>& args, const char* program = DHC_TOOL_PATH) const {
        const pid_t pid = ::fork();
        if (pid != 0) return pid;
        const int out = ::open(path(".stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(path(".stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0 || ::chdir(dir_.c_str()) != 0)
            ::_exit(127);
        std::vector<char*> argv{const_cast<char*>(program)};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(program, argv.data());
        ::_exit(127);
    }

    // Runs `program args` to its end.
    Result dhc(const std::vector<std::string>& args, const char* program = DHC_TOOL_PATH) const {
        const pid_t pid = start(args, program);
        Result run;
        int status = 0;
        if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return run;
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        run.out = read(".stdout");
        run.err = read(".stderr");
        std::filesystem::remove(path(".stdout"));
        std::filesystem::remove(path(".stderr"));
        return run;
    }

    // Makes a FIFO and opens its reading end without waiting for a writer.
    // A run given the FIFO as a large output (--levels) stops in that output's
    // write once the pipe is full, with every output before it written: a
    // state in which a signal always meets it.
    int openFifo(const std::string& name) const {
        if (::mkfifo(path(name).c_str(), 0600) != 0) return -1;
        return ::open(path(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }

    // Waits until the pipe read by fd is at least half full or process pid
    // has ended; true in the first case.  A writer with more than the pipe
    // holds left to write is then in its write and cannot end by itself.
    static bool waitUntilPipeFull(int fd, pid_t pid) {
        const int capacity = ::fcntl(fd, F_GETPIPE_SZ);
        for (;;) {
            int queued = 0;
            if (capacity > 0 && ::ioctl(fd, FIONREAD, &queued) == 0 && queued >= capacity / 2) return true;
            siginfo_t info{};
            if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
                info.si_pid != 0)
                return false;
            ::usleep(1000);
        }
    }

    // The names of the files in the scratch directory.
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_))
            names.insert(entry.path().filename().string());
        return names;
    }

    std::string read(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }
    void write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }

    Hraw readHraw(const std::string& name) const {
        const std::string bytes = read(name);
        std::vector<int32_t> words(bytes.size() / 4);
        std::memcpy(words.data(), bytes.data(), words.size() * sizeof(int32_t));
        if (words.size() < 3) return Hraw{};
        return Hraw{words[0], words[1], words[2], std::vector<int32_t>(words.begin() + 3, words.end())};
    }
    // A valid 2-band 6 x 6 image of varied values.
    void writeSmallImage(const std::string& name) const {
        Hraw image{2, 6, 6, {}};
        for (int i = 0; i < 72; ++i) image.values.push_back(10 + (i * 7) % 13);
        writeHraw(name, image);
    }

    void writeHraw(const std::string& name, const Hraw& image) const {
        const int32_t header[3] = {image.bands, image.rows, image.cols};
        std::string bytes(reinterpret_cast<const char*>(header), sizeof header);
        bytes.append(reinterpret_cast<const char*>(image.values.data()),
                     image.values.size() * sizeof(int32_t));
        write(name, bytes);
    }

    std::string dir_;
};

// Distinct non-zero values.
inline std::vector<int32_t> distinctLabels(const std::vector<int32_t>& labels) {
    std::set<int32_t> s(labels.begin(), labels.end());
    s.erase(0);
    return std::vector<int32_t>(s.begin(), s.end());
}

// Fraction of the labelled (non-zero) pixels whose truth is the most frequent
// truth of their label, each truth value serving one label.
inline double matchedAgreement(const std::vector<int32_t>& labels, const std::vector<int32_t>& truth) {
    std::map<int32_t, std::map<int32_t, long>> counts;  // label -> truth -> pixels
    long total = 0, hits = 0;
    for (size_t i = 0; i < labels.size(); ++i)
        if (labels[i] != 0) {
            ++counts[labels[i]][truth[i]];
            ++total;
        }
    std::set<int32_t> used;
    for (const auto& [label, byTruth] : counts) {
        const auto best = std::max_element(byTruth.begin(), byTruth.end(),
                                           [](const auto& a, const auto& b) { return a.second < b.second; });
        if (used.insert(best->first).second) hits += best->second;
    }
    return total == 0 ? 0.0 : static_cast<double>(hits) / static_cast<double>(total);
}

// Number of 8-connected pieces of equal non-zero value in a one-band map.
inline int pieces(Hraw map) {
    int count = 0;
    for (int start = 0; start < map.rows * map.cols; ++start) {
        const int32_t value = map.values[start];
        if (value == 0) continue;
        ++count;
        std::vector<int> stack{start};  // flood fill, clearing the piece
        map.values[start] = 0;
        while (!stack.empty()) {
            const int r = stack.back() / map.cols, c = stack.back() % map.cols;
            stack.pop_back();
            for (int rr = std::max(r - 1, 0); rr <= std::min(r + 1, map.rows - 1); ++rr)
                for (int cc = std::max(c - 1, 0); cc <= std::min(c + 1, map.cols - 1); ++cc)
                    if (map.values[rr * map.cols + cc] == value) {
                        map.values[rr * map.cols + cc] = 0;
                        stack.push_back(rr * map.cols + cc);
                    }
        }
    }
    return count;
}

// The numbers of the first "KEY = [ ... ];" line of a report.
inline std::vector<int32_t> listed(const std::string& report, const std::string& key) {
    const size_t at = report.find("\n" + key + " = [");
    std::istringstream in(at == std::string::npos ? std::string() : report.substr(report.find('[', at) + 1));
    std::vector<int32_t> values;
    for (int32_t v = 0; in >> v;) values.push_back(v);
    return values;
}

}  // namespace tooltest
