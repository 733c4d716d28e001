#pragma once
// Input record of one segmentation run (DHC::dhc).
//
// The record owns only its strings; every pointer is a view onto memory that
// the caller (the MEX gateway or the command-line tool) keeps alive for the
// whole call and frees afterwards.

#include <string>

#include "data/xy.h"

template <typename T, typename C>
struct ROI;
struct DHC_SET;

struct DHC_IN {
    // 0 = unsupervised, 1 = supervised; any other value makes DHC::dhc do nothing.
    int mode = 0;
    // 0 = inputs are in-memory regions of interest (roi, initLabels, gt);
    // 1 = inputs are named files (dataFile, initLabelsFile, gtFile).
    int source = 0;
    // Image values over the region of interest (not owned).
    ROI<int, xy>* roi = nullptr;
    // Settings of the run (not owned); may be null for the file source, in
    // which case the engine reads configFile.
    DHC_SET* settings = nullptr;
    // hraw image file (file source only).
    std::string dataFile;
    // ini configuration file (file source only; may be empty).
    std::string configFile;
    // When not empty, the final label map is written there as an hraw file.
    std::string outputFile;
    // Unsupervised, file source: initial segmentation as an image-sized
    // row-pointer matrix (not owned); null for none.
    int** initLabelsFile = nullptr;
    // Unsupervised, in-memory source: initial labels, one per ROI point (not owned).
    ROI<int, xy>* initLabels = nullptr;
    // Supervised, file source: ground-truth hraw file.
    std::string gtFile;
    // Supervised, in-memory source: ground-truth labels, one per ROI point (not owned).
    ROI<int, xy>* gt = nullptr;
    // Threads the run may use (0: one per core).  The results do not depend on it.
    int threads = 0;
    // Unsupervised, in-memory source: the caller will not read roi->data nor
    // initLabels again, so the root workspace takes the roi's values over
    // instead of copying them (roi->data becomes null) and the driver frees
    // initLabels once the root is built (an empty region).  The roi's
    // coordinates stay: the label map is read out at them.
    bool releaseInputs = false;
};
