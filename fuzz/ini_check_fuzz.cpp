// The tool's configuration check on arbitrary text and --set overrides: a text
// the check accepts must read without a fatal status, and every setting must
// read as the value the check judged (the check and the reader agree).
//
// Input: configuration text, then optionally '\x02' and overrides separated by
// '\x02'.  The settings are then read as the tool reads them
// (readCheckedSettings).  The text of a value with blanks around it is not
// compared: the check trims them, the reader's text keeps them.

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "frontend/IniFile.h"
#include "base/InputError.h"
#include "settings/ConfigFileParser.h"
#include "settings/DHC_SET.h"
#include "settings/SettingsTable.h"

using namespace dhc::fuzz;

namespace {

bool hasOuterBlank(const std::string& v) {
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    return !v.empty() && (blank(v.front()) || blank(v.back()));
}

// The accepted value's meaning, parsed independently of both sides.
bool intValue(const std::string& t, long& v) {
    char* end = nullptr;
    errno = 0;
    v = std::strtol(t.c_str(), &end, 10);
    return !t.empty() && *end == '\0' && errno == 0 && v >= INT_MIN && v <= INT_MAX;
}

std::vector<int> arrayValue(const std::string& t) {
    std::vector<int> out;
    std::istringstream items(t.substr(1, t.size() - 2));
    std::string item;
    long v = 0;
    while (items >> item)
        if (intValue(item, v)) out.push_back(static_cast<int>(v));
    return out;
}

// Every setting as the library's reader sees the checked text.
void compareWithReader(const IniFile& ini) {
    ConfigFileParser reader = ConfigFileParser::ofText(ini.text());
    for (const dhc::SettingRow& s : dhc::settingsTable()) {
        std::string text;
        const bool present = ini.value(s.section, s.key, text);
        if (present && hasOuterBlank(text)) continue;
        if (!reader.seekArgument(s.section)) {
            if (present) broken(std::string("reader misses section ") + s.section);
            continue;
        }
        const std::string read = reader.seekString(s.key, "\x01");
        const bool found = read != "\x01" || reader.seekString(s.key, "\x02") != "\x02";
        if (present != found || (present && read != text))
            broken(std::string("check and reader see different text for ") + s.key);
        if (!present) continue;
        switch (s.kind) {
            case dhc::SettingKind::Flag:
            case dhc::SettingKind::Int: {
                long v = 0;
                if (!intValue(text, v) || reader.seekInt(s.key, 0) != v)
                    broken(std::string("integer read differently: ") + s.key + "=" + text);
                break;
            }
            case dhc::SettingKind::Double: {
                const double v = std::strtod(text.c_str(), nullptr);
                if (!(reader.seekDouble(s.key, 0.0) == v))
                    broken(std::string("number read differently: ") + s.key);
                break;
            }
            case dhc::SettingKind::IntArray: {
                const std::vector<int> v = arrayValue(text);
                const int n = static_cast<int>(v.size());
                int* a = reader.seekIntArray(s.key, n);
                for (int i = 0; i < n; ++i)
                    if (a[i] != v[static_cast<size_t>(i)])
                        broken(std::string("list read differently: ") + s.key);
                delete[] a;
                break;
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t split = input.find('\x02');
    IniFile ini("fuzz.ini", input.substr(0, split));
    size_t at = split;
    while (at != std::string::npos) {
        const size_t next = input.find('\x02', at + 1);
        const std::string assignment =
            input.substr(at + 1, next == std::string::npos ? std::string::npos : next - at - 1);
        try {
            ini.applyOverride(assignment);
        } catch (const InputError& e) {
            if (e.status() != kExitUsage) broken("override refused with a status other than usage");
        }
        at = next;
    }
    try {
        ini.check();
    } catch (const InputError& e) {
        if (e.status() != kExitInput) broken("check refused with a status other than input");
        if (std::string(e.what()).find('\n') != std::string::npos) broken("message spans lines");
        return 0;
    }
    compareWithReader(ini);
    try {
        std::unique_ptr<DHC_SET> settings = readCheckedSettings(ini);
    } catch (const InputError& e) {
        // What the text check passed, the setting check may still refuse (ranges).
        if (e.status() != kExitInput) broken("settings refused with a status other than input");
        if (std::string(e.what()).find('\n') != std::string::npos) broken("message spans lines");
    } catch (const FatalStatus& f) {
        broken("checked configuration ends in fatal status " + std::to_string(f.status));
    }
    return 0;
}
