#pragma once
// PottsData: the image cube of one segmentation run (or of one workspace) and
// the list of pixels that take part in it.
//
// Owns: the pixel values of the loaded pixels (`data`, pixel-interleaved:
// band b of loaded pixel i at [i * bands + b]; either its own new[] block or
// a range of a list shared with other regions, see sharedValues), the
// coordinate list `coords`
// (envelopeCount entries, load order), the feature buffers, the band file names
// and the root region.  Does not own `roi`.
//
// The label planes: the constructors that build a map (from a ROI, from band
// files, from an hraw file) create the planes and set ownsMaps; the destructor
// of such an object calls root->destroyMaps().  Workspaces built with the
// default constructor and given a region over someone else's planes never free
// them.  Hand ownership over by moving the flag.
//
// Coordinates of points are inner map coordinates: for data built from a ROI
// they are relative to the ROI's bounding box and the map is height x width.
#include <memory>
#include <string>

#include "data/PottsMapRegion.h"
#include "data/xy.h"

template <typename T, typename C>
struct ROI;

class PottsData {
  public:
    int* data = nullptr;  // loadedCount x bands values
    // When set, data is a range of this list, which lives as long as any
    // region holding it; otherwise data is this object's own new[] block.
    std::shared_ptr<int[]> sharedValues;
    PottsMapRegion* root = nullptr;  // owned; the region of interest as a map region
    int rows = 0;                    // image (or ROI box) height
    int cols = 0;                    // image (or ROI box) width
    int bands = 0;
    int envelopeCount = 0;       // entries of coords
    int loadedCount = 0;         // first loadedCount entries of coords are loaded
    bool rasterOrder = false;    // loaded pixels are the whole image in raster order
    bool shuffle = false;        // coordinate list is (to be) in random order
    xy* coords = nullptr;        // owned; envelopeCount entries
    double* features = nullptr;  // owned; feature buffer (empty on the main path)
    char** bandFiles = nullptr;  // owned; bands names of 80-character buffers
    std::string hrawFileName;
    double* extra = nullptr;      // owned; further feature buffer (empty on the main path)
    int cursor = 0;               // scan position of the pixel-list getters
    ROI<int, xy>* roi = nullptr;  // not owned; the ROI this cube was built from
    int fromRoi = 0;              // 1 when built from a ROI
    bool ownsMaps = false;        // this object frees the root's planes (see above)

    PottsData();
    // As above; the root region's own label is set to label.
    explicit PottsData(int label);
    // From a ROI: values (unless the ROI gives them away) and coordinates copied; the root is the region of
    // the ROI's points (label) inside a rows x cols map (ROI box) whose other cells carry aux, framed by
    // borderLabel with width pad.
    PottsData(ROI<int, xy>* roi, int pad, int borderLabel, int label, int aux);
    // Band files (headerless int32 rows x cols each); the root is the full image
    // with label aux; seeds the generator when shuffling.
    PottsData(int rows, int cols, int bands, bool shuffle, float percentage, char** bandFiles, int pad,
              int borderLabel, int aux);
    // The same without names (set later with setFileNames).
    PottsData(int rows, int cols, int bands, bool shuffle, float percentage, int pad, int borderLabel,
              int aux);
    // hraw file; shuffling continues the generator's sequence (no reseeding).
    PottsData(bool shuffle, float percentage, std::string hrawFile, int pad, int borderLabel, int aux);
    PottsData(const PottsData&) = delete;
    PottsData& operator=(const PottsData&) = delete;
    ~PottsData();

    // Lets go of the values (frees an own block, leaves a shared list);
    // data becomes null.
    void dropValues();

    // Sizes, raster coordinate list, shuffle (seeded with 3605118785), loadDataRaw.
    void setupRoot(int rows, int cols, int bands, bool shuffle, float percentage);
    // Sizes from the hraw header, raster list, shuffle without reseeding, loadDataHRaw.
    void setupRoot(bool shuffle, float percentage);
    // Loads the first loadedCount pixels of the list from headerless band files.
    void loadDataRaw(char** files, int bands, float percentage);
    // Loads the first loadedCount pixels of the list from the hraw file.
    void loadDataHRaw(std::string file, float percentage);
    // bands = n; each name copied into a new 80-character buffer.
    void setFileNames(char** names, int n);
    // Prompts "File name band-<b> : " on standard output, reads each name from standard input.
    void inputFileNames(int n);
    void setHrawFileName(std::string name) { hrawFileName = name; }

    // Area of the root region's bounding box.
    int getEnvelopeArea() const;
    // New pair (mean row, mean column) over the coordinate list.
    double* getSpatialCenter() const;
    // New loadedCount x bands copies (row arrays new[], rows new[]); n = loadedCount.
    int** getLoadedPixels(int& n);
    double** getLoadedPixelsAsDouble(int& n);
    double** getLoadedPixelsAsDouble2(int& n);
    // New loadedCount pairs (row, column).
    double** getLoadedPixelsCoord(int& n);
    // Coordinates standardised per axis: (v - mean) / standard deviation (population,
    // 1 when zero); the outputs are mean row, spread row, mean column, spread column.
    double** getLoadedPixelsCoordNorm(int& n, double& meanRow, double& spreadRow, double& meanCol,
                                      double& spreadCol);
    // While rasterOrder: new band vector of pixel (x, y); otherwise null.
    double* getPixelAsDouble(xy p) const;
    // Up to n pixel vectors, unmarked pixels first (then marked ones, flag 1 in the
    // copy); coords receives a new array of their coordinates; n = number taken.
    double** getFirstNaturals(int& n, xy*& coords);
    // New ROI sharing `data` (NOT a copy: set its data to null before deleting it),
    // with a copy of the coordinates (unchanged), count = envelopeCount, image size
    // rows x cols, order 1 when shuffled else 2, and the bounding box of the coordinates.
    ROI<int, xy>* getDataRoi();
    // New one-band ROI of the root's labels at the coordinate list (aux map when
    // onAux); box 0..rows-1 x 0..cols-1, with the source ROI's offsets when built from one.
    ROI<int, xy>* getLabRoi(bool onAux);
    // On the root's map: optional copy to aux (transposed when reverse), optional
    // compact(n), then a new unpadded copy of the aux map.
    int** outputMap(bool copyToAux, bool doCompact, bool reverse, int n);

  private:
    int bandFileCount = 0;  // entries of bandFiles
    void computeLoadedCount(float percentage);
    void shuffleCoords();
    void buildRasterCoords();
    void freeBandFiles();
};
