// Per-blob mapping costs, each against one plain projective map of a point (the reference).
#include "bloblist.h"
#include "calibration.h"
#include "normalundistortion.h"
#include "perspectivetransform.h"
#include "transformgrid.h"

#include <benchmark/benchmark.h>
#include <opencv2/calib3d.hpp>

#include <memory>

namespace {

// A camera at an angle: screen to sensor.
EVector cameraOf(const EVector& s)
{
    const double u = s.x / 1920, v = s.y / 1080;
    const double w = 1.0 + 0.25 * u + 0.1 * v;
    return EVector((60 + 600 * u + 40 * v) / w + 30, (50 + 30 * u + 380 * v) / w + 20);
}

std::unique_ptr<TransformGrid> gridOf(int n)
{
    Calibration layout(n, n, {}, {}, 0.05, 0.05, 0, false, false);
    std::vector<EVector> src;
    for (const EVector& d : layout.calcDstPoints(1920, 1080))
        src.push_back(cameraOf(d));
    const Calibration c(n, n, src, {}, 0.05, 0.05, 0, false, false);
    return std::unique_ptr<TransformGrid>(c.getTransform(1920, 1080, false, nullptr));
}

void BM_PerspectiveTransformFilter(benchmark::State& state)
{
    const PerspectiveTransform t(
        EPolygon({EVector(90, 70), EVector(560, 90), EVector(600, 400), EVector(70, 380)}),
        EPolygon({EVector(0, 0), EVector(1920, 0), EVector(1920, 1080), EVector(0, 1080)}));
    EVector p(376, 240);
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(t.Filter(p));
    }
}
BENCHMARK(BM_PerspectiveTransformFilter);

// The lens correction of a blob's point, against the library call it replaces (its reference).
NormalUndistortion factoryLens()
{
    NormalUndistortion lens;
    lens.intrinsicMatrix = (cv::Mat_<double>(3, 3) << 400, 0, 376, 0, 400, 240, 0, 0, 1);
    lens.distortionCoeffs = (cv::Mat_<double>(5, 1) << -0.1215, 0.0483, 0.00041, -0.00027, -0.0096);
    lens.ready = true;
    return lens;
}

void BM_NormalUndistortion(benchmark::State& state)
{
    NormalUndistortion lens = factoryLens();
    EVector p(600.25, 80.5);
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(lens.undistort(p));
    }
}
BENCHMARK(BM_NormalUndistortion);

void BM_OpenCvUndistortPoints(benchmark::State& state)
{
    const NormalUndistortion lens = factoryLens();
    double in[2] = {600.25, 80.5}, out[2];
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        const cv::Mat src(1, 1, CV_64FC2, in);
        cv::Mat dst(1, 1, CV_64FC2, out);
        cv::undistortPoints(src, dst, lens.intrinsicMatrix, lens.distortionCoeffs, cv::noArray(), lens.intrinsicMatrix);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_OpenCvUndistortPoints);

void BM_TransformGridFilter(benchmark::State& state)
{
    const auto grid = gridOf(static_cast<int>(state.range(0)));
    EVector p = cameraOf(EVector(960, 540));
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(grid->Filter(p));
    }
}
BENCHMARK(BM_TransformGridFilter)->Arg(5)->Arg(9);

void BM_BlobListToArray20(benchmark::State& state)
{
    const auto grid = gridOf(5);
    std::vector<Blob> blobs;
    blobs.reserve(20);
    for (int i = 0; i < 20; ++i)
        blobs.emplace_back(100 + 25 * i, 80 + 15 * i, 4, 4, 0);
    BlobList list;
    for (Blob& b : blobs)
        list.add(&b);
    for (auto _ : state) {
        std::vector<Blob*> out = list.ToArray(grid.get(), nullptr);
        benchmark::DoNotOptimize(out.data());
        for (Blob* b : out)
            delete b;
    }
}
BENCHMARK(BM_BlobListToArray20);

} // namespace

BENCHMARK_MAIN();
