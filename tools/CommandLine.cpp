#include "CommandLine.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <stdexcept>

#include "base/InputError.h"
#include "frontend/SettingsCheck.h"

const char* const kUsage =
    "Usage: dhc COMMAND [OPTION]... [FILE]...\n"
    "Hierarchical segmentation of multispectral images (hraw files or any raster\n"
    "GDAL reads: GeoTIFF, ENVI, ...).\n"
    "\n"
    "Commands:\n"
    "  segment IMAGE -o LABELS [OPTION]...   segment an image\n"
    "  apply IMAGE --model MODEL -o LABELS   label an image with the model of a run\n"
    "  info FILE...                          print sizes, value ranges (and, for GDAL\n"
    "                                        rasters, driver, type, nodata, georeference)\n"
    "\n"
    "Options:\n"
    "  -h, --help      show this help (or a command's help: dhc COMMAND --help)\n"
    "  -V, --version   show the version\n"
    "\n"
    "Exit status: 0 on success, 1 for bad input (files, configuration), 2 for a bad\n"
    "command line; other values are fatal conditions of the segmenter itself.\n";

const char* const kSegmentUsage =
    "Usage: dhc segment IMAGE -o LABELS [OPTION]...\n"
    "Segment IMAGE (hraw, or any raster GDAL reads, also through /vsizip/, /vsicurl/,\n"
    "...) and write its label map (one band, same rows and columns, 0 outside the\n"
    "region of interest) to LABELS.  Raster outputs are written by the GDAL driver\n"
    "their extension names (.tif GeoTIFF, .png, .img, .jp2, ...) or --format; .hraw\n"
    "and extensions no driver declares give hraw.\n"
    "\n"
    "  -o, --output=FILE      label map to write (required)\n"
    "      --config=FILE      ini configuration (default: the built-in default.ini)\n"
    "      --set SECTION.Key=VALUE\n"
    "                         override one configuration key (repeatable)\n"
    "      --mask=FILE        region of interest: the pixels whose mask value is 1\n"
    "                         (default: the pixels whose initial label is positive)\n"
    "      --init=FILE        initial segmentation (default: every pixel labelled 1)\n"
    "      --gt=FILE          ground truth; required in supervised mode\n"
    "      --report=FILE      text report of the tree of regions\n"
    "      --fragments=FILE   connected fragments of the classes (needs Fragmentation=1)\n"
    "      --png=FILE         PNG picture of the label map, one colour per class\n"
    "      --levels=FILE      every cut of the tree as a multi-band map: band k after\n"
    "                         k splits (band 0: the region of interest as one class)\n"
    "      --cut=K            write the cut with K classes instead of the final map\n"
    "      --relabel          number the label map's classes 1..K in ascending order\n"
    "                         of their region labels (--tree records the numbering)\n"
    "      --tree=FILE        the tree of regions as JSON (docs/tree.schema.json)\n"
    "      --tree-png=FILE    picture of the tree of regions (PNG)\n"
    "      --tree-svg=FILE    picture of the tree of regions (SVG)\n"
    "      --html=FILE        the run as one self-contained HTML page: picture, map of\n"
    "                         any cut, the tree, settings and timings\n"
    "      --rgb=R,G,B        bands of the page's picture, from 1 (default 4,3,2 from\n"
    "                         four bands on, 3,2,1 with three, else grey)\n"
    "      --model=FILE       the model of the run, for dhc apply (docs/model.schema.json)\n"
    "      --polygons=FILE    the label map as polygons, one per 8-connected piece,\n"
    "                         with label, class, area_px, area, mean_B (.gpkg,\n"
    "                         .geojson, .fgb, .shz)\n"
    "      --sieve=N          merge pieces under N pixels before polygonizing\n"
    "      --format=DRIVER    GDAL driver of every raster output (GTiff, COG, PNG,\n"
    "                         HFA, ...; hraw for hraw)\n"
    "      --co KEY=VALUE     GDAL creation option of the raster outputs (repeatable)\n"
    "      --bands=LIST       image bands to read, 1-based, e.g. 1,2,3,5 (GDAL only)\n"
    "      --window XOFF YOFF XSIZE YSIZE\n"
    "                         pixels to read (GDAL only); the outputs are the\n"
    "                         window's, with its georeference\n"
    "      --scale=S          factor of floating-point image bands before rounding\n"
    "                         (default: the power of ten giving the widest band range\n"
    "                         at least 10,000 steps)\n"
    "      --nodata=V         nodata value of every image band (replaces the file's)\n"
    "      --threads=N        threads to use (default 0: one per core); the results\n"
    "                         are the same for every N\n"
    "  -q, --quiet            no progress lines, nor the segmenter's own on standard output\n"
    "  -h, --help             show this help\n"
    "\n"
    "Mask, initial segmentation and ground truth are one-band integer maps of the\n"
    "image's size (hraw or GDAL).  Nodata pixels of the image (nodata value, NaN,\n"
    "mask or alpha band) are outside the region of interest.  Every output's format\n"
    "is checked before the image is read.  Outputs are written under a temporary\n"
    "name and renamed when the run has succeeded.\n";

