#include "ToolTest.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
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
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
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
    std::remove(outFile.c_str());
    std::remove(errFile.c_str());
    return run;
}

}  // namespace

void ToolTest::SetUp() {
    const char* base = std::getenv("DHC_TEST_TMP");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/dhc-e2e-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    ASSERT_NE(::mkdtemp(buffer.data()), nullptr);
    dir_ = buffer.data();
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

std::string ToolTest::writeText(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
}

std::vector<std::string> ToolTest::files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool fileExists(const std::string& path) {
    return std::filesystem::exists(path);
}

void writeHraw(const std::string& path, const Hraw& image) {
    std::ofstream out(path, std::ios::binary);
    const int32_t header[3] = {image.bands, image.rows, image.cols};
    out.write(reinterpret_cast<const char*>(header), sizeof header);
    out.write(reinterpret_cast<const char*>(image.values.data()),
              static_cast<std::streamsize>(image.values.size() * sizeof(int32_t)));
}

Hraw readHraw(const std::string& path) {
    const std::string bytes = readFile(path);
    Hraw h;
    if (bytes.size() < 12) return h;
    int32_t header[3];
    std::copy(bytes.data(), bytes.data() + 12, reinterpret_cast<char*>(header));
    h.bands = header[0];
    h.rows = header[1];
    h.cols = header[2];
    const size_t n = (bytes.size() - 12) / 4;
    h.values.resize(n);
    std::copy(bytes.data() + 12, bytes.data() + 12 + 4 * n, reinterpret_cast<char*>(h.values.data()));
    return h;
}

Hraw plane(int rows, int cols, const std::vector<int32_t>& values) {
    return Hraw{1, rows, cols, values};
}

std::vector<int32_t> distinctLabels(const std::vector<int32_t>& labels) {
    std::set<int32_t> s;
    for (int32_t v : labels)
        if (v != 0) s.insert(v);
    return std::vector<int32_t>(s.begin(), s.end());
}

double matchedAgreement(const std::vector<int32_t>& labels, const std::vector<int32_t>& truth,
                        const std::vector<int32_t>& where) {
    // Contingency table, then the best injective pairing by exhaustive search
    // (the tests compare a handful of classes).
    std::map<int32_t, int> li, ti;
    std::vector<std::vector<long>> table;
    long total = 0;
    for (size_t i = 0; i < labels.size(); ++i) {
        if (!where.empty() && where[i] == 0) continue;
        ++total;
        const int a = li.emplace(labels[i], static_cast<int>(li.size())).first->second;
        const int b = ti.emplace(truth[i], static_cast<int>(ti.size())).first->second;
        if (table.size() <= static_cast<size_t>(a)) table.resize(static_cast<size_t>(a) + 1);
        for (auto& row : table)
            if (row.size() < ti.size()) row.resize(ti.size(), 0);
        ++table[static_cast<size_t>(a)][static_cast<size_t>(b)];
    }
    if (total == 0 || li.size() > 9 || ti.size() > 9) return 0.0;
    for (auto& row : table) row.resize(ti.size(), 0);
    std::vector<bool> used(ti.size(), false);
    std::function<long(size_t)> best = [&](size_t row) -> long {
        if (row == table.size()) return 0;
        long b = best(row + 1);  // this label matched to nothing
        for (size_t c = 0; c < used.size(); ++c) {
            if (used[c]) continue;
            used[c] = true;
            b = std::max(b, table[row][c] + best(row + 1));
            used[c] = false;
        }
        return b;
    };
    return static_cast<double>(best(0)) / static_cast<double>(total);
}

namespace {

std::vector<int> numbers(const std::string& text) {
    std::vector<int> out;
    std::istringstream s(text);
    int v = 0;
    while (s >> v) out.push_back(v);
    return out;
}

// The text between "[" and "]" of a "Name = [ ... ];" line.
std::string bracketed(const std::string& line) {
    const size_t a = line.find('['), b = line.rfind(']');
    return a == std::string::npos || b == std::string::npos || b < a ? std::string()
                                                                     : line.substr(a + 1, b - a - 1);
}

}  // namespace

std::vector<WorkspaceBlock> parseReport(const std::string& text) {
    std::vector<WorkspaceBlock> blocks;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line == "[NEW WORKSPACE]") {
            blocks.emplace_back();
            continue;
        }
        if (blocks.empty()) continue;
        WorkspaceBlock& w = blocks.back();
        auto value = [&line]() { return std::atoi(line.substr(line.find('=') + 1).c_str()); };
        if (line.rfind("WSLab = ", 0) == 0)
            w.label = value();
        else if (line.rfind("Path = ", 0) == 0)
            w.path = numbers(bracketed(line));
        else if (line.rfind("Children = ", 0) == 0)
            w.children = numbers(bracketed(line));
        else if (line.rfind("Offspring = ", 0) == 0)
            w.offspring = numbers(bracketed(line));
        else if (line.rfind("Area = ", 0) == 0)
            w.area = value();
        else if (line.rfind("Split = ", 0) == 0)
            w.split = value() != 0;
        else if (line.rfind("Terminal = ", 0) == 0)
            w.terminal = value() != 0;
    }
    return blocks;
}

}  // namespace tooltest
