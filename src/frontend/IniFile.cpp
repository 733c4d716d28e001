#include "frontend/IniFile.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "settings/DHC_SET.h"
#include "settings/FileName.h"

namespace {

// The library reads lines in chunks of 1023 characters; a longer line would be
// read as two, so it is refused.
constexpr size_t kMaxLine = 1022;

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// An empty line closes a section; "\r" alone counts as empty (CRLF files).
bool isEmpty(const std::string& line) {
    return line.empty() || line == "\r";
}

// The value as the library sees it: without the one trailing carriage return.
std::string stripCr(std::string s) {
    if (!s.empty() && s.back() == '\r') s.pop_back();
    return s;
}

std::string trimBlanks(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && isBlank(s[b])) ++b;
    while (e > b && isBlank(s[e - 1])) --e;
    return s.substr(b, e - b);
}

bool parseInt(const std::string& text, int& value) {
    const std::string t = trimBlanks(text);
    if (t.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(t.c_str(), &end, 10);
    if (*end != '\0' || errno == ERANGE || v < INT_MIN || v > INT_MAX) return false;
    value = static_cast<int>(v);
    return true;
}

bool parseDouble(const std::string& text, double& value) {
    const std::string t = trimBlanks(text);
    if (t.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(t.c_str(), &end);
    if (*end != '\0' || errno == ERANGE || !std::isfinite(v)) return false;
    value = v;
    return true;
}

// "{a b c}": integers between braces.  Items are separated exactly as the
// reader separates them, by spaces and tabs: any other white space (a carriage
// return, a form feed) belongs to an item, which then is no integer.
bool parseIntArray(const std::string& text, std::vector<int>& values) {
    const std::string t = trimBlanks(text);
    if (t.size() < 2 || t.front() != '{' || t.back() != '}') return false;
    std::vector<int> out;
    const size_t end = t.size() - 1;
    size_t i = 1;
    while (i < end) {
        if (isBlank(t[i])) {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < end && !isBlank(t[j])) ++j;
        int v = 0;
        if (!parseInt(t.substr(i, j - i), v)) return false;
        out.push_back(v);
        i = j;
    }
    values.swap(out);
    return true;
}

const char* kindText(IniFile::Kind kind) {
    switch (kind) {
        case IniFile::Kind::Flag:
            return "0 or 1";
        case IniFile::Kind::Int:
            return "an integer";
        case IniFile::Kind::Double:
            return "a number";
        case IniFile::Kind::IntArray:
            return "a list of integers in braces, e.g. {1 2}";
    }
    return "";
}

}  // namespace

const std::vector<IniFile::Setting>& IniFile::settings() {
    static const std::vector<Setting> all = {
        {"SEGM_MAIN_CONFIGURATION", "SupervisedMode", Kind::Flag},
        {"UNSUPERVISED_MODE_CONF", "VariableMultiplicity", Kind::Flag},
        {"UNSUPERVISED_MODE_CONF", "SplitGainThreshold", Kind::Double},
        {"UNSUPERVISED_MODE_CONF", "MaxNumberOfClasses", Kind::Int},
        {"UNSUPERVISED_MODE_CONF", "Fragmentation", Kind::Flag},
        {"UNSUPERVISED_MODE_CONF", "DoubleSplit", Kind::Flag},
        {"UNSUPERVISED_MODE_CONF", "BalancedTree", Kind::Flag},
        {"UNSUPERVISED_MODE_CONF", "GrowDepth", Kind::Int},
        {"UNSUPERVISED_MODE_CONF", "MinRegionArea", Kind::Double},
        {"UNSUPERVISED_MODE_CONF", "Blind", Kind::Flag},
        {"UNSUPERVISED_MODE_CONF", "Metric", Kind::Int},
        {"UNSUPERVISED_MODE_CONF", "DistortionThreshold", Kind::Double},
        {"UNSUPERVISED_MODE_CONF", "SplitwiseDisconnect", Kind::Flag},
        {"UNSUPERVISED_MODE_CONF", "BlindSplitDepthMax", Kind::Double},
        {"UNSUPERVISED_MODE_CONF", "BlindSplitAreaMin", Kind::Double},
        {"UNSUPERVISED_MODE_CONF", "BlindSplitMSEMin", Kind::Double},
        {"SUPERVISED_MODE_CONF", "NumberOfClasses", Kind::Int},
        {"SUPERVISED_MODE_CONF", "StructureLevels", Kind::IntArray},
        {"SUPERVISED_MODE_CONF", "StructurePaths", Kind::IntArray},
        {"POTTS_MODEL", "Adaptive", Kind::Flag},
        {"POTTS_MODEL", "BetaBound", Kind::Double},
        {"POTTS_MODEL", "BetaMax", Kind::Double},
        {"POTTS_MODEL", "BetaMin", Kind::Double},
        {"POTTS_MODEL", "Multiplicity", Kind::Int},
        {"POTTS_MODEL", "RangeBandwidth", Kind::Double},
        {"POTTS_MODEL", "SpatialBandwidth", Kind::Double},
        {"MEANSHIFT", "AutoAdjustKNN", Kind::Int},
        {"MEANSHIFT", "SkipLast", Kind::Double},
        {"MEANSHIFT", "Tolerance", Kind::Double},
        {"MEANSHIFT", "KernelType", Kind::Int},
    };
    return all;
}

const IniFile::Setting* IniFile::findSetting(const std::string& section, const std::string& key) {
    for (const Setting& s : settings())
        if (section == s.section && key == s.key) return &s;
    return nullptr;
}

IniFile::IniFile(std::string name, const std::string& text) : name_(std::move(name)) {
    size_t start = 0;
    int number = 1;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            finalNewline_ = false;
            end = text.size();
        }
        lines_.push_back({text.substr(start, end - start), name_ + ":" + std::to_string(number++)});
        start = end + 1;
    }
}

