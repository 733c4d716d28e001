#pragma once
// One hierarchical segmentation run.
//
// DHC owns the tree of workspaces (whose root is the whole region of interest),
// the Potts engine, the free-label allocator and, in supervised mode, the tree
// of class models.  The settings record and the configuration file name are
// views owned by the caller.  DHC::dhc builds one, runs a splitting strategy,
// paints the final labels and hands the object over inside a DHC_OUT so that
// the caller can still ask it for reports.
//
// Label convention: the allocator's first label is the frame (border) label of
// the shared label map and is never a region label; the second is the root's.
//
// Supervised mode: generateMixTree installs the engine's likelihood table over
// the root (one row per ground-truth class) before any supervised split; the
// class models of the structure tree are linked to the engine's global mixture,
// so the engine must not rebuild that mixture while the tree exists.

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "data/xy.h"
#include "driver/DHC_IN.h"
#include "driver/DHC_OUT.h"
#include "driver/FinalModel.h"
#include "driver/SplittingOptions.h"

template <typename T, typename C>
struct ROI;
template <typename T>
class Tree;
template <typename T>
class TreeNode;
class PottsEngine;
class LabelController;
class PottsWS;
class PottsMapRegion;
class WeightTree;
class Mixture;
struct DHC_SET;
struct WSReport;
struct PaddedMap;

class DHC {
  public:
    // Each blind or test split first estimates its number of children by mean shift.
    bool variableMultiplicity = false;
    // Built from `settings` when given, else from `configFile`, else with defaults (owned).
    std::unique_ptr<PottsEngine> engine;
    // Free-label pool (owned).
    std::unique_ptr<LabelController> labels;
    // The workspace hierarchy (owned, with every workspace it carries, which
    // distroyDhcTree frees: the tree's nodes only point at them).
    std::unique_ptr<Tree<PottsWS*>> tree;
    // Supervised mode: the class-structure tree with its class models (owned); else null.
    std::unique_ptr<Tree<Mixture*>> mixTree;
    // Configuration file name (not owned, may be null).
    char* configFile = nullptr;
    // Settings record (not owned, may be null).
    DHC_SET* settings = nullptr;

    // Why the splitting ended, one line for the user ("no split kept: best
    // candidate region 7, gain 0.095 < 0.2"); empty before a run.
    std::string stopReason;
    // Unsupervised runs with a tree: the final classes (label, Gaussian, area)
    // and the Potts beta of the final map, refined or not (FinalModel.h);
    // null otherwise.
    std::unique_ptr<dhc::FinalModel> finalModel;

    // --- Construction: allocator, root workspace, engine, tree. ----------
    // Unsupervised, no initial segmentation.
    DHC(ROI<int, xy>* data, int maxLabels, bool variableMultiplicity, char* configFile, DHC_SET* settings);
    // Unsupervised, tree seeded from initial labels (one value per data point):
    // with two or more distinct initial labels the root gets one child per label.
    DHC(ROI<int, xy>* initialLabels, ROI<int, xy>* data, int maxLabels, bool variableMultiplicity,
        char* configFile, DHC_SET* settings);
    // Supervised (the ground truth is used later by generateMixTree).
    DHC(ROI<int, xy>* data, ROI<int, xy>* gt, int nClasses, int maxLabels, char* configFile,
        DHC_SET* settings);
    // File variants: the image is read from an hraw file.
    DHC(std::string dataFile, int maxLabels, bool variableMultiplicity, char* configFile, DHC_SET* settings);
    DHC(std::string dataFile, int** initialMap, int maxLabels, bool variableMultiplicity, char* configFile,
        DHC_SET* settings);
    DHC(std::string dataFile, char* initialMapFile, int maxLabels, bool variableMultiplicity,
        char* configFile, DHC_SET* settings);
    DHC(std::string dataFile, std::string gtFile, int nClasses, int maxLabels, char* configFile,
        DHC_SET* settings);
    DHC(std::string dataFile, char* gtFile, int nClasses, int maxLabels, char* configFile, DHC_SET* settings);
    // Raw-array variants: the image is read from headerless band files
    // (one rows x cols int32 file per band).
    DHC(int rows, int cols, int bands, char** bandFiles, int maxLabels, bool variableMultiplicity,
        char* configFile, DHC_SET* settings);
    DHC(int rows, int cols, int bands, char** bandFiles, int** initialMap, int maxLabels,
        bool variableMultiplicity, char* configFile, DHC_SET* settings);
    DHC(int rows, int cols, int bands, char** bandFiles, char* gtFile, int nClasses, int maxLabels,
        char* configFile, DHC_SET* settings);

