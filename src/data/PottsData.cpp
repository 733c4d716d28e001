#include "data/PottsData.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <vector>

#include "data/ImageFile.h"
#include "data/PaddedMap.h"
#include "data/ROI.h"
#include "settings/Fatal.h"
#include "settings/Random.h"
#include "settings/RowMatrix.h"

namespace {

constexpr unsigned kShuffleSeed = 3605118785u;  // d6e1bf41
constexpr int kFileNameBuffer = 80;

}  // namespace

PottsData::PottsData() : root(new PottsMapRegion()) {}

PottsData::PottsData(int label) : root(new PottsMapRegion()) {
    root->label = label;
}

PottsData::PottsData(ROI<int, xy>* source, int pad, int borderLabel, int label, int aux) {
    bands = source->bands;
    rows = source->height;
    cols = source->width;
    envelopeCount = loadedCount = source->count;
    coords = new xy[envelopeCount > 0 ? envelopeCount : 0];
    std::copy(source->coords, source->coords + envelopeCount, coords);
    const size_t values =
        static_cast<size_t>(envelopeCount > 0 ? envelopeCount : 0) * (bands > 0 ? bands : 0);
    if (source->giveValuesAway) {
        data = source->data;
        source->data = nullptr;
        source->giveValuesAway = false;
    } else {
        data = new int[values];
        std::copy(source->data, source->data + values, data);
    }
    shuffle = source->order == 1;
    rasterOrder = false;
    fromRoi = 1;
    roi = source;

    // The ROI's box as a map: cells outside the ROI carry aux, the ROI's points
    // carry label; the root is the connected region of label.
    // (The box frees its lists only: its planes become this object's.)
    const auto box = std::make_unique<PottsMapRegion>(rows, cols, pad, borderLabel, aux, nullptr);
    box->mapRefresh(aux, false);
    for (int k = 0; k < envelopeCount; ++k) box->setPixel(coords[k].x, coords[k].y, label);
    int n = 0;
    const std::unique_ptr<PottsMapRegion[]> parts(box->split(n));
    for (int j = 0; j < n && root == nullptr; ++j)
        if (parts[j].label == label) root = new PottsMapRegion(parts[j]);
    if (root == nullptr) root = new PottsMapRegion(*box, label);
    ownsMaps = true;
}

PottsData::PottsData(int nRows, int nCols, int nBands, bool doShuffle, float percentage, char** files,
                     int pad, int borderLabel, int aux) {
    root = new PottsMapRegion(nRows, nCols, pad, borderLabel, aux, nullptr);
    ownsMaps = true;
    shuffle = doShuffle;
    setFileNames(files, nBands);
    setupRoot(nRows, nCols, nBands, doShuffle, percentage);
}

PottsData::PottsData(int nRows, int nCols, int nBands, bool doShuffle, float percentage, int pad,
                     int borderLabel, int aux) {
    root = new PottsMapRegion(nRows, nCols, pad, borderLabel, aux, nullptr);
    ownsMaps = true;
    shuffle = doShuffle;
    setupRoot(nRows, nCols, nBands, doShuffle, percentage);
}

PottsData::PottsData(bool doShuffle, float percentage, std::string hrawFile, int pad, int borderLabel,
                     int aux) {
    shuffle = doShuffle;
    hrawFileName = hrawFile;
    setupRoot(doShuffle, percentage);
    root = new PottsMapRegion(rows, cols, pad, borderLabel, aux, nullptr);
    ownsMaps = true;
    fromRoi = 0;
}

void PottsData::dropValues() {
    if (sharedValues)
        sharedValues.reset();
    else
        delete[] data;
    data = nullptr;
}

PottsData::~PottsData() {
    dropValues();
    delete[] coords;
    delete[] features;
    delete[] extra;
    freeBandFiles();
    if (root != nullptr && ownsMaps) root->destroyMaps();
    delete root;
}

void PottsData::freeBandFiles() {
    dhc::deleteRows(bandFiles, bandFileCount);
    bandFiles = nullptr;
    bandFileCount = 0;
}

void PottsData::buildRasterCoords() {
    delete[] coords;
    coords = new xy[envelopeCount > 0 ? envelopeCount : 0];
    int k = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c, ++k) {
            coords[k].x = static_cast<uint16_t>(r);
            coords[k].y = static_cast<uint16_t>(c);
        }
}

void PottsData::shuffleCoords() {
    if (rows <= 0 || cols <= 0) return;
    const long long swaps = 10LL * envelopeCount;
    dhc::Random& random = dhc::processRandom();
    for (long long s = 0; s < swaps; ++s) {
        const int r1 = random.next();
        const int r2 = random.next();
        const int r3 = random.next();
        const int r4 = random.next();
        const int i = cols * (r1 % rows) + (r2 % cols);
        const int j = cols * (r3 % rows) + (r4 % cols);
        std::swap(coords[i], coords[j]);
    }
}

