#include "frontend/SettingsCheck.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>

#include "base/InputError.h"
#include "settings/DHC_SET.h"

namespace dhc {
namespace {

const char* const kBadSetting = "dhc:badSetting";
const char* const kBadStructure = "dhc:badStructure";

// As MATLAB writes them: NaN, Inf, -Inf, else the shortest of %g.
std::string number(double v) {
    if (std::isnan(v)) return "NaN";
    if (std::isinf(v)) return v > 0 ? "Inf" : "-Inf";
    std::ostringstream out;
    out << v;
    return out.str();
}

// Builds the messages of one check in the front end's terms.
class Refusal {
  public:
    explicit Refusal(const SettingNames& names) : names_(names) {}

    std::string name(Setting s) const { return names_(s).name; }

    // "where: Name rest" (or "Name rest" without an origin).
    [[noreturn]] void say(Setting s, const std::string& rest, const char* id = kBadSetting) const {
        const SettingName n = names_(s);
        throw InputError(kExitInput, (n.where.empty() ? "" : n.where + ": ") + n.name + " " + rest, id);
    }
    // "where: rest" (or "Name: rest" without an origin).
    [[noreturn]] void about(Setting s, const std::string& rest, const char* id = kBadStructure) const {
        const SettingName n = names_(s);
        throw InputError(kExitInput, (n.where.empty() ? n.name : n.where) + ": " + rest, id);
    }

    void intRange(Setting s, long long v, long long lo, long long hi, const std::string& what = "") const {
        if (v < lo || v > hi)
            say(s, "must be from " + std::to_string(lo) + " to " + std::to_string(hi) + what + ", not " +
                       std::to_string(v));
    }
    void realRange(Setting s, double v, double lo, double hi) const {
        if (!std::isfinite(v) || v < lo || v > hi)
            say(s, "must be a number from " + number(lo) + " to " + number(hi) + ", not " + number(v));
    }
    // The field of set against the setting's range in the table.
    void inRange(Setting s, const DHC_SET& set, const std::string& what = "") const {
        const SettingRow& row = settingRow(s);
        if (row.kind == SettingKind::Int)
            intRange(s, set.*row.integer, static_cast<long long>(row.min), static_cast<long long>(row.max), what);
        else
            realRange(s, set.*row.real, row.min, row.max);
    }

  private:
    const SettingNames& names_;
};

void checkStructure(int n, int labelSpace, const GivenStructure& given, const Refusal& r) {
    if (n < 1) r.say(Setting::NumberOfClasses, "must be at least 1 in supervised mode", kBadStructure);
    r.intRange(Setting::NumberOfClasses, n, 1, labelSpace, " (the label space)");
    const std::vector<int>& levels = given.levels;
    const std::vector<int>& paths = given.paths;
    if (static_cast<long long>(levels.size()) != n)
        r.say(Setting::StructureLevels,
              "must list " + std::to_string(n) + " path lengths (" + r.name(Setting::NumberOfClasses) + ")",
              kBadStructure);
    long long total = 0;
    for (int l : levels) {
        if (l < 1) r.about(Setting::StructureLevels, "every path length must be at least 1");
        if (l > kMaxPathLength)
            r.about(Setting::StructureLevels, "a path length must not exceed " +
                                                  std::to_string(kMaxPathLength) + ", not " +
                                                  std::to_string(l));
        total += l;
    }
    if (static_cast<long long>(paths.size()) != total)
        r.say(Setting::StructurePaths,
              "must hold " + std::to_string(total) + " entries (the sum of " +
                  r.name(Setting::StructureLevels) + ")",
              kBadStructure);

    // Rebuild the tree the way the driver does: paths in lexicographic order
    // (zero-padded), each entry naming an existing child or the next new one.
    std::vector<std::vector<int>> list;
    size_t at = 0;
    for (int l : levels) {
        list.emplace_back(paths.begin() + static_cast<long>(at), paths.begin() + static_cast<long>(at + l));
        at += static_cast<size_t>(l);
    }
    for (size_t i = 0; i < list.size(); ++i)
        for (size_t j = 0; j < list.size(); ++j) {
            if (i == j) continue;
            const auto& a = list[i];
            const auto& b = list[j];
            if (a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin()))
                r.about(Setting::StructurePaths, "class path " + std::to_string(i + 1) +
                                                     (a.size() == b.size() ? " repeats" : " is a prefix of") +
                                                     " class path " + std::to_string(j + 1));
        }
    std::vector<std::vector<int>> sorted = list;
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::vector<size_t>> children(1);  // per node, the indices of its children
    for (const auto& p : sorted) {
        size_t cur = 0;
        for (int e : p) {
            const int count = static_cast<int>(children[cur].size());
            if (e < 0 || e > count)
                r.about(Setting::StructurePaths,
                        "path entry " + std::to_string(e) +
                            " skips a child index (paths must number children 0, 1, 2, ...)");
            if (e == count) {
                children[cur].push_back(children.size());
                children.emplace_back();
            }
            cur = children[cur][static_cast<size_t>(e)];
        }
    }
}

}  // namespace

