#pragma once
// Reader of ini-style configuration text: a file, or text already in memory
// (the front ends' checked configuration), read by the same rules.
//
// Syntax, as read here:
//   [SECTION]           a line beginning with the bracketed name (anything may follow)
//   Key=value           no blanks around '='; the key is the whole text before the first '='
//                       (an empty line, "\n" or "\r\n", or the end of file closes the section)
//   Array={1 2 3}       one opening character, elements separated by blanks, closing brace
//   Matrix={1 2;3 4}    rows separated by semicolons
// Lines are read in chunks of at most 1023 characters.  One trailing carriage
// return is dropped from a value, so files with CRLF endings read the same.
//
// Lookups work inside the section found by the last seekArgument().  A lookup
// made before ANY section has been found ends the process with status -1 (no
// message) through dhc::fatal; once some section has been found, a lookup after
// a failed seekArgument() simply finds nothing and yields its default.  Callers
// that want to validate input instead (the command-line tool) use the
// non-fatal queries at the end, which never end the process.
//
// Every array, matrix and string returned by the seek* operations is new[]
// memory owned by the caller (matrix rows and string-array elements are
// separate new[] blocks; free them with the free* helpers or by hand).

#include <cstddef>
#include <string>
#include <vector>

#include "settings/RowMatrix.h"

class ConfigFileParser {
  public:
    static constexpr int kLineSize = 1024;

    // Reads fileName whole, in binary.  A file that cannot be read behaves as
    // a file without sections.
    explicit ConfigFileParser(const std::string& fileName);
    // The same reader over text in memory: the text is read exactly as a file
    // holding these bytes would be.
    static ConfigFileParser ofText(std::string text);
    ConfigFileParser(ConfigFileParser&&) = default;
    ConfigFileParser& operator=(ConfigFileParser&&) = default;
    ConfigFileParser(const ConfigFileParser&) = delete;
    ConfigFileParser& operator=(const ConfigFileParser&) = delete;

    // Closes the text; later lookups find nothing.
    void close();

    // Positions after the line that opens [section]; true when found.
    bool seekArgument(const std::string& section);
    // True when the next line is empty or missing (end of the current section); does not move.
    bool eoa();

    // Value text of key in the current section as a new char[1024], or nullptr.
    char* seekPar(const std::string& key);
    std::string seekString(const std::string& key, const std::string& defaultValue);
    int seekInt(const std::string& key, int defaultValue);        // strtol, base 10
    float seekFloat(const std::string& key, float defaultValue);  // strtod
    double seekDouble(const std::string& key, double defaultValue);
    bool seekFlag(const std::string& key);  // seekInt(key, 0) != 0

    // The n element strings of an array value (n new char[] blocks), or nullptr if absent.
    char** seekArray(const std::string& key, int n);
    char** seekStringArray(const std::string& key, int n);
    int* seekIntArray(const std::string& key, int n);
    float* seekFloatArray(const std::string& key, int n);
    double* seekDoubleArray(const std::string& key, int n);

    // The rows x cols element strings / values of a matrix value ([r][c]), or nullptr if absent.
    char*** seekMatrix(const std::string& key, int rows, int cols);
    int** seekIntMatrix(const std::string& key, int rows, int cols);
    float** seekFloatMatrix(const std::string& key, int rows, int cols);
    double** seekDoubleMatrix(const std::string& key, int rows, int cols);

    static void freeStrings(char** strings, int n);
    static void freeStringMatrix(char*** strings, int rows, int cols);
    template <typename T>
    static void freeMatrix(T** matrix, int rows) {
        dhc::deleteRows(matrix, rows);
    }

  private:
    ConfigFileParser() = default;
    // The next line as the C library's fgets reads it into a buffer of
    // kLineSize: at most kLineSize - 1 bytes, up to and with the '\n'.  False
    // at the end of the text.
    bool nextLine(char (&line)[kLineSize]);
    // Value of key in the current section, after the "no section yet" rule.
    bool lookup(const std::string& key, std::string& value);
    bool scanSection(const std::string& key, std::string& value);
    std::vector<std::string> elements(const std::string& key, int n, bool& present);

    std::string text_;
    bool open_ = false;
    std::size_t at_ = 0;      // reading position in text_
    long sectionStart_ = -1;  // offset after the section line; -1 = no current section
    bool sectionFound_ = false;
};
