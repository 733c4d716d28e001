#include "settings/ConfigFileParser.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "settings/Fatal.h"

namespace {

// "\n", "\r\n", "\r" and "" all count as the empty line that closes a section,
// so that files written with CRLF endings keep their sections apart.
bool isEmptyLine(const char* line) {
    if (line[0] == '\r') ++line;
    return line[0] == '\n' || line[0] == '\0';
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// Splits an array or matrix value: skip the opening character, then elements
// end at a blank, a semicolon (end of a matrix row) or the closing brace.
// closed tells whether the closing brace was reached.
std::vector<std::string> splitElements(const std::string& value, bool& closed) {
    std::vector<std::string> out;
    closed = false;
    size_t i = value.empty() ? 0 : 1;
    while (i < value.size()) {
        while (i < value.size() && (isBlank(value[i]) || value[i] == ';')) ++i;
        if (i >= value.size()) break;
        if (value[i] == '}') {
            closed = true;
            break;
        }
        size_t start = i;
        while (i < value.size() && !isBlank(value[i]) && value[i] != ';' && value[i] != '}') ++i;
        out.push_back(value.substr(start, i - start));
    }
    return out;
}

char* newString(const std::string& s) {
    char* out = new char[s.size() + 1];
    std::memcpy(out, s.c_str(), s.size() + 1);
    return out;
}

template <typename T, typename Parse>
T* parseArray(const std::vector<std::string>& items, int n, Parse parse) {
    T* out = new T[n > 0 ? n : 0];
    for (int i = 0; i < n; ++i) out[i] = static_cast<T>(parse(items[i].c_str()));
    return out;
}

template <typename T, typename Parse>
T** parseMatrix(const std::vector<std::string>& items, int rows, int cols, Parse parse) {
    T** out = dhc::newRows<T>(rows, cols);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c)
            out[r][c] = static_cast<T>(parse(items[static_cast<size_t>(r) * cols + c].c_str()));
    return out;
}

long toLong(const char* s) {
    return std::strtol(s, nullptr, 10);
}
double toDouble(const char* s) {
    return std::strtod(s, nullptr);
}

}  // namespace