SettingName iniName(Setting s) {
    return {std::string(), settingRow(s).key};
}

SettingName matlabName(Setting s) {
    return {std::string(), settingRow(s).property};
}

void checkSettings(const DHC_SET& set, const GivenStructure& structure, const SettingNames& names) {
    const Refusal r(names);

    r.inRange(Setting::BetaMin, set);
    r.inRange(Setting::BetaMax, set);
    if (set.betaMin > set.betaMax)
        r.say(Setting::BetaMin,
              "must not exceed " + r.name(Setting::BetaMax) + " (" + number(set.betaMax) + ")");
    r.inRange(Setting::BetaBound, set);
    r.inRange(Setting::RangeBandwidth, set);
    r.inRange(Setting::SpatialBandwidth, set);

    if (set.supervisedMode) {
        checkStructure(set.numberOfClasses, set.maxLabels, structure, r);
        return;
    }

    if (!set.variableMultiplicity) {
        if (set.multiplicity < 2) r.say(Setting::Multiplicity, "must be at least 2 (children per split)");
        r.inRange(Setting::Multiplicity, set);
    } else {
        r.inRange(Setting::AutoAdjustKNN, set);
        r.inRange(Setting::SkipLast, set);
        r.inRange(Setting::Tolerance, set);
    }
    const SettingRow& metric = settingRow(Setting::Metric);
    if (set.blind && !set.blindActive && (set.metric < metric.min || set.metric > metric.max))
        r.say(Setting::Metric, "must be " + std::to_string(static_cast<int>(metric.min)) + " to " +
                                   std::to_string(static_cast<int>(metric.max)));
    r.inRange(Setting::SplitGainThreshold, set);
    r.intRange(Setting::MaxNumberOfClasses, set.maxNumberOfClasses, 0, set.maxLabels, " (the label space)");
    r.inRange(Setting::MinRegionArea, set);
    if (set.balancedTree) r.inRange(Setting::GrowDepth, set);
    r.inRange(Setting::DistortionThreshold, set);
    r.inRange(Setting::BlindSplitDepthMax, set);
    r.inRange(Setting::BlindSplitAreaMin, set);
    r.inRange(Setting::BlindSplitMSEMin, set);
    const SettingRow& stop = settingRow(Setting::StopCriterion);
    if (set.stopCriterion < stop.min || set.stopCriterion > stop.max)
        r.say(Setting::StopCriterion, "must be 0 (split gain), 1 (ICL) or 2 (BIC), not " +
                                          std::to_string(set.stopCriterion));
    r.inRange(Setting::FinalRefinement, set, " rounds");
}

void checkClassStructure(int classes, int labelSpace, const GivenStructure& structure,
                         const SettingNames& names) {
    checkStructure(classes, labelSpace, structure, Refusal(names));
}