void PottsData::computeLoadedCount(float percentage) {
    if (shuffle) rasterOrder = false;
    if (percentage >= 100.0f) {
        loadedCount = envelopeCount;
    } else if (percentage <= 0.0f) {
        loadedCount = 0;
    } else {
        const float scaled = static_cast<float>(envelopeCount) * percentage;
        loadedCount = static_cast<int>(static_cast<double>(scaled) / 100.0);
    }
}

void PottsData::setupRoot(int nRows, int nCols, int nBands, bool doShuffle, float percentage) {
    rows = nRows;
    cols = nCols;
    bands = nBands;
    shuffle = doShuffle;
    envelopeCount = rows * cols;
    buildRasterCoords();
    rasterOrder = true;
    if (doShuffle) {
        dhc::processRandom().reseed(kShuffleSeed);
        shuffleCoords();
    }
    loadDataRaw(bandFiles, bands, percentage);
}

void PottsData::setupRoot(bool doShuffle, float percentage) {
    shuffle = doShuffle;
    int header[3] = {0, 0, 0};
    if (std::FILE* f = std::fopen(hrawFileName.c_str(), "rb")) {
        if (std::fread(header, sizeof(int), 3, f) != 3) std::fill(header, header + 3, 0);
        std::fclose(f);
    }
    bands = header[0];
    rows = header[1];
    cols = header[2];
    envelopeCount = rows * cols;
    buildRasterCoords();
    rasterOrder = true;
    // No reseeding here: the shuffle continues the generator's current sequence.
    if (doShuffle) shuffleCoords();
    loadDataHRaw(hrawFileName, percentage);
}

void PottsData::loadDataRaw(char** files, int nBands, float percentage) {
    if (files != bandFiles && files != nullptr) setFileNames(files, nBands);
    bands = nBands;
    computeLoadedCount(percentage);
    dropValues();
    data = new int[static_cast<size_t>(loadedCount) * (bands > 0 ? bands : 0)]();
    if (loadedCount == 0) return;
    for (int b = 0; b < bands; ++b) {
        if (bandFiles == nullptr || b >= bandFileCount) break;  // names not set yet
        int** plane = ImageFile<int>::readRawInt32(bandFiles[b], rows, cols, 0, 0);
        for (int i = 0; i < loadedCount; ++i)
            data[static_cast<size_t>(i) * bands + b] = plane[coords[i].x][coords[i].y];
        PaddedMap::deletePaddedMapFrame(plane, rows, cols, 0);
    }
}

void PottsData::loadDataHRaw(std::string file, float percentage) {
    hrawFileName = file;
    computeLoadedCount(percentage);
    dropValues();
    data = new int[static_cast<size_t>(loadedCount) * (bands > 0 ? bands : 0)]();
    if (loadedCount == 0) return;
    int fileBands = 0, fileRows = 0, fileCols = 0;
    const dhc::Cube<int> cube = ImageFile<int>::readHRaw(file, fileBands, fileRows, fileCols);
    // The band count is the one read by setupRoot; cells the file lacks read as 0.
    for (int i = 0; i < loadedCount; ++i) {
        const xy p = coords[i];
        if (p.x >= fileRows || p.y >= fileCols) continue;
        for (int b = 0; b < bands && b < fileBands; ++b)
            data[static_cast<size_t>(i) * bands + b] = cube[b][p.x][p.y];
    }
}

void PottsData::setFileNames(char** names, int n) {
    freeBandFiles();
    bands = n;
    if (names == nullptr || n <= 0) return;
    bandFiles = new char*[n];
    bandFileCount = n;
    for (int b = 0; b < n; ++b) {
        bandFiles[b] = new char[kFileNameBuffer]();
        std::strncpy(bandFiles[b], names[b], kFileNameBuffer - 1);
    }
}

void PottsData::inputFileNames(int n) {
    char** names = new char*[n > 0 ? n : 0];
    for (int b = 0; b < n; ++b) {
        dhc::out() << "File name band-" << b << " : " << std::flush;
        std::string name;
        std::cin >> name;
        names[b] = new char[name.size() + 1];
        std::strcpy(names[b], name.c_str());
    }
    setFileNames(names, n);
    dhc::deleteRows(names, n);
}

int PottsData::getEnvelopeArea() const {
    return (root->maxRow - root->minRow + 1) * (root->maxCol - root->minCol + 1);
}

double* PottsData::getSpatialCenter() const {
    double* center = new double[2]();
    for (int k = 0; k < envelopeCount; ++k) {
        center[0] += coords[k].x / static_cast<double>(envelopeCount);
        center[1] += coords[k].y / static_cast<double>(envelopeCount);
    }
    return center;
}

int** PottsData::getLoadedPixels(int& n) {
    n = loadedCount;
    int** out = dhc::newRows<int>(n, bands);
    for (cursor = 0; cursor < n; ++cursor)
        std::copy(data + static_cast<size_t>(cursor) * bands, data + static_cast<size_t>(cursor + 1) * bands,
                  out[cursor]);
    return out;
}

double** PottsData::getLoadedPixelsAsDouble(int& n) {
    n = loadedCount;
    double** out = dhc::newRows<double>(n, bands);
    for (cursor = 0; cursor < n; ++cursor)
        for (int b = 0; b < bands; ++b) out[cursor][b] = data[static_cast<size_t>(cursor) * bands + b];
    return out;
}