ConfigFileParser::ConfigFileParser(const std::string& fileName) {
    std::ifstream in(fileName, std::ios::binary);
    if (!in) return;
    open_ = true;
    text_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

ConfigFileParser ConfigFileParser::ofText(std::string text) {
    ConfigFileParser parser;
    parser.text_ = std::move(text);
    parser.open_ = true;
    return parser;
}

void ConfigFileParser::close() {
    open_ = false;
    text_.clear();
    at_ = 0;
    sectionStart_ = -1;
}

bool ConfigFileParser::nextLine(char (&line)[kLineSize]) {
    if (at_ >= text_.size()) return false;
    std::size_t n = 0;
    while (n + 1 < static_cast<std::size_t>(kLineSize) && at_ < text_.size()) {
        const char c = text_[at_++];
        line[n++] = c;
        if (c == '\n') break;
    }
    line[n] = '\0';
    return true;
}

bool ConfigFileParser::seekArgument(const std::string& section) {
    sectionStart_ = -1;
    if (!open_) return false;
    const std::string opening = "[" + section + "]";
    at_ = 0;
    char line[kLineSize];
    while (nextLine(line)) {
        if (std::strncmp(line, opening.c_str(), opening.size()) == 0) {
            sectionStart_ = static_cast<long>(at_);
            sectionFound_ = true;
            return true;
        }
    }
    return false;
}

bool ConfigFileParser::eoa() {
    if (!open_) return true;
    const std::size_t here = at_;
    char line[kLineSize];
    const bool empty = !nextLine(line) || isEmptyLine(line);
    at_ = here;
    return empty;
}

bool ConfigFileParser::scanSection(const std::string& key, std::string& value) {
    if (!open_ || sectionStart_ < 0) return false;
    at_ = static_cast<std::size_t>(sectionStart_);
    char line[kLineSize];
    while (nextLine(line) && !isEmptyLine(line)) {
        // A line without '=' is not a key line; it is skipped.
        const char* eq = std::strchr(line, '=');
        if (eq == nullptr) continue;
        if (key.size() != static_cast<size_t>(eq - line) || std::strncmp(line, key.c_str(), key.size()) != 0)
            continue;
        value.assign(eq + 1);
        if (!value.empty() && value.back() == '\n') value.pop_back();
        if (!value.empty() && value.back() == '\r') value.pop_back();
        return true;
    }
    return false;
}

bool ConfigFileParser::lookup(const std::string& key, std::string& value) {
    // Deliberately fatal: a lookup on a parser that has never found a section
    // means the file is not a configuration file at all.
    if (!sectionFound_) dhc::fatal(-1);
    return scanSection(key, value);
}

char* ConfigFileParser::seekPar(const std::string& key) {
    std::string value;
    if (!lookup(key, value)) return nullptr;
    char* out = new char[kLineSize]();
    std::strncpy(out, value.c_str(), kLineSize - 1);
    return out;
}

std::string ConfigFileParser::seekString(const std::string& key, const std::string& defaultValue) {
    std::string value;
    return lookup(key, value) ? value : defaultValue;
}

int ConfigFileParser::seekInt(const std::string& key, int defaultValue) {
    std::string value;
    return lookup(key, value) ? static_cast<int>(toLong(value.c_str())) : defaultValue;
}

float ConfigFileParser::seekFloat(const std::string& key, float defaultValue) {
    std::string value;
    return lookup(key, value) ? static_cast<float>(toDouble(value.c_str())) : defaultValue;
}

double ConfigFileParser::seekDouble(const std::string& key, double defaultValue) {
    std::string value;
    return lookup(key, value) ? toDouble(value.c_str()) : defaultValue;
}

bool ConfigFileParser::seekFlag(const std::string& key) {
    return seekInt(key, 0) != 0;
}

std::vector<std::string> ConfigFileParser::elements(const std::string& key, int n, bool& present) {
    std::string value;
    present = lookup(key, value);
    if (!present) return {};
    bool closed = false;
    std::vector<std::string> items = splitElements(value, closed);
    // Missing elements read as empty text (0 when parsed as numbers).
    items.resize(static_cast<size_t>(n > 0 ? n : 0));
    return items;
}

char** ConfigFileParser::seekArray(const std::string& key, int n) {
    bool present = false;
    std::vector<std::string> items = elements(key, n, present);
    if (!present) return nullptr;
    char** out = new char*[items.size()];
    for (size_t i = 0; i < items.size(); ++i) out[i] = newString(items[i]);
    return out;
}

char** ConfigFileParser::seekStringArray(const std::string& key, int n) {
    return seekArray(key, n);
}

int* ConfigFileParser::seekIntArray(const std::string& key, int n) {
    bool present = false;
    std::vector<std::string> items = elements(key, n, present);
    return present ? parseArray<int>(items, n, toLong) : nullptr;
}

float* ConfigFileParser::seekFloatArray(const std::string& key, int n) {
    bool present = false;
    std::vector<std::string> items = elements(key, n, present);
    return present ? parseArray<float>(items, n, toDouble) : nullptr;
}

double* ConfigFileParser::seekDoubleArray(const std::string& key, int n) {
    bool present = false;
    std::vector<std::string> items = elements(key, n, present);
    return present ? parseArray<double>(items, n, toDouble) : nullptr;
}

char*** ConfigFileParser::seekMatrix(const std::string& key, int rows, int cols) {
    bool present = false;
    const int r0 = rows > 0 ? rows : 0, c0 = cols > 0 ? cols : 0;
    std::vector<std::string> items = elements(key, r0 * c0, present);
    if (!present) return nullptr;
    char*** out = new char**[r0];
    for (int r = 0; r < r0; ++r) {
        out[r] = new char*[c0];
        for (int c = 0; c < c0; ++c) out[r][c] = newString(items[static_cast<size_t>(r) * c0 + c]);
    }
    return out;
}

int** ConfigFileParser::seekIntMatrix(const std::string& key, int rows, int cols) {
    bool present = false;
    std::vector<std::string> items = elements(key, rows * cols, present);
    return present ? parseMatrix<int>(items, rows, cols, toLong) : nullptr;
}

float** ConfigFileParser::seekFloatMatrix(const std::string& key, int rows, int cols) {
    bool present = false;
    std::vector<std::string> items = elements(key, rows * cols, present);
    return present ? parseMatrix<float>(items, rows, cols, toDouble) : nullptr;
}

double** ConfigFileParser::seekDoubleMatrix(const std::string& key, int rows, int cols) {
    bool present = false;
    std::vector<std::string> items = elements(key, rows * cols, present);
    return present ? parseMatrix<double>(items, rows, cols, toDouble) : nullptr;
}

void ConfigFileParser::freeStrings(char** strings, int n) {
    dhc::deleteRows(strings, n);
}

void ConfigFileParser::freeStringMatrix(char*** strings, int rows, int cols) {
    if (strings == nullptr) return;
    for (int r = 0; r < rows; ++r) freeStrings(strings[r], cols);
    delete[] strings;
}