int checkThreads(double threads, const std::string& what) {
    if (threads >= 0 && threads <= kMaxThreads && threads == static_cast<int>(threads))
        return static_cast<int>(threads);
    std::ostringstream text;
    text << what << " " << threads << ": must be a whole number of threads from 0 (one per core) to "
         << kMaxThreads;
    throw InputError(kExitInput, text.str(), "dhc:badSetting");
}

std::array<int, 3> checkRgbBands(const std::vector<long long>& bands, int imageBands, const std::string& what) {
    if (bands.size() != 3)
        throw InputError(kExitInput,
                         what + " needs three bands (red, green, blue), not " + std::to_string(bands.size()),
                         "dhc:badSetting");
    std::array<int, 3> out{};
    for (size_t k = 0; k < 3; ++k) {
        if (bands[k] < 1 || bands[k] > imageBands)
            throw InputError(kExitInput,
                             what + ": band " + std::to_string(bands[k]) + " does not exist; the image has " +
                                 std::to_string(imageBands) + (imageBands == 1 ? " band" : " bands") +
                                 ", numbered from 1",
                             "dhc:badSetting");
        out[k] = static_cast<int>(bands[k] - 1);
    }
    return out;
}

std::vector<long long> parseRgbBands(const std::string& text, const std::string& what) {
    std::vector<long long> bands;
    size_t at = 0;
    while (true) {
        const size_t comma = text.find(',', at);
        const std::string part = text.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        size_t used = 0;
        long long v = 0;
        try {
            v = std::stoll(part, &used);
        } catch (const std::exception&) {
            used = 0;
        }
        if (part.empty() || used != part.size() || !std::isdigit(static_cast<unsigned char>(part[0])))
            throw InputError(kExitUsage,
                             what + " " + text + ": must be three band numbers such as 3,2,1 (red, green, blue)",
                             "dhc:badSetting");
        bands.push_back(v);
        if (comma == std::string::npos) break;
        at = comma + 1;
    }
    if (bands.size() != 3)
        throw InputError(kExitUsage,
                         what + " " + text + ": must be three band numbers such as 3,2,1 (red, green, blue)",
                         "dhc:badSetting");
    return bands;
}

unsigned long long physicalMemory() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) return 0;
    return static_cast<unsigned long long>(pages) * static_cast<unsigned long long>(pageSize);
}

unsigned long long runMemoryEstimate(long long rows, long long cols, long long bands) {
    const long double pixels = static_cast<long double>(std::max(rows, 0LL)) * std::max(cols, 0LL);
    const long double bytes = pixels * (kRunBytesPerPixel + kRunBytesPerPixelAndBand * std::max(bands, 0LL));
    return bytes >= static_cast<long double>(std::numeric_limits<unsigned long long>::max())
               ? std::numeric_limits<unsigned long long>::max()
               : static_cast<unsigned long long>(bytes);
}

namespace {

// The first number of the line of /proc/meminfo (kB) or memory.stat (bytes)
// that starts with key; false when there is none.
bool statValue(const std::string& file, const std::string& key, unsigned long long& value) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, key.size(), key) == 0) {
            std::istringstream rest(line.substr(key.size()));
            return static_cast<bool>(rest >> value);
        }
    return false;
}

bool fileValue(const std::string& file, unsigned long long& value) {
    std::ifstream in(file);
    std::string text;
    if (!(in >> text) || text == "max") return false;
    std::istringstream number(text);
    return static_cast<bool>(number >> value);
}

void lower(MemoryLimit& limit, unsigned long long bytes, const char* source) {
    if (limit.source.empty() || bytes < limit.bytes) {
        limit.bytes = bytes;
        limit.source = source;
    }
}

}  // namespace