    ~DHC();
    DHC(const DHC&) = delete;
    DHC& operator=(const DHC&) = delete;

    // --- The run. ---------------------------------------------------------
    // Builds a DHC for in.mode, runs the strategy, paints and extracts the
    // final labels (and fragments), writes in.outputFile if set.
    //  - labelRoi: unsupervised, the leaves' labels; supervised, the ground-truth
    //    label matched to each leaf (labelWithGT).  For the file source the points
    //    are every pixel of the image in raster order.
    //  - fragRoi: fragment labels (fresh labels above every class label), when
    //    fragmentation ran.
    //  - in.outputFile: the label map as it stands at the end (fragments when
    //    fragmentation ran), renumbered 1, 2, ... in raster order of first
    //    appearance (outputPMap(true, true, true, -1)).
    // A file-source run with an initial map adds 1 to the depth limit, which
    // turns on balanced splitting even when balancedTree is off.
    // If a fatal handler throws, everything built so far is released.
    static DHC_OUT dhc(DHC_IN in);

    // Optional progress hook, called after every split that becomes permanent
    // with the current number of leaves and the label of the split workspace.
    // Off (empty) by default; the engine's own standard-output lines are unaffected.
    static void setProgress(std::function<void(int leaves, int currentLabel)> hook);

    // Prunes the tree to its root and repaints the root region with its label.
    void start(bool onAux = false);
    // Removes every node below the root, releasing their labels and workspaces.
    void resetDHCTree();
    // Destroys the tree and all its workspaces (test children included).
    void distroyDhcTree();
    // Paints every terminal region with its label (in the aux map when flag is set).
    void globalMapRefresh(bool flag);
    // New array of the regions of the terminal workspaces not yet `processed`;
    // the regions stay owned by their workspaces.
    PottsMapRegion** getNewlyCreated(int& n);

    // Supervised: class-structure tree from the class paths, class models from
    // the ground truth, and the engine's likelihood table over the root.
    void generateMixTree(int* levels, int** paths, int nClasses, ROI<int, xy>* gt);
    void generateMixTree(int* levels, int** paths, int nClasses, char* gtFile);
    // Gives every inner node of the class-structure tree a model linked to the
    // global statistics of the classes below it (post-order).
    void mixNodeUpdate();

    // --- Strategies. ------------------------------------------------------
    void splitting(SplittingOptions opts);
    void blindSplitting(SplittingOptions opts);
    void testSplitting(SplittingOptions opts);
    void supervisedSplitting();
    // Tentative split of the tree's current leaf.
    void split(SplittingOptions opts);
    // Cuts the workspace of the tree's current node into its connected pieces.
    // Returns null (n = 1) when it is connected.  Otherwise returns a new array
    // of the n piece workspaces with fresh labels; with attach set they become
    // the node's children (validated, and mirrored under the node of the same
    // label in `other` when given) and belong to the tree, otherwise the caller
    // owns them and their labels.
    PottsWS** disconnect(int& n, bool attach, Tree<PottsWS*>* other);
    // Removes the tentative children of every leaf (labels released,
    // workspaces destroyed) and resets every leaf's splitState to 0; with
    // reload set, the leaves' pixel values are read again from their files.
    void removeTestSplits(bool reload);

