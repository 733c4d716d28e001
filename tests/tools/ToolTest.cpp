#include "ToolTest.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace tooltest {

namespace {

// Runs program with args in dir; standard output and error go through files.
Result runProgram(const std::string& program, const std::vector<std::string>& args, const std::string& dir) {
    const std::string outFile = dir + "/.stdout", errFile = dir + "/.stderr";
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int out = ::open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0 || ::chdir(dir.c_str()) != 0)
            ::_exit(127);
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    Result run;
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return run;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = readFile(outFile);
    run.err = readFile(errFile);
    std::filesystem::remove(outFile);
    std::filesystem::remove(errFile);
    return run;
}

}  // namespace

void ToolTest::SetUp() {
    const char* base = std::getenv("DHC_TEST_TMP");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/dhc-e2e-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
}

void ToolTest::TearDown() {
    if (!dir_.empty() && !HasFailure()) std::filesystem::remove_all(dir_);
}

Result ToolTest::dhc(const std::vector<std::string>& args) const {
    return runProgram(DHC_TOOL_PATH, args, dir_);
}

Result ToolTest::makeScene(const std::vector<std::string>& args) const {
    return runProgram(DHC_SCENE_PATH, args, dir_);
}

std::string ToolTest::read(const std::string& name) const {
    return readFile(path(name));
}

void ToolTest::write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
}

Hraw ToolTest::readHraw(const std::string& name) const {
    const std::string bytes = read(name);
    Hraw h;
    if (bytes.size() < 12) return h;
    std::vector<int32_t> words(bytes.size() / 4);
    std::memcpy(words.data(), bytes.data(), words.size() * sizeof(int32_t));
    h.bands = words[0];
    h.rows = words[1];
    h.cols = words[2];
    h.values.assign(words.begin() + 3, words.end());
    return h;
}

void ToolTest::writeHraw(const std::string& name, const Hraw& image) const {
    const int32_t header[3] = {image.bands, image.rows, image.cols};
    std::string bytes(reinterpret_cast<const char*>(header), sizeof header);
    bytes.append(reinterpret_cast<const char*>(image.values.data()), image.values.size() * sizeof(int32_t));
    write(name, bytes);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<int32_t> distinctLabels(const std::vector<int32_t>& labels) {
    std::set<int32_t> s(labels.begin(), labels.end());
    s.erase(0);
    return std::vector<int32_t>(s.begin(), s.end());
}

double matchedAgreement(const std::vector<int32_t>& labels, const std::vector<int32_t>& truth,
                        const std::vector<int32_t>& where) {
    std::map<int32_t, std::map<int32_t, long>> counts;  // label -> truth -> pixels
    long total = 0;
    for (size_t i = 0; i < labels.size(); ++i)
        if (where.empty() || where[i] != 0) {
            ++counts[labels[i]][truth[i]];
            ++total;
        }
    long hits = 0;
    std::set<int32_t> used;
    for (const auto& [label, byTruth] : counts) {
        const auto best = std::max_element(byTruth.begin(), byTruth.end(),
                                           [](const auto& a, const auto& b) { return a.second < b.second; });
        if (used.insert(best->first).second) hits += best->second;
    }
    return total == 0 ? 0.0 : static_cast<double>(hits) / static_cast<double>(total);
}

int pieces(const Hraw& map) {
    std::vector<bool> seen(map.values.size(), false);
    int count = 0;
    for (size_t start = 0; start < map.values.size(); ++start) {
        if (seen[start] || map.values[start] == 0) continue;
        ++count;
        seen[start] = true;
        std::vector<size_t> stack{start};
        while (!stack.empty()) {
            const int r = static_cast<int>(stack.back()) / map.cols,
                      c = static_cast<int>(stack.back()) % map.cols;
            stack.pop_back();
            for (int rr = std::max(r - 1, 0); rr <= std::min(r + 1, map.rows - 1); ++rr)
                for (int cc = std::max(c - 1, 0); cc <= std::min(c + 1, map.cols - 1); ++cc) {
                    const size_t q = static_cast<size_t>(rr * map.cols + cc);
                    if (seen[q] || map.values[q] != map.values[start]) continue;
                    seen[q] = true;
                    stack.push_back(q);
                }
        }
    }
    return count;
}

std::vector<int32_t> listed(const std::string& report, const std::string& key) {
    const size_t at = report.find("\n" + key + " = [");
    std::istringstream in(at == std::string::npos ? std::string() : report.substr(report.find('[', at) + 1));
    std::vector<int32_t> values;
    for (int32_t v = 0; in >> v;) values.push_back(v);
    return values;
}

}  // namespace tooltest