MemoryLimit availableMemory() {
    MemoryLimit limit;
    unsigned long long kb = 0;
    if (statValue("/proc/meminfo", "MemAvailable:", kb)) lower(limit, kb * 1024, "MemAvailable");
    // The control group's limit (v2, then v1), less what the group holds
    // that the kernel cannot drop (its page cache can be).
    std::ifstream groups("/proc/self/cgroup");
    std::string line;
    while (std::getline(groups, line)) {
        const size_t a = line.find(':'), b = line.find(':', a + 1);
        if (a == std::string::npos || b == std::string::npos) continue;
        const std::string controllers = line.substr(a + 1, b - a - 1), path = line.substr(b + 1);
        std::string dir;
        std::string maxFile, usageFile;
        if (controllers.empty()) {
            dir = "/sys/fs/cgroup" + path;
            maxFile = dir + "/memory.max";
            usageFile = dir + "/memory.current";
        } else if (("," + controllers + ",").find(",memory,") != std::string::npos) {
            dir = "/sys/fs/cgroup/memory" + path;
            maxFile = dir + "/memory.limit_in_bytes";
            usageFile = dir + "/memory.usage_in_bytes";
        } else {
            continue;
        }
        unsigned long long max = 0, usage = 0, cache = 0;
        if (!fileValue(maxFile, max) || max >= (1ULL << 60)) continue;
        fileValue(usageFile, usage);
        if (!statValue(dir + "/memory.stat", "file ", cache)) statValue(dir + "/memory.stat", "cache ", cache);
        const unsigned long long held = usage > cache ? usage - cache : 0;
        lower(limit, max > held ? max - held : 0, "the control group's memory limit");
    }
    // The address-space limit (ulimit -v), less the space already mapped.
    rlimit as{};
    if (::getrlimit(RLIMIT_AS, &as) == 0 && as.rlim_cur != RLIM_INFINITY) {
        unsigned long long pages = 0;
        std::ifstream statm("/proc/self/statm");
        statm >> pages;
        const unsigned long long mapped = pages * static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
        const unsigned long long cap = static_cast<unsigned long long>(as.rlim_cur);
        lower(limit, cap > mapped ? cap - mapped : 0, "the address-space limit (ulimit -v)");
    }
    if (limit.source.empty()) {
        const unsigned long long memory = physicalMemory();
        if (memory != 0) lower(limit, memory, "the machine's memory");
    }
    return limit;
}

void checkImageSize(long long rows, long long cols, long long bands, const std::string& what) {
    const unsigned long long limit = std::numeric_limits<size_t>::max();
    const unsigned long long values[] = {static_cast<unsigned long long>(std::max(rows, 0LL)),
                                         static_cast<unsigned long long>(std::max(cols, 0LL)),
                                         static_cast<unsigned long long>(std::max(bands, 0LL)), sizeof(int)};
    unsigned long long bytes = 1;
    bool overflow = false;
    for (unsigned long long v : values) {
        if (v != 0 && bytes > limit / v) overflow = true;
        if (!overflow) bytes *= v;
    }
    const std::string shape =
        what + " is " + std::to_string(rows) + " x " + std::to_string(cols) + " x " + std::to_string(bands);
    if (overflow)
        throw InputError(kExitInput, shape + ": its size overflows the address space", "dhc:tooLarge");
    const unsigned long long needed = runMemoryEstimate(rows, cols, bands);
    const MemoryLimit available = availableMemory();
    if (!available.source.empty() && needed > available.bytes)
        throw InputError(kExitInput,
                         shape + ": a run needs about " + std::to_string(needed) + " bytes of memory, but " +
                             std::to_string(available.bytes) + " bytes are available (" + available.source +
                             ")",
                         "dhc:tooLarge");
}

void checkAgainstRegion(const DHC_SET& set, int pixels, const SettingNames& names) {
    const Refusal r(names);
    if (!set.supervisedMode && !set.variableMultiplicity && set.multiplicity > pixels)
        r.say(Setting::Multiplicity, "(" + std::to_string(set.multiplicity) + ") exceeds the " +
                                         std::to_string(pixels) + (pixels == 1 ? " pixel" : " pixels") +
                                         " of the region of interest");
}

}  // namespace dhc