const char* const kApplyUsage =
    "Usage: dhc apply IMAGE --model MODEL.json -o LABELS [OPTION]...\n"
    "Label IMAGE with the leaves of MODEL (written by dhc segment --model): each\n"
    "pixel's most likely leaf, then a fixed number of synchronous ICM sweeps with\n"
    "the model's beta.  A label depends only on the pixels within the model's\n"
    "radius, so a window labels exactly as the same pixels of the whole image.\n"
    "\n"
    "  -o, --output=FILE      label map to write (required): hraw, or a georeferenced\n"
    "                         GeoTIFF when FILE ends in .tif or .tiff\n"
    "      --model=FILE       the model (required)\n"
    "      --mask=FILE        label only the pixels whose mask value is 1\n"
    "      --png=FILE         PNG picture of the label map\n"
    "      --window XOFF YOFF XSIZE YSIZE\n"
    "                         label only columns XOFF.. and rows YOFF.. (0-based) of\n"
    "                         XSIZE columns and YSIZE rows; the output is that window\n"
    "      --format=DRIVER    GDAL driver of the label map (GTiff, PNG, ...; hraw)\n"
    "      --threads=N        threads to use (default 0: one per core); the labels\n"
    "                         are the same for every N\n"
    "  -q, --quiet            no progress line on standard error\n"
    "  -h, --help             show this help\n"
    "\n"
    "The image must have the model's bands and the kind of values it was learnt on\n"
    "(integer, or floating point, scaled as the model says); its nodata pixels and\n"
    "the pixels outside the mask get label 0.\n";

const char* const kInfoUsage =
    "Usage: dhc info FILE...\n"
    "Print the bands, rows and columns of each file and the range of its values\n"
    "(overall and per band for hraw; per band for GDAL rasters, with the driver,\n"
    "data type, nodata, coordinate system, geotransform and value conversion).\n"
    "\n"
    "  -h, --help   show this help\n";

namespace {

// One option: its long name, its short letter (0 for none) and what to do with it.
struct Option {
    const char* name;
    char letter;
    bool takesValue;
    std::function<void(const std::string&)> apply;
    int arity = 1;  // values that follow a long option given without "=", joined by spaces
};

// Walks the arguments: options (long, "--name=value" or "--name value";
// short, "-o value", "-ovalue", "-q") and operands (everything else, and
// everything after "--").
void parse(const std::vector<std::string>& args, const std::vector<Option>& options,
           const std::function<void(const std::string&)>& operand) {
    auto byName = [&](const std::string& name) -> const Option* {
        for (const Option& o : options)
            if (name == o.name) return &o;
        return nullptr;
    };
    auto byLetter = [&](char letter) -> const Option* {
        for (const Option& o : options)
            if (o.letter != 0 && o.letter == letter) return &o;
        return nullptr;
    };
    auto unknown = [](const std::string& arg) {
        return InputError(kExitUsage, "unknown option \"" + arg + "\" (see dhc --help)");
    };
    auto needsValue = [](const std::string& shown) {
        return InputError(kExitUsage, "option \"" + shown + "\" needs a value");
    };

    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            operand(arg);
        } else if (arg == "--") {
            optionsEnded = true;
        } else if (arg[1] == '-') {
            const size_t eq = arg.find('=');
            const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
            const Option* o = byName(name);
            if (o == nullptr) throw unknown(eq == std::string::npos ? arg : arg.substr(0, eq));
            if (!o->takesValue) {
                if (eq != std::string::npos)
                    throw InputError(kExitUsage, "option \"--" + name + "\" takes no value");
                o->apply(std::string());
                continue;
            }
            std::string value;
            if (eq != std::string::npos) {
                value = arg.substr(eq + 1);
            } else {
                if (i + static_cast<size_t>(o->arity) >= args.size()) throw needsValue("--" + name);
                for (int k = 0; k < o->arity; ++k) value += (k > 0 ? " " : "") + args[++i];
            }
            if (value.empty()) throw needsValue("--" + name);
            o->apply(value);
        } else {
            // A cluster of short options; one that takes a value ends it.
            for (size_t j = 1; j < arg.size(); ++j) {
                const Option* o = byLetter(arg[j]);
                if (o == nullptr) throw unknown(std::string("-") + arg[j]);
                if (!o->takesValue) {
                    o->apply(std::string());
                    continue;
                }
                std::string value = arg.substr(j + 1);
                if (value.empty()) {
                    if (i + 1 >= args.size()) throw needsValue(std::string("-") + arg[j]);
                    value = args[++i];
                }
                if (value.empty()) throw needsValue(std::string("-") + arg[j]);
                o->apply(value);
                break;
            }
        }
    }
}

