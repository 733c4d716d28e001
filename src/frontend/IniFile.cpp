#include "frontend/IniFile.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/InputError.h"
#include "frontend/InputFile.h"
#include "frontend/SettingsCheck.h"
#include "settings/ConfigFileParser.h"
#include "settings/DHC_SET.h"

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

// "{a b c}": integers separated by blanks between braces, exactly as the
// library's reader takes them.  The reader skips the first character after
// '=' whatever it is, ends the list at '}' and ignores what follows, and reads
// each item as the longest integer prefix; so the brace must follow '='
// directly, every item must be a whole integer, and only blanks may follow
// the closing brace.
bool parseIntArray(const std::string& text, std::vector<int>& values) {
    if (text.empty() || text[0] != '{') return false;
    std::vector<int> out;
    size_t i = 1;
    for (;;) {
        while (i < text.size() && isBlank(text[i])) ++i;
        if (i >= text.size()) return false;  // no closing brace
        if (text[i] == '}') break;
        const size_t start = i;
        while (i < text.size() && !isBlank(text[i]) && text[i] != '}') ++i;
        int v = 0;
        if (!parseInt(text.substr(start, i - start), v)) return false;
        out.push_back(v);
    }
    for (++i; i < text.size(); ++i)
        if (!isBlank(text[i])) return false;
    values.swap(out);
    return true;
}

// The first byte the reader would misread: a control character (NUL cuts the
// line short, others are no part of any value), or a carriage return that is
// not the line's last character.  npos when there is none.
size_t controlByte(const std::string& line) {
    for (size_t i = 0; i < line.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(line[i]);
        if (c == '\t' || (c == '\r' && i + 1 == line.size())) continue;
        if (c < 0x20 || c == 0x7f) return i;
    }
    return std::string::npos;
}

std::string byteText(unsigned char c) {
    static const char* const kHex = "0123456789abcdef";
    return std::string("byte 0x") + kHex[c >> 4] + kHex[c & 15];
}

using dhc::SettingKind;
using dhc::SettingRow;

const char* kindText(SettingKind kind) {
    switch (kind) {
        case SettingKind::Flag:
            return "0 or 1";
        case SettingKind::Int:
            return "an integer";
        case SettingKind::Double:
            return "a number";
        case SettingKind::IntArray:
            return "a list of integers in braces, e.g. {1 2}";
    }
    return "";
}

}  // namespace

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
    return IniFile(path, dhc::readInputFile(path, "configuration", dhc::kMaxConfigBytes));
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

void IniFile::checkValue(const SettingRow& setting, const std::string& text, const std::string& where,
                         int status) {
    int i = 0;
    double d = 0.0;
    std::vector<int> a;
    bool ok = false;
    switch (setting.kind) {
        case SettingKind::Flag:
            ok = parseInt(text, i) && (i == 0 || i == 1);
            break;
        case SettingKind::Int:
            ok = parseInt(text, i);
            break;
        case SettingKind::Double:
            ok = parseDouble(text, d);
            break;
        case SettingKind::IntArray:
            ok = parseIntArray(text, a);
            break;
    }
    if (!ok) {
        // The reader skips exactly one character after '=': say so when a blank took the brace's place.
        const bool blankFirst = setting.kind == SettingKind::IntArray && !text.empty() && isBlank(text[0]);
        const std::string expected = blankFirst ? std::string("a list in braces with '{' directly after '='")
                                                : std::string(kindText(setting.kind));
        throw InputError(status,
                         where + ": " + setting.key + " must be " + expected + ", not \"" + text + "\"");
    }
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
    const SettingRow* setting = dhc::findSetting(section.c_str(), key.c_str());
    if (setting == nullptr)
        throw InputError(kExitUsage, "--set \"" + assignment + "\": unknown setting " + section + "." + key);
    if (text.find_first_of("\r\n") != std::string::npos)
        throw InputError(kExitUsage, where + ": the value must be on one line");
    const size_t control = controlByte(text);
    if (control != std::string::npos)
        throw InputError(kExitUsage, where + ": control character (" +
                                         byteText(static_cast<unsigned char>(text[control])) +
                                         ") in the value");
    checkValue(*setting, text, where, kExitUsage);
    assign(section, key, text, where);
}

