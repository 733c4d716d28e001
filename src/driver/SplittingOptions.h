#pragma once
// Options of the splitting strategies (DHC::splitting, DHC::blindSplitting,
// DHC::split), passed by value.  The defaults are the values DHC::dhc uses for
// the fields it does not take from the settings record.

struct SplittingOptions {
    // Read by DHC::split: 2 = cut the leaf into its connected pieces first,
    // split every piece and regroup the pieces' classes by nearest mean.
    int splitOption = 0;
    // Handed by DHC::split to the engine's split as its bool argument.
    bool keepTests = false;
    // Handed by DHC::split to the engine's split as its double argument.
    double beta = 1.0;
    // Minimum area (pixels) of a workspace to split and of each test child.
    double minSplitArea = 0.0;
    // Score threshold: gain mode stops when the best split gain is below it;
    // blind mode splits a leaf only when its score reaches it.
    double splitGainThreshold = 0.0;
    // Gain mode: 0 = scores are split gains against splitGainThreshold;
    // 1 (ICL) or 2 (BIC) = scores are the splits' criteria, kept when positive,
    // and a refused leaf is weighed once more with its children's best splits.
    int stopCriterion = 0;
    // Stop when the tree has this many leaves (not consulted in balanced mode).
    int maxNumberOfClasses = 0;
    // > 0 selects balanced (depth-driven) splitting down to this depth.
    int depthLimit = 0;
    // 1 = cut every validated child into connected pieces (weighted class
    // count); 2 (double split) and 0 = plain splitting.
    int splitMode = 0;
    // Argument of Tree::validate.
    bool validateFlag = false;
    // Blind-splitting distortion threshold, carried for the engine.
    double distorsionThreshold = 0.0;
    // Blind mode: cut each new child into connected pieces.
    bool splitwiseDisconnect = false;
    // Blind mode score: 0 area, 1 distortion, 2 distortion/area,
    // 3 distortion*ln(area), 4 (distortion/area)*ln(area), 5 envelope area,
    // 6 data point count, 7 1/(depth+1), 8 1/(depth+1) when area >= minSplitArea.
    // Any other value ends the process with status -20.
    int metric = 0;
    // Carried for the split; not used by the strategies.
    int nIterations = 3;
    // Carried for the split; not used by the strategies.
    bool flagA = false;
    // Local blind splitting: label of the subtree root.
    int startLabel = -1;
    // Local blind splitting: grow a separate tree from startLabel and mirror
    // every split into the main tree.
    bool localTree = false;
    // Blind stopping limits (in force when blindActive): maximum depth,
    // minimum mean squared error, minimum area; 0 disables a limit.
    bool blindActive = false;
    double blindDepth = 0.0;
    double blindMSE = 0.0;
    double blindArea = 0.0;
};
