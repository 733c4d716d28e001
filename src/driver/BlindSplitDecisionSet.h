#pragma once
// A comparable record of one blind-splitting decision: which workspace, its
// score under the blind metric, and its depth.  Decisions order by score; equal
// scores order by label so that the order is total and reproducible.

struct BlindSplitDecisionSet {
    int label = 0;
    double score = 0.0;
    int depth = 0;

    bool operator<(const BlindSplitDecisionSet& o) const {
        return score < o.score || (score == o.score && label < o.label);
    }
    bool operator>(const BlindSplitDecisionSet& o) const { return o < *this; }
};