    // --- Output. ----------------------------------------------------------
    // New array of n new reports, one per tree node in the tree's node-list
    // order, each completed by completeWSReport.  The caller owns both.
    WSReport** reportAllWSs(int& n);
    // Fills the members of a report that only the tree knows.  Offspring are
    // listed in terminal-list order.
    void completeWSReport(WSReport* report);
    // New array of the split (internal) nodes' labels, greedily by split gain
    // with a parent before its children; null and n = 0 when nothing was split.
    int* extractSplitSequence(int& n);
    // The current label map as a new padded map (caller owns it and its plane):
    // fromMap = take the map (else the aux map as it stands) -- the source is
    // copied into the aux map; compact = renumber the labels 1, 2, ... in raster
    // order of first appearance, `keep` keeping its own value (-1 for none);
    // padded = keep the map's frame (else the copy has padding 0).
    PaddedMap* outputPMap(bool fromMap, bool compact, bool padded, int keep);
    // Writes the text report: the general block, then every workspace report
    // (WSReport::appendToFile with withStats and withCovariance).  The split
    // sequence is (nSplit, splitSequence) when a sequence is given, else it is
    // extracted here.  A run without splits writes the entry 0 where the
    // sequence's first label would stand.
    void printReport(std::string fileName, bool withStats = true, bool withCovariance = true, int nSplit = 0,
                     int* splitSequence = nullptr);
    // The same text written to a stream (the caller checks the stream's state).
    void printReport(std::ostream& os, bool withStats = true, bool withCovariance = true, int nSplit = 0,
                     int* splitSequence = nullptr);

  private:
    // One call of dhc(): its steps (DHCRun.cpp).
    struct Run;
    // The tree was seeded with two or more initial regions.
    bool seeded_ = false;
    // Owned copies behind configFile / settings when dhc() had to make them.
    std::string configFileStore_;
    std::unique_ptr<DHC_SET> ownedSettings_;

    void initCommon(int maxLabels, const std::function<PottsWS*(int borderLabel, int ownLabel)>& makeRoot);
    std::unique_ptr<PottsEngine> makeEngine();
    void guarded(const std::function<void()>& step);
    void seedFromPlane(int** initial);
    PottsWS* rootWS() const;
    int leafCount() const;
    void splitLeaf(const SplittingOptions& opts, TreeNode<PottsWS*>* node);
    // Criterion mode: makes the refused split of `leaf` for good when its
    // criterion plus its children's best positive criteria is positive (the
    // children are then test-split leaves); otherwise undoes it.
    bool lookAhead(const SplittingOptions& opts, TreeNode<PottsWS*>* leaf);
    // Records every leaf's tentative split as refused (before they are removed).
    void recordRefused();
    // Validates the chosen leaf's tentative split; with splitMode 1 its new
    // children are cut into connected pieces, weighed by `weights`.
    void makePermanent(const SplittingOptions& opts, TreeNode<PottsWS*>* chosen, WeightTree* weights);
  public:
    // Builds finalModel from the leaves and, with refinement rounds, refines
    // a copy of the label map into plane (rows: its row pointers, laid out as
    // the root region's map).
    void makeFinalModel(const DHC_SET& s, int rounds, std::vector<int>& plane, std::vector<int*>& rows);
  private:
    // Tentative splits of the given leaves, several at a time on the run's
    // threads, with the results (labels, tree, allocator) of one after the other.
    void splitLeavesSideBySide(const SplittingOptions& opts, const std::vector<TreeNode<PottsWS*>*>& leaves);
    // Engines of the threads beyond the first, made on demand like `engine`.
    std::vector<std::unique_ptr<PottsEngine>> sideEngines_;
    void splitPieces(const SplittingOptions& opts, TreeNode<PottsWS*>* node, PottsWS** pieces, int nPieces);
    double blindScore(const SplittingOptions& opts, TreeNode<PottsWS*>* node) const;
    void finishMixTree(int* levels, int** paths, int nClasses);
    void destroyMixTree();
    void supervisedStep(TreeNode<Mixture*>* classNode, TreeNode<PottsWS*>* wsNode);
    ROI<int, xy>* fragmentLeaves(ROI<int, xy>* points);
};