IniFile IniFile::fromFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw InputError(kExitInput, "cannot open configuration \"" + path + "\": " + std::strerror(errno));
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) throw InputError(kExitInput, "cannot read configuration \"" + path + "\"");
    return IniFile(path, text.str());
}

int IniFile::sectionLine(const std::string& section) const {
    const std::string opening = "[" + section + "]";
    for (size_t i = 0; i < lines_.size(); ++i)
        if (lines_[i].text.compare(0, opening.size(), opening) == 0) return static_cast<int>(i);
    return -1;
}

int IniFile::sectionEnd(int s) const {
    int i = s + 1;
    while (i < static_cast<int>(lines_.size()) && !isEmpty(lines_[i].text)) ++i;
    return i;
}

int IniFile::keyLine(int s, const std::string& key) const {
    const int end = sectionEnd(s);
    for (int i = s + 1; i < end; ++i) {
        const std::string& t = lines_[i].text;
        const size_t eq = t.find('=');
        if (eq != std::string::npos && t.compare(0, eq, key) == 0 && eq == key.size()) return i;
    }
    return -1;
}

bool IniFile::value(const std::string& section, const std::string& key, std::string& out) const {
    const int s = sectionLine(section);
    if (s < 0) return false;
    const int k = keyLine(s, key);
    if (k < 0) return false;
    out = stripCr(lines_[k].text.substr(key.size() + 1));
    return true;
}

void IniFile::checkValue(const Setting& setting, const std::string& text, const std::string& where,
                         int status) {
    int i = 0;
    double d = 0.0;
    std::vector<int> a;
    bool ok = false;
    switch (setting.kind) {
        case Kind::Flag:
            ok = parseInt(text, i) && (i == 0 || i == 1);
            break;
        case Kind::Int:
            ok = parseInt(text, i);
            break;
        case Kind::Double:
            ok = parseDouble(text, d);
            break;
        case Kind::IntArray:
            ok = parseIntArray(text, a);
            break;
    }
    if (!ok)
        throw InputError(status, where + ": " + setting.key + " must be " + kindText(setting.kind) +
                                     ", not \"" + text + "\"");
}