double** PottsData::getLoadedPixelsAsDouble2(int& n) {
    return getLoadedPixelsAsDouble(n);
}

double** PottsData::getLoadedPixelsCoord(int& n) {
    n = loadedCount;
    double** out = dhc::newRows<double>(n, 2);
    for (cursor = 0; cursor < n; ++cursor) {
        out[cursor][0] = coords[cursor].x;
        out[cursor][1] = coords[cursor].y;
    }
    return out;
}

double** PottsData::getLoadedPixelsCoordNorm(int& n, double& meanRow, double& spreadRow, double& meanCol,
                                             double& spreadCol) {
    double** out = getLoadedPixelsCoord(n);
    meanRow = meanCol = 0.0;
    for (int i = 0; i < n; ++i) {
        meanRow += out[i][0];
        meanCol += out[i][1];
    }
    if (n > 0) {
        meanRow /= n;
        meanCol /= n;
    }
    double varRow = 0.0, varCol = 0.0;
    for (int i = 0; i < n; ++i) {
        varRow += (out[i][0] - meanRow) * (out[i][0] - meanRow);
        varCol += (out[i][1] - meanCol) * (out[i][1] - meanCol);
    }
    spreadRow = n > 0 ? std::sqrt(varRow / n) : 0.0;
    spreadCol = n > 0 ? std::sqrt(varCol / n) : 0.0;
    if (spreadRow == 0.0) spreadRow = 1.0;
    if (spreadCol == 0.0) spreadCol = 1.0;
    for (int i = 0; i < n; ++i) {
        out[i][0] = (out[i][0] - meanRow) / spreadRow;
        out[i][1] = (out[i][1] - meanCol) / spreadCol;
    }
    return out;
}

double* PottsData::getPixelAsDouble(xy p) const {
    if (!rasterOrder) return nullptr;
    double* out = new double[bands > 0 ? bands : 0];
    const size_t at = (static_cast<size_t>(p.x) * cols + p.y) * bands;
    for (int b = 0; b < bands; ++b) out[b] = data[at + b];
    return out;
}

double** PottsData::getFirstNaturals(int& n, xy*& taken) {
    const int wanted = n;
    std::vector<int> picked;
    picked.reserve(wanted > 0 ? static_cast<size_t>(wanted) : 0);
    // Unmarked pixels first, then marked ones, each pass in list order.
    for (cursor = 0; cursor < loadedCount && static_cast<int>(picked.size()) < wanted; ++cursor)
        if (coords[cursor].flag == 0) picked.push_back(cursor);
    const size_t unmarked = picked.size();
    for (cursor = 0; cursor < loadedCount && static_cast<int>(picked.size()) < wanted; ++cursor)
        if (coords[cursor].flag != 0) picked.push_back(cursor);
    n = static_cast<int>(picked.size());
    double** out = dhc::newRows<double>(n, bands);
    taken = new xy[n];
    for (int k = 0; k < n; ++k) {
        const int i = picked[k];
        taken[k] = coords[i];
        if (static_cast<size_t>(k) >= unmarked) taken[k].flag = 1;
        for (int b = 0; b < bands; ++b) out[k][b] = data[static_cast<size_t>(i) * bands + b];
    }
    return out;
}

ROI<int, xy>* PottsData::getDataRoi() {
    ROI<int, xy>* out = new ROI<int, xy>();
    out->data = data;  // shared, not copied
    out->coords = new xy[envelopeCount > 0 ? envelopeCount : 0];
    std::copy(coords, coords + envelopeCount, out->coords);
    out->count = envelopeCount;
    out->bands = bands;
    out->imageRows = rows;
    out->imageCols = cols;
    out->order = shuffle ? 1 : 2;
    out->fitBox();
    return out;
}

ROI<int, xy>* PottsData::getLabRoi(bool onAux) {
    ROI<int, xy>* out = new ROI<int, xy>(envelopeCount, 1);
    int** plane = onAux ? root->auxMap : root->map;
    const int pad = root->pad;
    for (int k = 0; k < envelopeCount; ++k) {
        out->coords[k] = coords[k];
        out->data[k] = plane[coords[k].x + pad][coords[k].y + pad];
    }
    out->minRow = 0;
    out->height = rows;
    out->minCol = 0;
    out->width = cols;
    out->imageRows = rows;
    out->imageCols = cols;
    if (roi != nullptr) {
        out->minRow = roi->minRow;
        out->minCol = roi->minCol;
        out->imageRows = roi->imageRows;
        out->imageCols = roi->imageCols;
    }
    out->order = shuffle ? 1 : 2;
    return out;
}

int** PottsData::outputMap(bool copyToAux, bool doCompact, bool reverse, int n) {
    if (copyToAux) {
        if (reverse)
            root->copyToAuxMapRev();
        else
            root->copyToAuxMap();
    }
    if (doCompact) root->compact(n);
    return root->outputAuxMap();
}
