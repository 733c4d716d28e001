// The library's ini reader on arbitrary file bytes: every lookup on sections
// "[S]" and "[T]" and keys "A", "B", "Key" of every kind, with array and matrix
// sizes from the first byte.  A lookup before any section is found is the
// documented fatal status -1 (caught here); nothing else may fault or leak.

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "settings/ConfigFileParser.h"

using namespace dhc::fuzz;

namespace {

void lookups(ConfigFileParser& ini, int n, int rows, int cols) {
    for (const char* key : {"A", "B", "Key"}) {
        // Two different defaults: a value equal to one of them is still seen.
        const std::string text = ini.seekString(key, "\x01");
        const bool present = text != "\x01" || ini.seekString(key, "\x02") != "\x02";
        char* par = ini.seekPar(key);
        if ((par != nullptr) != present) broken("seekPar and seekString disagree on presence");
        if (par != nullptr && std::strncmp(par, text.c_str(), ConfigFileParser::kLineSize - 1) != 0)
            broken("seekPar and seekString disagree on the value");
        delete[] par;
        const int i = ini.seekInt(key, -7);
        if (!present && i != -7) broken("absent key did not yield the default");
        ini.seekDouble(key, 0.5);
        ini.seekFloat(key, 0.5f);
        ini.seekFlag(key);

        char** strings = ini.seekArray(key, n);
        if ((strings != nullptr) != present) broken("seekArray disagrees on presence");
        ConfigFileParser::freeStrings(strings, n);
        delete[] ini.seekIntArray(key, n);
        delete[] ini.seekDoubleArray(key, n);
        delete[] ini.seekFloatArray(key, n);
        ConfigFileParser::freeMatrix(ini.seekIntMatrix(key, rows, cols), rows);
        ConfigFileParser::freeMatrix(ini.seekDoubleMatrix(key, rows, cols), rows);
        ConfigFileParser::freeMatrix(ini.seekFloatMatrix(key, rows, cols), rows);
        ConfigFileParser::freeStringMatrix(ini.seekMatrix(key, rows, cols), rows, cols);
    }
    ini.eoa();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const int n = data[0] % 8;
    const int rows = (data[0] >> 3) % 4, cols = (data[0] >> 5) % 4;
    MemFile file(data + 1, size - 1);
    ConfigFileParser ini(file.path());
    try {
        // Before any section: fatal (-1) on the first lookup.
        lookups(ini, n, rows, cols);
    } catch (const FatalStatus& f) {
        if (f.status != -1 || !f.message.empty()) broken("unexpected fatal status before any section");
    }
    for (const char* section : {"S", "T", "MISSING"}) {
        ini.seekArgument(section);
        try {
            lookups(ini, n, rows, cols);
        } catch (const FatalStatus&) {
            // Allowed only while no section has ever been found.
        }
    }
    ini.close();
    return 0;
}