void IniFile::applyOverride(const std::string& assignment) {
    const std::string where = "--set " + assignment;
    const size_t dot = assignment.find('.');
    const size_t eq = assignment.find('=');
    if (dot == std::string::npos || eq == std::string::npos || dot > eq || dot == 0 || eq == dot + 1)
        throw InputError(kExitUsage, "--set \"" + assignment + "\": expected SECTION.Key=value");
    const std::string section = assignment.substr(0, dot);
    const std::string key = assignment.substr(dot + 1, eq - dot - 1);
    const std::string text = assignment.substr(eq + 1);
    const Setting* setting = findSetting(section, key);
    if (setting == nullptr)
        throw InputError(kExitUsage, "--set \"" + assignment + "\": unknown setting " + section + "." + key);
    if (text.find_first_of("\r\n") != std::string::npos)
        throw InputError(kExitUsage, where + ": the value must be on one line");
    checkValue(*setting, text, where, kExitUsage);

    const Line line{key + "=" + text, where};
    const int s = sectionLine(section);
    if (s < 0) {
        if (!lines_.empty() && !isEmpty(lines_.back().text)) lines_.push_back({"", where});
        lines_.push_back({"[" + section + "]", where});
        lines_.push_back(line);
        finalNewline_ = true;
        return;
    }
    const int k = keyLine(s, key);
    if (k >= 0)
        lines_[k] = line;
    else
        lines_.insert(lines_.begin() + s + 1, line);
}

void IniFile::check() const {
    for (const Line& l : lines_)
        if (l.text.size() > kMaxLine)
            throw InputError(kExitInput,
                             l.origin + ": line longer than " + std::to_string(kMaxLine) + " characters");
    if (sectionLine("SEGM_MAIN_CONFIGURATION") < 0)
        throw InputError(kExitInput, name_ + ": no [SEGM_MAIN_CONFIGURATION] section");
    for (const Setting& setting : settings()) {
        const int s = sectionLine(setting.section);
        if (s < 0) continue;
        const int k = keyLine(s, setting.key);
        if (k < 0) continue;
        const std::string text = stripCr(lines_[k].text.substr(std::strlen(setting.key) + 1));
        // An override carries its own origin, which already names the setting.
        checkValue(setting, text, lines_[k].origin, kExitInput);
    }
    checkSemantics();
}

