// The stylus hot path against two references measured in the same run: a memcpy of
// one frame (touching every pixel once) and the usual OpenCV way of finding spots.
#include "../tests/Quillon/syntheticframe.h"

#include "interpolation.h"
#include "trackingengine.h"

#include <benchmark/benchmark.h>
#include <opencv2/imgproc.hpp>

#include <cstring>

namespace {

std::vector<Spot> spotGrid(int count, double shift = 0)
{
    std::vector<Spot> spots;
    for (int i = 0; i < count; ++i)
        spots.push_back({60.0 + (i % 10) * 68 + shift, 60.0 + (i / 10) * 80 + shift * 0.5, 7});
    return spots;
}

SyntheticFrames& scene()
{
    static SyntheticFrames synth = [] {
        SyntheticFrames s(5);
        // Reflections and a lamp: bright, fixed, learned as background.
        s.areas = {{20, 20, 30, 12, 250}, {700, 420, 40, 40, 255}, {380, 4, 8, 200, 240}};
        return s;
    }();
    return synth;
}

std::vector<unsigned char> frameWith(int spots, double shift = 0) { return scene().make(spotGrid(spots, shift)); }

std::unique_ptr<TrackingEngine> learnedEngine()
{
    auto engine = std::make_unique<TrackingEngine>(SyntheticFrames::Width, SyntheticFrames::Height, 230, 1, true);
    std::vector<unsigned char> bg = frameWith(0);
    while (engine->learning)
        engine->processImage(bg.data(), false, false);
    return engine;
}

void freeAll(AllBlobs& all)
{
    for (Blob* b : all.blobs.blobs)
        delete b;
    for (Blob* b : all.outsideBlobs.blobs)
        delete b;
}

void BM_Memcpy(benchmark::State& state)
{
    std::vector<unsigned char> src = frameWith(10), dst(src.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Memcpy);

void BM_OpenCvBaseline(benchmark::State& state)
{
    std::vector<unsigned char> raw = frameWith(int(state.range(0)));
    cv::Mat frame(SyntheticFrames::Height, SyntheticFrames::Width, CV_8UC1, raw.data());
    cv::Mat binary, labels, stats, centroids;
    std::vector<cv::Point2d> found;
    for (auto _ : state) {
        cv::threshold(frame, binary, 230, 255, cv::THRESH_BINARY);
        const int n = cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
        found.clear();
        for (int c = 1; c < n; ++c) {
            const int x0 = stats.at<int>(c, cv::CC_STAT_LEFT), y0 = stats.at<int>(c, cv::CC_STAT_TOP);
            const int w = stats.at<int>(c, cv::CC_STAT_WIDTH), h = stats.at<int>(c, cv::CC_STAT_HEIGHT);
            double sw = 0, sx = 0, sy = 0;
            for (int y = y0; y < y0 + h; ++y) {
                const int* l = labels.ptr<int>(y);
                const unsigned char* p = frame.ptr<unsigned char>(y);
                for (int x = x0; x < x0 + w; ++x)
                    if (l[x] == c) {
                        sw += p[x];
                        sx += x * p[x];
                        sy += y * p[x];
                    }
            }
            found.emplace_back(sx / sw, sy / sw);
        }
        benchmark::DoNotOptimize(found.data());
    }
}
BENCHMARK(BM_OpenCvBaseline)->Arg(0)->Arg(1)->Arg(10)->Arg(50);

void BM_ProcessImage(benchmark::State& state)
{
    auto engine = learnedEngine();
    std::vector<unsigned char> frame = frameWith(int(state.range(0)));
    for (auto _ : state) {
        AllBlobs all = engine->processImage(frame.data(), false, false);
        benchmark::DoNotOptimize(all.size());
        freeAll(all);
    }
}
BENCHMARK(BM_ProcessImage)->Arg(0)->Arg(1)->Arg(10)->Arg(50);

void BM_MergeWith(benchmark::State& state)
{
    const int n = int(state.range(0));
    BlobList tracked;
    std::vector<Spot> a = spotGrid(n), b = spotGrid(n, 2.0);
    auto detections = [&](const std::vector<Spot>& spots) {
        BlobList l;
        for (const Spot& s : spots)
            l.add(new Blob(s.x, s.y, 7, 7, 0));
        return l;
    };
    BlobList next = detections(a);
    tracked.mergeWith(next, 0, nullptr);
    BlobList fresh = detections(b); // one list object reused: a new one would allocate a matcher
    bool odd = false;
    for (auto _ : state) {
        const std::vector<Spot>& spots = odd ? a : b;
        odd = !odd;
        fresh.clear();
        for (const Spot& s : spots)
            fresh.add(new Blob(s.x, s.y, 7, 7, 0));
        tracked.mergeWith(fresh, 0, nullptr);
        benchmark::DoNotOptimize(tracked.size());
    }
    for (Blob* bl : tracked.blobs)
        delete bl;
}
BENCHMARK(BM_MergeWith)->Arg(10)->Arg(50);

// Engine, matching and both filters, as one frame of the running system.
void BM_FullFrame(benchmark::State& state)
{
    auto engine = learnedEngine();
    const int n = int(state.range(0));
    std::vector<unsigned char> f0 = frameWith(n), f1 = frameWith(n, 2.0);
    BlobList tracked;
    Interpolation bezier(0.6), inertia(0.5);
    bool odd = false;
    for (auto _ : state) {
        std::vector<unsigned char>& f = odd ? f1 : f0;
        odd = !odd;
        AllBlobs all = engine->processImage(f.data(), false, false);
        tracked.mergeWith(std::move(all.blobs), 0, nullptr);
        bezier.BezierCurveFilter(&tracked, false);
        inertia.InertiaCurveFilter(&tracked, -1.0);
        benchmark::DoNotOptimize(tracked.size());
    }
    for (Blob* b : tracked.blobs)
        delete b;
}
BENCHMARK(BM_FullFrame)->Arg(0)->Arg(1)->Arg(10)->Arg(50);

} // namespace

BENCHMARK_MAIN();
