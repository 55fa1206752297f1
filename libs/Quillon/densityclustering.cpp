#include "densityclustering.h"

std::vector<int> DensityClustering::regionQuery(const std::vector<EVector>* points, const EVector* point, float eps)
{
    std::vector<int> found;
    for (int i = 0; i < static_cast<int>(points->size()); ++i) {
        const float d = static_cast<float>((*point - points->at(i)).length());
        if (d != 0.0f && d <= eps)
            found.push_back(i);
    }
    return found;
}

std::vector<std::vector<EVector>> DensityClustering::cluster(const std::vector<EVector>* points, float eps, int minPoints)
{
    std::vector<bool> visited(points->size(), false);
    std::vector<std::vector<EVector>> result(1);
    std::vector<int> noise;
    for (int i = 0; i < static_cast<int>(points->size()); ++i) {
        if (visited[i])
            continue;
        visited[i] = true;
        std::vector<int> neighbours = regionQuery(points, &points->at(i), eps);
        if (static_cast<int>(neighbours.size()) < minPoints) {
            noise.push_back(i);
            continue;
        }
        result.emplace_back();
        result.back().push_back(points->at(i));
        // neighbours grows while it is walked, so it is walked by index.
        for (std::size_t k = 0; k < neighbours.size(); ++k) {
            const int j = neighbours[k];
            if (!visited.at(j)) {
                visited.at(j) = true;
                const std::vector<int> more = regionQuery(points, &points->at(j), eps);
                if (static_cast<int>(more.size()) >= minPoints)
                    neighbours.insert(neighbours.end(), more.begin(), more.end());
            }
            result.back().push_back(points->at(j));
        }
    }
    return result;
}
