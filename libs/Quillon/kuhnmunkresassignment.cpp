#include "kuhnmunkresassignment.h"

#include <cstdio>

bool KuhnMunkresAssignment::merge(int n)
{
    if (n >= capacity)
        return false;
    size = n;
    matched = 0;
    for (int i = 0; i < n; ++i) {
        xy[i] = -1;
        yx[i] = -1;
    }
    initLabels();
    steps = 0;
    augment();
    return ok;
}

void KuhnMunkresAssignment::initLabels()
{
    steps = 0;
    ok = true;
    // Only the heads are cleared; the rest keeps what the last run left.
    labelX[0] = 0;
    labelY[0] = 0;
    slack[0] = 0;
    slackX[0] = 0;
    prev[0] = 0;
    prev[1] = 0;
    inS[0] = false;
    inT[0] = false;
    for (int i = 0; i < size; ++i) {
        for (int j = 0; j < size; ++j) {
            if (cost[i][j] > labelX[i])
                labelX[i] = cost[i][j];
        }
    }
}

void KuhnMunkresAssignment::addToTree(int x, int prevX)
{
    inS[x] = true;
    prev[x] = prevX;
    for (int y = 0; y < size; ++y) {
        const double excess = labelX[x] + labelY[y] - cost[x][y];
        if (excess < slack[y]) {
            slack[y] = excess;
            slackX[y] = x;
        }
    }
}

void KuhnMunkresAssignment::update_labels()
{
    double delta = NoSlack;
    for (int y = 0; y < size; ++y) {
        if (!inT[y] && slack[y] < delta)
            delta = slack[y];
    }
    for (int x = 0; x < size; ++x) {
        if (inS[x])
            labelX[x] -= delta;
    }
    for (int y = 0; y < size; ++y) {
        if (inT[y])
            labelY[y] += delta;
        else
            slack[y] -= delta;
    }
}

void KuhnMunkresAssignment::augment()
{
    int queue[Capacity];
    // One augmenting path per pass; each pass is what a recursive call would do.
    while (matched != size && ok) {
        int wr = 0;
        int rd = 0;
        for (int i = 0; i < size; ++i) {
            prev[i] = -1;
            inS[i] = false;
            inT[i] = false;
            queue[i] = 0;
        }
        int root = -1;
        for (int i = 0; i < size; ++i) {
            if (xy[i] == -1) {
                root = i;
                break;
            }
        }
        if (root >= 0) {
            queue[wr++] = root;
            prev[root] = -2;
            inS[root] = true;
        } else {
            root = 0;
        }
        for (int y = 0; y < size; ++y) {
            slack[y] = labelX[root] + labelY[y] - cost[root][y];
            slackX[y] = root;
        }

        int pathX = -1;
        int pathY = -1;
        for (;;) {
            if (++steps > StepLimit) {
                ok = false;
                return;
            }
            while (rd < wr && pathY < 0) {
                const int x = queue[rd++];
                for (int y = 0; y < size; ++y) {
                    if (cost[x][y] == labelX[x] + labelY[y] && !inT[y]) {
                        if (yx[y] == -1) {
                            pathX = x;
                            pathY = y;
                            break;
                        }
                        inT[y] = true;
                        if (wr < Capacity)
                            queue[wr++] = yx[y];
                        addToTree(yx[y], x);
                    }
                }
                if (pathY >= 0)
                    break;
                if (++steps > StepLimit) {
                    ok = false;
                    printf("*****************exited from inner while rd < wr loop ********\n");
                    return;
                }
            }
            if (pathY >= 0)
                break;

            update_labels();
            wr = 0;
            rd = 0;
            for (int y = 0; y < size; ++y) {
                if (!inT[y] && slack[y] == 0) {
                    if (yx[y] == -1) {
                        pathX = slackX[y];
                        pathY = y;
                        break;
                    }
                    inT[y] = true;
                    if (!inS[yx[y]]) {
                        if (wr < Capacity)
                            queue[wr++] = yx[y];
                        addToTree(yx[y], slackX[y]);
                    }
                }
            }
            if (pathY >= 0)
                break;
        }

        ++matched;
        for (int cx = pathX, cy = pathY; cx != -2;) {
            const int next = xy[cx];
            yx[cy] = cx;
            xy[cx] = cy;
            cx = prev[cx];
            cy = next;
        }
    }
}