void IniFile::assign(const std::string& section, const std::string& key, const std::string& text,
                     const std::string& origin) {
    if (dhc::findSetting(section.c_str(), key.c_str()) == nullptr)
        throw InputError(kExitInput, origin + ": unknown setting " + section + "." + key);
    if (text.find_first_of("\r\n") != std::string::npos)
        throw InputError(kExitInput, origin + ": the value must be on one line");
    const Line line{key + "=" + text, origin};
    const std::string& where = origin;
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
    for (const Line& l : lines_) {
        if (l.text.size() > kMaxLine)
            throw InputError(kExitInput,
                             l.origin + ": line longer than " + std::to_string(kMaxLine) + " characters");
        const size_t control = controlByte(l.text);
        if (control != std::string::npos)
            throw InputError(kExitInput, l.origin + ": control character (" +
                                             byteText(static_cast<unsigned char>(l.text[control])) +
                                             ") in the line");
    }
    if (sectionLine("SEGM_MAIN_CONFIGURATION") < 0)
        throw InputError(kExitInput, name_ + ": no [SEGM_MAIN_CONFIGURATION] section");
    // The reader matches a key only when it stands alone before '=': a blank
    // around it would make the reader pass the line by.
    for (const SettingRow& setting : dhc::settingsTable()) {
        const int s = sectionLine(setting.section);
        if (s < 0) continue;
        for (int i = s + 1; i < sectionEnd(s); ++i) {
            const std::string& t = lines_[i].text;
            const size_t eq = t.find('=');
            if (eq == std::string::npos || t.compare(0, eq, setting.key) == 0) continue;
            if (trimBlanks(t.substr(0, eq)) == setting.key)
                throw InputError(kExitInput, lines_[i].origin + ": blank around the key " + setting.key +
                                                 " (write " + setting.key + "=value)");
        }
    }
    for (const SettingRow& setting : dhc::settingsTable()) {
        const int s = sectionLine(setting.section);
        if (s < 0) continue;
        const int k = keyLine(s, setting.key);
        if (k < 0) continue;
        const std::string text = stripCr(lines_[k].text.substr(std::strlen(setting.key) + 1));
        // An override carries its own origin, which already names the setting.
        checkValue(setting, text, lines_[k].origin, kExitInput);
    }
}

std::string IniFile::origin(const std::string& section, const std::string& key) const {
    const int s = sectionLine(section);
    const int k = s < 0 ? -1 : keyLine(s, key);
    if (k >= 0) return lines_[k].origin;
    return name_ + ": " + section + "." + key + " (missing, read as 0)";
}

bool IniFile::intValue(const std::string& section, const std::string& key, int& out) const {
    std::string t;
    return value(section, key, t) && parseInt(t, out);
}

bool IniFile::intArray(const std::string& section, const std::string& key, std::vector<int>& out) const {
    std::string t;
    return value(section, key, t) && parseIntArray(t, out);
}

std::string IniFile::text() const {
    std::string out;
    for (size_t i = 0; i < lines_.size(); ++i) {
        out += lines_[i].text;
        if (i + 1 < lines_.size() || finalNewline_) out += '\n';
    }
    return out;
}

// The library's own reader reads the checked text from memory, by the rules
// it applies to a file.
std::unique_ptr<DHC_SET> readSettings(const IniFile& ini) {
    ConfigFileParser parser = ConfigFileParser::ofText(ini.text());
    return std::make_unique<DHC_SET>(parser);
}

dhc::SettingNames settingNames(const IniFile& ini) {
    return [&ini](dhc::Setting s) {
        const dhc::SettingName key = dhc::iniName(s);
        return dhc::SettingName{ini.origin(dhc::settingRow(s).section, key.name), key.name};
    };
}

std::unique_ptr<DHC_SET> readCheckedSettings(const IniFile& ini) {
    ini.check();
    dhc::GivenStructure structure;
    ini.intArray("SUPERVISED_MODE_CONF", "StructureLevels", structure.levels);
    ini.intArray("SUPERVISED_MODE_CONF", "StructurePaths", structure.paths);
    const dhc::SettingNames names = settingNames(ini);
    // The reader allocates the structure by NumberOfClasses and the levels:
    // they are judged before it runs, the rest on what it read.
    int supervisedMode = 0, classes = 0;
    if (ini.intValue("SEGM_MAIN_CONFIGURATION", "SupervisedMode", supervisedMode) && supervisedMode != 0) {
        ini.intValue("SUPERVISED_MODE_CONF", "NumberOfClasses", classes);
        dhc::checkClassStructure(classes, DHC_SET().maxLabels, structure, names);
    }
    std::unique_ptr<DHC_SET> settings = readSettings(ini);
    dhc::checkSettings(*settings, structure, names);
    return settings;
}
