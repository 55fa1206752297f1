#pragma once

// Maximum-weight perfect assignment on a square cost matrix (Hungarian method,
// O(n^3)), with a hard cap on the work of one run so that a frame stays bounded.
// Labels deliberately survive from one run to the next; a run that stale labels
// slow down past the cap reports failure and the caller falls back.
class KuhnMunkresAssignment {
public:
    static constexpr int Capacity = 255;
    static constexpr int StepLimit = 200;
    static constexpr double NoSlack = 100000000.0;

    int capacity = Capacity;
    int matched = 0;
    double labelX[Capacity] = {};
    double labelY[Capacity] = {};
    double slack[Capacity] = {};
    int slackX[Capacity] = {};
    int prev[Capacity] = {};
    bool inS[Capacity] = {};
    bool inT[Capacity] = {};
    int steps = 0;
    bool ok = true;
    int xy[Capacity] = {};
    int yx[Capacity] = {};
    // Weights to maximise, filled by the caller: row = kept blob, column = new blob.
    double cost[Capacity][Capacity] = {};
    int size = 0;

    // Solves the n by n problem in cost; false when n is too large or the step cap was hit.
    bool merge(int n);

    void initLabels();
    void augment();
    void addToTree(int x, int prevX);
    void update_labels();
};
