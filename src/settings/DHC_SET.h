#pragma once
// Settings of one segmentation run: the splitting driver reads the splitting
// fields, the Potts engine the Potts and mean-shift fields.  Filled either from
// the MATLAB settings object (dhcConfig, src/mex) or from an ini file
// (DHC_SET(fileName)).  Created with new by its producer; the driver does not
// own it.  Owns structureLevels and structurePaths (new[]), hence not copyable.
//
// A field that its source does not provide keeps the default given here (a
// missing ini key reads as 0 / false / 0.0).  Every setting of a field is a
// row of the settings table (SettingsTable.h); the tree JSON lists the fields
// in the order they are declared here.

#include <string>

class ConfigFileParser;

struct DHC_SET {
    // Size of the label pool of the free-label allocator; always 1000000.
    int maxLabels = 1000000;
    // Supervised run: the class structure and a ground truth are given.
    bool supervisedMode = false;
    // Let each split choose its own number of children.
    bool variableMultiplicity = false;
    // Minimum split gain for a split to be kept.
    double splitGainThreshold = 0.0;
    // Stop when this many classes exist.
    int maxNumberOfClasses = 0;
    // A workspace smaller than this (pixels) is not split.
    double minSplitArea = 0.0;
    // Use blind splitting (breadth first, by a distortion metric).
    bool blind = false;
    // Distortion metric selector for blind splitting.
    int metric = 0;
    // Distortion threshold, carried into the splitting options.
    double distorsionThreshold = 0.0;
    // Grow the tree level by level...
    bool balancedTree = false;
    // ...down to this depth.
    int growDepth = 0;
    // Selects split mode 2 in the splitting options.
    bool doubleSplit = false;
    // Run the fragmentation phase and output fragments.
    bool fragmentation = false;
    // Cut every new child into connected regions right after its split.
    bool splitwiseDisconnect = false;
    // Blind stopping limits are in force: always derived, true exactly when one
    // of blindDepth, blindMSE, blindArea is non-zero (see updateBlindActive).
    bool blindActive = false;
    // Blind splitting: maximum depth.
    double blindDepth = 0.0;
    // Blind splitting: minimum mean squared error to go on.
    double blindMSE = 0.0;
    // Blind splitting: minimum area to go on.
    double blindArea = 0.0;
    // Supervised: number of top-level structure entries (classes).
    int numberOfClasses = 0;
    // Supervised: per class, the length of its path (numberOfClasses entries, new[]).
    int* structureLevels = nullptr;
    // Supervised: all class paths concatenated (sum of structureLevels entries, new[]).
    int* structurePaths = nullptr;
    // Number of children per split.
    int multiplicity = 0;
    // Adaptive estimation of the Potts interaction beta.
    bool adaptive = false;
    // Lower and upper bounds of beta, and the bound used by adaptive estimation.
    double betaMin = 0.0;
    double betaMax = 0.0;
    double betaBound = 0.0;
    // Mean-shift range and spatial bandwidths.
    double rangeBandwidth = 0.0;
    double spatialBandwidth = 0.0;
    // Mean shift: k-nearest-neighbour auto adjustment.
    int autoAdjustkNN = 0;
    // Mean shift: skip the last steps (the engine's meaning).
    double skipLast = 0.0;
    // Mean shift: convergence tolerance.
    double tolerance = 0.0;
    // Mean shift: kernel selector.
    int kernelType = 0;
    // Gain-driven splitting: how a test split is judged.  0 = its split gain
    // against splitGainThreshold; 1 = ICL, 2 = BIC (a split is kept when the
    // criterion, in nats, is positive; splitGainThreshold is not used).
    int stopCriterion = 0;
    // Unsupervised runs with a tree: at most this many rounds of the joint
    // refinement of the final map (EM over the leaves' Gaussians, then Potts
    // ICM); 0 = the map of the tree's leaves as it is.
    int finalRefinement = 0;

    DHC_SET() = default;
    // Reads the ini file (at most the first 200 characters of the name are used).
    // A file in which [SEGM_MAIN_CONFIGURATION] cannot be found ends the process
    // with status -1.
    explicit DHC_SET(std::string fileName);
    // Reads the same keys from a parser over configuration text.
    explicit DHC_SET(ConfigFileParser& ini);
    ~DHC_SET();
    DHC_SET(const DHC_SET&) = delete;
    DHC_SET& operator=(const DHC_SET&) = delete;

    // The fields of [POTTS_MODEL] / [MEANSHIFT], from the section the parser has
    // sought; the engine and the mean shift read their own ini files with them.
    void readPottsModel(ConfigFileParser& ini);
    void readMeanShift(ConfigFileParser& ini);

  private:
    void read(ConfigFileParser& ini);

  public:
    // blindActive = blindDepth, blindMSE or blindArea is non-zero.
    void updateBlindActive() { blindActive = blindDepth != 0.0 || blindMSE != 0.0 || blindArea != 0.0; }
};