// A positive number of classes given to an option.
int classCount(const std::string& option, const std::string& value) {
    size_t used = 0;
    long n = 0;
    try {
        n = std::stol(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != value.size() || n < 1 || n > 1000000)
        throw InputError(
            kExitUsage,
            "option \"" + option + "\" needs a number of classes from 1 to 1000000, not \"" + value + "\"");
    return static_cast<int>(n);
}

// A whole number from lo to hi, all of the text.
int wholeNumber(const std::string& option, const std::string& text, long lo, long hi) {
    size_t used = 0;
    long n = 0;
    try {
        n = std::stol(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (text.empty() || used != text.size() || n < lo || n > hi)
        throw InputError(kExitUsage, option + " " + text + ": must be a whole number from " + std::to_string(lo) +
                                         " to " + std::to_string(hi));
    return static_cast<int>(n);
}

// Numbers separated by commas (--bands 1,2,5) or by spaces or commas (--window).
std::vector<std::string> fields(const std::string& text, bool spacesToo) {
    std::vector<std::string> out(1);
    for (char c : text) {
        if (c == ',' || (spacesToo && c == ' '))
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

// A finite number, all of the text.
double number(const std::string& option, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        throw InputError(kExitUsage, option + " " + text + ": must be a number");
    return v;
}

// --threads N, checked by the rule every front end shares (a usage error here).
Option threadsOption(int& threads) {
    return {"threads", 0, true, [&threads](const std::string& v) {
                try {
                    threads = dhc::checkThreads(number("--threads", v), "--threads");
                } catch (const InputError& e) {
                    throw InputError(kExitUsage, e.what());
                }
            }};
}

}  // namespace

SegmentOptions parseSegment(const std::vector<std::string>& args) {
    SegmentOptions s;
    auto into = [](std::string& field) { return [&field](const std::string& v) { field = v; }; };
    const std::vector<Option> options = {
        {"output", 'o', true, into(s.output)},
        {"config", 0, true, into(s.config)},
        {"set", 0, true, [&s](const std::string& v) { s.sets.push_back(v); }},
        {"mask", 0, true, into(s.mask)},
        {"init", 0, true, into(s.init)},
        {"gt", 0, true, into(s.gt)},
        {"report", 0, true, into(s.report)},
        {"fragments", 0, true, into(s.fragments)},
        {"png", 0, true, into(s.png)},
        {"levels", 0, true, into(s.levels)},
        {"tree", 0, true, into(s.tree)},
        {"tree-png", 0, true, into(s.treePng)},
        {"tree-svg", 0, true, into(s.treeSvg)},
        {"html", 0, true, into(s.html)},
        {"rgb", 0, true,
         [&s](const std::string& v) {
             dhc::parseRgbBands(v, "--rgb");
             s.rgb = v;
         }},
        {"model", 0, true, into(s.model)},
        {"cut", 0, true, [&s](const std::string& v) { s.cut = classCount("--cut", v); }},
        {"format", 0, true, into(s.format)},
        {"co", 0, true,
         [&s](const std::string& v) {
             const size_t eq = v.find('=');
             if (eq == std::string::npos || eq == 0)
                 throw InputError(kExitUsage, "--co " + v + ": must be KEY=VALUE (a GDAL creation option)");
             s.creationOptions.push_back(v);
         }},
        {"relabel", 0, false, [&s](const std::string&) { s.relabel = true; }},
        {"polygons", 0, true, into(s.polygons)},
        {"sieve", 0, true,
         [&s](const std::string& v) { s.sieve = wholeNumber("--sieve", v, 1, 1000000000); }},
        {"bands", 0, true,
         [&s](const std::string& v) {
             for (const std::string& f : fields(v, false))
                 s.bands.push_back(wholeNumber("--bands", f, 1, 1000000));
         }},
        {"window", 0, true,
         [&s](const std::string& v) {
             const std::vector<std::string> f = fields(v, true);
             if (f.size() != 4)
                 throw InputError(kExitUsage, "--window " + v + ": needs XOFF YOFF XSIZE YSIZE");
             for (int k = 0; k < 4; ++k) s.window[k] = wholeNumber("--window", f[k], k < 2 ? 0 : 1, 65535);
             s.hasWindow = true;
         },
         4},
        {"scale", 0, true,
         [&s](const std::string& v) {
             s.scale = number("--scale", v);
             if (!(s.scale > 0)) throw InputError(kExitUsage, "--scale " + v + ": must be positive");
             s.hasScale = true;
         }},
        {"nodata", 0, true,
         [&s](const std::string& v) {
             s.nodata = number("--nodata", v);
             s.hasNodata = true;
         }},
        threadsOption(s.threads),
        {"quiet", 'q', false, [&s](const std::string&) { s.quiet = true; }},
        {"help", 'h', false, [&s](const std::string&) { s.help = true; }},
    };
    std::vector<std::string> operands;
    parse(args, options, [&operands](const std::string& v) { operands.push_back(v); });
    if (s.help) return s;
    if (operands.empty())
        throw InputError(kExitUsage, "segment: missing IMAGE.hraw (see dhc segment --help)");
    if (operands.size() > 1)
        throw InputError(kExitUsage, "segment: unexpected argument \"" + operands[1] + "\"");
    s.image = operands[0];
    if (!s.rgb.empty() && s.html.empty()) throw InputError(kExitUsage, "--rgb chooses the bands of --html: give --html too");
    if (s.output.empty())
        throw InputError(kExitUsage, "segment: missing -o LABELS.hraw (see dhc segment --help)");
    if (s.sieve > 0 && s.polygons.empty())
        throw InputError(kExitUsage, "--sieve applies to the polygons: give --polygons FILE");
    return s;
}

ApplyOptions parseApply(const std::vector<std::string>& argsIn) {
    ApplyOptions s;
    // --window takes four values: they are taken out before the common walk.
    std::vector<std::string> args;
    for (size_t i = 0; i < argsIn.size(); ++i) {
        if (argsIn[i] == "--") {
            args.insert(args.end(), argsIn.begin() + static_cast<long>(i), argsIn.end());
            break;
        }
        if (argsIn[i] != "--window") {
            args.push_back(argsIn[i]);
            continue;
        }
        if (i + 4 >= argsIn.size())
            throw InputError(kExitUsage, "option \"--window\" needs four values: XOFF YOFF XSIZE YSIZE");
        const char* names[4] = {"XOFF", "YOFF", "XSIZE", "YSIZE"};
        for (int k = 0; k < 4; ++k) {
            const std::string& v = argsIn[i + 1 + static_cast<size_t>(k)];
            size_t used = 0;
            long n = -1;
            try {
                n = std::stol(v, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            const long lowest = k < 2 ? 0 : 1;
            if (used != v.size() || n < lowest || n > 65535)
                throw InputError(kExitUsage, std::string("--window: ") + names[k] + " must be a whole number from " +
                                                 std::to_string(lowest) + " to 65535, not \"" + v + "\"");
            s.window[k] = static_cast<int>(n);
        }
        s.hasWindow = true;
        i += 4;
    }
    auto into = [](std::string& field) { return [&field](const std::string& v) { field = v; }; };
    const std::vector<Option> options = {
        {"output", 'o', true, into(s.output)},
        {"model", 0, true, into(s.model)},
        {"mask", 0, true, into(s.mask)},
        {"png", 0, true, into(s.png)},
        {"format", 0, true, into(s.format)},
        threadsOption(s.threads),
        {"quiet", 'q', false, [&s](const std::string&) { s.quiet = true; }},
        {"help", 'h', false, [&s](const std::string&) { s.help = true; }},
    };
    std::vector<std::string> operands;
    parse(args, options, [&operands](const std::string& v) { operands.push_back(v); });
    if (s.help) return s;
    if (operands.empty()) throw InputError(kExitUsage, "apply: missing IMAGE (see dhc apply --help)");
    if (operands.size() > 1) throw InputError(kExitUsage, "apply: unexpected argument \"" + operands[1] + "\"");
    s.image = operands[0];
    if (s.model.empty()) throw InputError(kExitUsage, "apply: missing --model MODEL.json (see dhc apply --help)");
    if (s.output.empty()) throw InputError(kExitUsage, "apply: missing -o LABELS (see dhc apply --help)");
    return s;
}

InfoOptions parseInfo(const std::vector<std::string>& args) {
    InfoOptions s;
    const std::vector<Option> options = {
        {"help", 'h', false, [&s](const std::string&) { s.help = true; }},
    };
    parse(args, options, [&s](const std::string& v) { s.files.push_back(v); });
    if (!s.help && s.files.empty())
        throw InputError(kExitUsage, "info: missing FILE.hraw (see dhc info --help)");
    return s;
}