// Values that parse but would make the run end abruptly, loop without end or
// build an inconsistent class structure.
void IniFile::checkSemantics() const {
    auto where = [this](const char* section, const char* key) {
        const int s = sectionLine(section);
        const int k = s < 0 ? -1 : keyLine(s, key);
        if (k >= 0) return lines_[k].origin;
        return name_ + ": " + section + "." + key + " (missing, read as 0)";
    };
    auto integer = [this](const char* section, const char* key) {
        std::string t;
        int v = 0;
        return value(section, key, t) && parseInt(t, v) ? v : 0;
    };
    auto real = [this](const char* section, const char* key) {
        std::string t;
        double v = 0.0;
        return value(section, key, t) && parseDouble(t, v) ? v : 0.0;
    };

    const double betaMin = real("POTTS_MODEL", "BetaMin"), betaMax = real("POTTS_MODEL", "BetaMax");
    if (betaMin > betaMax) {
        std::ostringstream m;
        m << where("POTTS_MODEL", "BetaMin") << ": BetaMin must not exceed BetaMax (" << betaMax << ")";
        throw InputError(kExitInput, m.str());
    }

    if (integer("SEGM_MAIN_CONFIGURATION", "SupervisedMode") == 0) {
        const bool variable = integer("UNSUPERVISED_MODE_CONF", "VariableMultiplicity") != 0;
        if (!variable && integer("POTTS_MODEL", "Multiplicity") < 2)
            throw InputError(kExitInput, where("POTTS_MODEL", "Multiplicity") +
                                             ": Multiplicity must be at least 2 (children per split)");
        const bool blindLimits = real("UNSUPERVISED_MODE_CONF", "BlindSplitDepthMax") != 0.0 ||
                                 real("UNSUPERVISED_MODE_CONF", "BlindSplitAreaMin") != 0.0 ||
                                 real("UNSUPERVISED_MODE_CONF", "BlindSplitMSEMin") != 0.0;
        const int metric = integer("UNSUPERVISED_MODE_CONF", "Metric");
        if (integer("UNSUPERVISED_MODE_CONF", "Blind") != 0 && !blindLimits && (metric < 0 || metric > 8))
            throw InputError(kExitInput,
                             where("UNSUPERVISED_MODE_CONF", "Metric") + ": Metric must be 0 to 8");
        return;
    }

    // Supervised: the class structure must describe a tree whose leaves are the classes.
    const int n = integer("SUPERVISED_MODE_CONF", "NumberOfClasses");
    if (n < 1)
        throw InputError(kExitInput, where("SUPERVISED_MODE_CONF", "NumberOfClasses") +
                                         ": NumberOfClasses must be at least 1 in supervised mode");
    std::string text;
    std::vector<int> levels, paths;
    if (!value("SUPERVISED_MODE_CONF", "StructureLevels", text) || !parseIntArray(text, levels) ||
        static_cast<int>(levels.size()) != n)
        throw InputError(kExitInput, where("SUPERVISED_MODE_CONF", "StructureLevels") +
                                         ": StructureLevels must list " + std::to_string(n) +
                                         " path lengths (NumberOfClasses)");
    long total = 0;
    for (int l : levels) {
        if (l < 1)
            throw InputError(kExitInput, where("SUPERVISED_MODE_CONF", "StructureLevels") +
                                             ": every path length must be at least 1");
        total += l;
    }
    if (!value("SUPERVISED_MODE_CONF", "StructurePaths", text) || !parseIntArray(text, paths) ||
        static_cast<long>(paths.size()) != total)
        throw InputError(kExitInput, where("SUPERVISED_MODE_CONF", "StructurePaths") +
                                         ": StructurePaths must hold " + std::to_string(total) +
                                         " entries (the sum of StructureLevels)");

    // Rebuild the tree the way the driver does: paths in lexicographic order
    // (zero-padded), each entry naming an existing child or the next new one.
    std::vector<std::vector<int>> list;
    size_t at = 0;
    for (int l : levels) {
        list.emplace_back(paths.begin() + static_cast<long>(at), paths.begin() + static_cast<long>(at + l));
        at += static_cast<size_t>(l);
    }
    const std::string pathsWhere = where("SUPERVISED_MODE_CONF", "StructurePaths");
    for (size_t i = 0; i < list.size(); ++i)
        for (size_t j = 0; j < list.size(); ++j) {
            if (i == j) continue;
            const auto& a = list[i];
            const auto& b = list[j];
            if (a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin()))
                throw InputError(kExitInput, pathsWhere + ": class path " + std::to_string(i + 1) +
                                                 (a.size() == b.size() ? " repeats" : " is a prefix of") +
                                                 " class path " + std::to_string(j + 1));
        }
    std::vector<std::vector<int>> sorted = list;
    std::sort(sorted.begin(), sorted.end());
    struct Node {
        std::vector<int> children;  // indices into nodes
    };
    std::vector<Node> nodes(1);
    for (const auto& p : sorted) {
        size_t cur = 0;
        for (int e : p) {
            const int count = static_cast<int>(nodes[cur].children.size());
            if (e < 0 || e > count)
                throw InputError(kExitInput,
                                 pathsWhere + ": path entry " + std::to_string(e) +
                                     " skips a child index (paths must number children 0, 1, 2, ...)");
            if (e == count) {
                nodes[cur].children.push_back(static_cast<int>(nodes.size()));
                nodes.emplace_back();
            }
            cur = static_cast<size_t>(nodes[cur].children[static_cast<size_t>(e)]);
        }
    }
}

std::string IniFile::text() const {
    std::string out;
    for (size_t i = 0; i < lines_.size(); ++i) {
        out += lines_[i].text;
        if (i + 1 < lines_.size() || finalNewline_) out += '\n';
    }
    return out;
}

// The library reads its settings from a file: the checked configuration goes
// to a temporary file whose name stays within the reader's name limit.
std::unique_ptr<DHC_SET> readSettings(const IniFile& ini) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/dhc-ini-XXXXXX";
    if (pattern.size() > dhc::kFileNameLimit) pattern = "/tmp/dhc-ini-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0)
        throw InputError(kExitInput, "cannot create a temporary file: " + std::string(std::strerror(errno)));
    const std::string text = ini.text();
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0) {
            const int err = errno;
            ::close(fd);
            ::unlink(name.data());
            throw InputError(kExitInput, "cannot write a temporary file: " + std::string(std::strerror(err)));
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    auto settings = std::make_unique<DHC_SET>(std::string(name.data()));
    ::unlink(name.data());
    return settings;
}
