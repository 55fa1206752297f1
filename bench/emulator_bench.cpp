// Cost of drawing one emulated frame, against copying a frame of the same size.
#include "framerenderer.h"
#include "scene.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

Scene benchScene()
{
    Scene s;
    std::string error;
    Scene::parse("lens 600 600 376 240 -0.2 0.05\nnoise 3\nreflection 400 200 12 150\n"
                 "stroke stylus 0 1000 path 100,100 1800,1000\nstroke finger 0 1000 path 1800,100 100,1000\n",
                 "bench", ".", s, error);
    return s;
}

void BM_CopyFrame(benchmark::State& state)
{
    std::vector<uint8_t> a(752 * 480, 1), b(752 * 480);
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), a.size());
        benchmark::DoNotOptimize(b.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CopyFrame);

void BM_RenderFrame(benchmark::State& state)
{
    FrameRenderer renderer(benchScene());
    FrameGeometry g;
    g.binX = g.binY = static_cast<int>(state.range(0));
    std::vector<uint8_t> out(static_cast<size_t>(g.bytes()));
    std::vector<SpotTruth> spots;
    RenderState rs;
    rs.laserOn = true;
    for (auto _ : state) {
        rs.time += 1.0 / 120;
        ++rs.frame;
        renderer.render(out.data(), g, rs, spots);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_RenderFrame)->Arg(1)->Arg(2);

} // namespace
BENCHMARK_MAIN();
