#pragma once
// The values a run accepts: one check of a settings record and of the image it
// is applied to, shared by the command-line tool, the MEX module and the Python
// package, so that each refuses the same settings with the same message (only
// the names of the settings and where they came from differ).
//
// Every numeric setting has a documented range (README, "Settings that cannot
// run"); inside it the core ends on every input.  Outside it a value either
// cannot work (a multiplicity above the label space, a NaN threshold) or makes
// a loop of the core run for hours, so it is refused before anything runs.

#include <cstddef>
#include <functional>
#include <array>
#include <string>
#include <vector>

#include "settings/SettingsTable.h"

struct DHC_SET;

namespace dhc {

// How a front end names a setting: where the value came from (a file line,
// an override; empty when there is nothing to say) and the setting's name in
// that front end's terms ("Multiplicity", "unsupSet.multiplicity").
struct SettingName {
    std::string where;
    std::string name;
};
using SettingNames = std::function<SettingName(Setting)>;

// The ini key of a setting, with no origin: the default naming.
SettingName iniName(Setting s);
// The property path of a setting in the MATLAB/Octave settings object.
SettingName matlabName(Setting s);

// The class structure as the user gave it, whole: the lists may be longer or
// shorter than the record's NumberOfClasses says (the record's own arrays hold
// only what the reader took).
struct GivenStructure {
    std::vector<int> levels;
    std::vector<int> paths;
};

// Checks every setting the run will use against its range and the settings
// against each other (BetaMin <= BetaMax, the class structure describes a tree
// whose leaves are the classes).  Throws an InputError (kExitInput) naming the
// first problem; its id is "dhc:badSetting" or "dhc:badStructure".
void checkSettings(const DHC_SET& settings, const GivenStructure& structure,
                   const SettingNames& names = iniName);

// The class-structure part of checkSettings on its own: a front end that
// reads the structure with a reader that allocates by these numbers checks
// them first.  labelSpace is DHC_SET::maxLabels.
void checkClassStructure(int classes, int labelSpace, const GivenStructure& structure,
                         const SettingNames& names = iniName);

// The peak memory of a run on an image of these sides and bands, in bytes:
// measured on the tool with the default settings (the README's table),
// about 40 bytes per pixel (label maps, coordinates, the region's lists) and
// 8 per pixel and band (the values, read as int32 and held by the root
// region, and the class statistics).
constexpr double kRunBytesPerPixel = 40;
constexpr double kRunBytesPerPixelAndBand = 8;
unsigned long long runMemoryEstimate(long long rows, long long cols, long long bands);

// The memory a run may take now: the least of the system's available memory
// (MemAvailable), the control group's limit less what the group holds, and
// the address-space limit (RLIMIT_AS) less what is mapped.  source names the
// bound that decided; it is empty when none is known.
struct MemoryLimit {
    unsigned long long bytes = 0;
    std::string source;
};
MemoryLimit availableMemory();

// Checks, before an image is read or a run starts, that a run on it can be
// held: its int32 cube must fit size_t and the run's estimated peak
// (runMemoryEstimate) the available memory (availableMemory).  what names the
// image in the message ("image \"s.hraw\"", "\"data\"").  Throws an
// InputError ("dhc:tooLarge") naming the estimate and the memory available.
void checkImageSize(long long rows, long long cols, long long bands, const std::string& what);

// Threads a run may use: a whole number from 0 (one per core) to kMaxThreads.
// The results of a run are the same for every number.  what names the value in
// the message ("--threads", "\"threads\""); throws an InputError
// ("dhc:badSetting").
constexpr int kMaxThreads = 256;
int checkThreads(double threads, const std::string& what);

// The bands of a report's false-colour picture (red, green, blue), numbered
// from 1: each a band of the image.  what names the value in the message
// ("--rgb", "rgb"); throws an InputError ("dhc:badSetting").  Returns them
// numbered from 0.
std::array<int, 3> checkRgbBands(const std::vector<long long>& bands, int imageBands, const std::string& what);
// "3,2,1" as band numbers for checkRgbBands; anything else throws an
// InputError naming what.
std::vector<long long> parseRgbBands(const std::string& text, const std::string& what);

// The bytes of physical memory of this machine (0 when unknown).
unsigned long long physicalMemory();

// Checks the settings against the region of interest they are applied to: no
// more children per split than pixels to give them.  Throws an InputError
// ("dhc:badSetting").
void checkAgainstRegion(const DHC_SET& settings, int pixels, const SettingNames& names = iniName);

}  // namespace dhc
