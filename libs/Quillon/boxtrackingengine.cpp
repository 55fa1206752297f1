#include "boxtrackingengine.h"

#include "boxtrackingdebug.h"
#include "calibration.h"
#include "enginehelper.h"
#include "globalsettings.h"
#include "gridhelper.h"
#include "quillonimagehelper.h"
#include "transformgrid.h"
#include "workerthread.h"

#include <QDebug>

#include <opencv2/imgproc.hpp>

#ifdef __SSE2__
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define VELORA_AVX2_SWEEP 1
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <string>

namespace {

// v > bg + t for whole v and bg is v - bg > floor(t); the hot loop compares integers.
int integerLimit(double t)
{
    if (std::isnan(t) || t >= 1e9)
        return 1000000000;
    if (t <= -1e9)
        return -1000000000;
    return static_cast<int>(std::floor(t));
}

constexpr unsigned ChunkWidth = 32;

// The sums of the box centres of runs of chunks, and the chunks with a value above their
// limit, for sweepChunks below. A pixel with several centres is counted once here; the rest
// come from the short list of such pixels.
//
// A chunk whose pixels are all at or below its least limit is quiet without its row of limits
// being read: that row is read for a few chunks a frame, and the table that is read for every
// chunk stays small beside the frame in the core's cache.
struct ChunkScan {
    const unsigned char* frame;
    const unsigned* offset;
    const unsigned char* limit;
    const unsigned char* lowest;
    const unsigned* centres;
};

template <class Above>
long long sumChunksPlain(const ChunkScan& s, int begin, int end, Above&& above)
{
    long long sum = 0;
    for (int c = begin; c < end; ++c) {
        const unsigned char* px = s.frame + s.offset[c];
        const unsigned char* limit = s.limit + std::size_t(c) * ChunkWidth;
        const unsigned centres = s.centres[c];
        const unsigned char lowest = s.lowest[c];
        bool loud = false;
        for (unsigned k = 0; k < ChunkWidth; ++k) {
            if (centres >> k & 1u)
                sum += px[k];
            loud |= px[k] > lowest;
        }
        if (!loud) [[likely]]
            continue;
        unsigned mask = 0;
        for (unsigned k = 0; k < ChunkWidth; ++k)
            mask |= unsigned(px[k] > limit[k]) << k;
        if (mask != 0)
            above(c, mask);
    }
    return sum;
}

#ifdef VELORA_AVX2_SWEEP
// All chunks in one loop, whatever their run: the running sum's lanes are written at the entry
// of the chunk's run, so that each entry ends with the sum up to its run's last chunk, and the
// runs' shares come from the differences afterwards. Leaving and entering the loop at every run
// (hundreds of runs of a few chunks) cost more than the chunks. The table holds a byte a pixel
// and a bit a pixel; only its least limit and centre bits are read for a quiet chunk.
template <class Run, class Above>
__attribute__((target("avx2"))) void sweepAllAvx2(const ChunkScan& s, const int* runOf, const Run* runs, int runCount,
                                                   std::array<long long, 4>* runEnds,
                                                   std::array<long long, 4>* regionLanes, long long* sums,
                                                   int regionCount, Above&& above)
{
    const __m256i zero = _mm256_setzero_si256();
    // Byte k of a chunk takes bit k of its centre mask.
    const __m256i spread = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 3,
                                            3, 3, 3, 3, 3, 3, 3);
    const __m256i bits = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201ULL));
    __m256i total = zero;
    const int chunks = runCount > 0 ? runs[runCount - 1].end : 0;
    // In locals: the lanes' stores could alias the table's fields, which would be read again
    // at every chunk.
    const unsigned char* const frame = s.frame;
    const unsigned* const offset = s.offset;
    const unsigned* const centres = s.centres;
    const unsigned char* const lowest = s.lowest;
    for (int c = 0; c < chunks; ++c) {
        const __m256i px = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(frame + offset[c]));
        const __m256i spreadMask = _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(centres[c])), spread);
        const __m256i isCentre = _mm256_cmpeq_epi8(_mm256_and_si256(spreadMask, bits), bits);
        total = _mm256_add_epi64(total, _mm256_sad_epu8(_mm256_and_si256(px, isCentre), zero));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(runEnds[runOf[c]].data()), total);
        const __m256i overLowest = _mm256_subs_epu8(px, _mm256_set1_epi8(static_cast<char>(lowest[c])));
        if (!_mm256_testz_si256(overLowest, overLowest)) [[unlikely]] {
            const __m256i limit =
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s.limit + std::size_t(c) * ChunkWidth));
            const unsigned quiet =
                static_cast<unsigned>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(_mm256_subs_epu8(px, limit), zero)));
            if (quiet != 0xFFFFFFFFu)
                above(c, ~quiet);
        }
    }
    for (int r = 0; r < regionCount; ++r)
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(regionLanes[r].data()), zero);
    __m256i previous = zero;
    for (int i = 0; i < runCount; ++i) {
        const __m256i now = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(runEnds[i].data()));
        auto* lanes = reinterpret_cast<__m256i*>(regionLanes[runs[i].region].data());
        _mm256_storeu_si256(lanes, _mm256_add_epi64(_mm256_loadu_si256(lanes), _mm256_sub_epi64(now, previous)));
        previous = now;
    }
    for (int r = 0; r < regionCount; ++r) {
        long long sum = 0;
        for (long long lane : regionLanes[r])
            sum += lane;
        sums[r] += sum;
    }
}

bool haveAvx2()
{
    static const bool have = __builtin_cpu_supports("avx2");
    return have;
}
#endif

} // namespace

BoxTrackingEngine::BoxTrackingEngine(int width_, int height_, double boxRadius_, int gridSize_)
    : width(width_), height(height_), gridSize(gridSize_), boxRadius(boxRadius_),
      updateFrames(GS::instance()->stylusBgFrames), learnFrames(GS::instance()->stylusBgFrames),
      backgroundMax(cv::Mat::zeros(height_, width_, CV_8UC1)),
      regionCount(GS::instance()->boxStride * GS::instance()->boxStride), debug(new BoxTrackingDebug())
{
    EngineHelper::resetRegionsList(&regionIntensity, regionCount);
    EngineHelper::resetRegionsList(&regionBackground, regionCount);
    EngineHelper::resetRegionsList(&regionThreshold, regionCount);
    EngineHelper::resetRegionsList(&regionHits, regionCount);
}

BoxTrackingEngine::~BoxTrackingEngine()
{
    delete transform;
    delete inverseTransform;
    delete screenArea;
    delete debug;
}

void BoxTrackingEngine::pause()
{
    paused = true;
    while (!idle.load())
        WorkerThread::msleep(1);
}

void BoxTrackingEngine::setCalibration(Calibration* calibration, int gridSize_)
{
    gridSize = gridSize_;
    pause();
    delete transform;
    delete inverseTransform;
    delete screenArea;
    transform = nullptr;
    inverseTransform = nullptr;
    screenArea = nullptr;
    screenIndex.reset();
    border.clear();
    if (!calibration) {
        boxes.clear();
        rebuildPackedBoxes();
        paused = false;
        return;
    }

    transform = calibration->getTransform(gridSize, gridSize, false, formulaCorrection);
    inverseTransform = calibration->getTransform(gridSize, gridSize, true, formulaCorrection);
    border = GridHelper::calcBorder(gridSize, gridSize, inverseTransform);
    screenArea = new EPolygon(border);
    screenIndex = std::make_unique<PolygonIndex>(*screenArea);

    const double half = gridSize * 0.5;
    topCenterGrid = EVector(half, 0);
    topCenter = inverseTransform->Filter(topCenterGrid);
    bottomMiddle = inverseTransform->Filter(EVector(half, gridSize));
    topLeft = inverseTransform->Filter(EVector(0, 0));
    bottomLeft = inverseTransform->Filter(EVector(0, gridSize));
    topRight = inverseTransform->Filter(EVector(gridSize, 0));
    bottomRight = inverseTransform->Filter(EVector(gridSize, gridSize));
    shadowLeft = inverseTransform->Filter(EVector(gridSize * 0.1, 0));
    shadowRight = inverseTransform->Filter(EVector(gridSize * 0.9, 0));

    GS* gs = GS::instance();
    // The nearer edge of the screen looks longer; the lengths compare as whole pixels.
    if (static_cast<int>((topLeft - topRight).length()) < static_cast<int>((bottomLeft - bottomRight).length())) {
        cameraInverted = true;
        qDebug() << "Camera is inverted";
        gs->cornerTopLeft = bottomMiddle;
        gs->cornerTopRight = topRight;
        gs->cornerBottomRight = bottomLeft;
        gs->cornerBottomLeft = bottomRight;
    } else {
        cameraInverted = false;
        gs->cornerTopLeft = topCenter;
        gs->cornerTopRight = bottomRight;
        gs->cornerBottomRight = topLeft;
        gs->cornerBottomLeft = topRight;
    }
    if (bottomMiddle.y < topCenter.y) {
        qDebug() << "Shift is inverted";
        shiftInverted = true;
    } else {
        shiftInverted = false;
    }

    // Frames stay held back until the boxes and the learning state are exchanged whole.
    const int stride = gs->boxStride;
    if (stride * stride != regionCount) {
        regionCount = stride * stride;
        EngineHelper::resetRegionsList(&regionIntensity, regionCount);
        EngineHelper::resetRegionsList(&regionBackground, regionCount);
        EngineHelper::resetRegionsList(&regionThreshold, regionCount);
        EngineHelper::resetRegionsList(&regionHits, regionCount);
        regionsToUpdate.clear();
    }
    boxes = GridHelper::getScanBoxes(boxRadius, 1, gridSize, gridSize, inverseTransform, width, height);
    qDebug() << "Scanboxes:" << boxes.size();
    rebuildPackedBoxes();
    gs->distanceScale = (gs->cornerTopLeft - gs->cornerTopRight).length();

    learnCount = 0;
    backgroundScaled = false;
    backgroundMax.setTo(0);
    double narrowest = 0, widest = 0;
    if (!boxes.empty()) {
        const auto [narrow, wide] = std::minmax_element(
            boxes.begin(), boxes.end(), [](const ScanBox& a, const ScanBox& b) { return a.width < b.width; });
        narrowest = narrow->width;
        widest = wide->width;
    }
    paused = false;
    // Each threshold block size these boxes can ask for is checked against the library here,
    // not in the frame loop at the first touch that needs it (about a millisecond each).
    if (widest > 0)
        ScanBox::prepareThresholds(narrowest, widest);
}

void BoxTrackingEngine::rebuildPackedBoxes()
{
    const std::size_t n = boxes.size();
    packed.resize(n);
    runs.clear();
    // intensityAtByPos: index 0 and anything past the frame read as -1.
    const unsigned readable = static_cast<unsigned>(width * height) - 1u;
    packedIndex.resize(n);
    packedBackground.resize(n);
    centres.resize(n);
    backgroundsFitShort = true;
    for (std::size_t i = 0; i < n; ++i) {
        ScanBox& b = boxes[i];
        // A region outside the table would index past it; such a box joins region 0.
        if (b.region < 0 || b.region >= regionCount)
            b.region = 0;
        packed[i] = {static_cast<unsigned>(b.centerIndex), b.bgIntensity};
        packedIndex[i] = b.centerIndex;
        setShortBackground(i, b.bgIntensity);
        const bool inside = packed[i].index - 1u < readable;
        if (runs.empty() || runs.back().region != b.region || runs.back().readable != inside)
            runs.push_back({static_cast<int>(i), static_cast<int>(i) + 1, b.region, inside, 0, false, 0.0});
        else
            runs.back().end = static_cast<int>(i) + 1;
    }
    packedOffset.resize(n);
    for (Run& run : runs) {
        int low = packedIndex[std::size_t(run.begin)], high = low;
        for (int i = run.begin; i < run.end; ++i) {
            low = std::min(low, packedIndex[std::size_t(i)]);
            high = std::max(high, packedIndex[std::size_t(i)]);
        }
        run.base = low;
        run.offsetsFit = run.readable && high - low <= 0xFFFF;
        for (int i = run.begin; i < run.end; ++i)
            packedOffset[std::size_t(i)] = static_cast<unsigned short>(run.offsetsFit ? packedIndex[std::size_t(i)] - low : 0);
    }
    cachedGain = GS::instance()->stylusBgGain;
    sumBackgrounds();
    limitOfRegion.assign(std::size_t(regionCount), 0);
    refreshing.assign(std::size_t(regionCount), 0);
    rebuildSweep();
}

void BoxTrackingEngine::rebuildSweep()
{
    sweepOffset.clear();
    sweepRegion.clear();
    sweepLimit.clear();
    sweepCentres.clear();
    sweepRepeats.clear();
    sweepRuns.clear();
    sweepBoxes.clear();
    sweepLeftover.clear();
    sweepValid = false;
    const unsigned frameSize = static_cast<unsigned>(width * height);
    // Chunks ordered by place in the frame, then region; a chunk of two regions is two chunks.
    std::vector<std::pair<std::pair<unsigned, int>, int>> byChunk; // ((chunk, region), box)
    byChunk.reserve(boxes.size());
    for (std::size_t i = 0; i < boxes.size(); ++i) {
        const unsigned index = packed[i].index;
        const unsigned chunk = index / ChunkWidth * ChunkWidth;
        if (index - 1u < frameSize - 1u && chunk + ChunkWidth <= frameSize)
            byChunk.push_back({{chunk, boxes[i].region}, int(i)});
        else
            sweepLeftover.push_back(int(i));
    }
    std::sort(byChunk.begin(), byChunk.end());
    for (const auto& [key, box] : byChunk) {
        const auto [chunk, region] = key;
        if (sweepOffset.empty() || sweepOffset.back() != chunk || sweepRuns.back().region != region) {
            sweepOffset.push_back(chunk);
            sweepRegion.push_back(region);
            sweepLimit.resize(sweepLimit.size() + ChunkWidth, 0);
            sweepCentres.push_back(0);
            const int c = int(sweepOffset.size()) - 1;
            if (sweepRuns.empty() || sweepRuns.back().region != region)
                sweepRuns.push_back({c, c + 1, region});
            else
                sweepRuns.back().end = c + 1;
        }
        const unsigned index = packed[std::size_t(box)].index;
        const unsigned bit = 1u << (index - chunk);
        if (sweepCentres.back() & bit)
            sweepRepeats.push_back({index, region, 1});
        sweepCentres.back() |= bit;
        sweepBoxes.push_back({index, box});
    }
    std::sort(sweepBoxes.begin(), sweepBoxes.end());
    // One entry a pixel and region, with all its further centres.
    std::sort(sweepRepeats.begin(), sweepRepeats.end(), [](const SweepRepeat& a, const SweepRepeat& b) {
        return std::pair(a.index, a.region) < std::pair(b.index, b.region);
    });
    std::size_t kept = 0;
    for (const SweepRepeat& r : sweepRepeats) {
        if (kept > 0 && sweepRepeats[kept - 1].index == r.index && sweepRepeats[kept - 1].region == r.region)
            ++sweepRepeats[kept - 1].count;
        else
            sweepRepeats[kept++] = r;
    }
    sweepRepeats.resize(kept);
    std::sort(sweepLeftover.begin(), sweepLeftover.end());
    sweepRunOf.resize(sweepOffset.size());
    for (std::size_t i = 0; i < sweepRuns.size(); ++i)
        std::fill(sweepRunOf.begin() + sweepRuns[i].begin, sweepRunOf.begin() + sweepRuns[i].end, int(i));
    sweepRunEnds.resize(sweepRuns.size());
    sweepRegionLanes.resize(std::size_t(std::max(regionCount, 0)));
    sweepFirst.resize(sweepOffset.size());
    std::size_t first = 0;
    for (std::size_t c = 0; c < sweepOffset.size(); ++c) {
        while (first < sweepBoxes.size() && sweepBoxes[first].first < sweepOffset[c])
            ++first;
        sweepFirst[c] = int(first);
    }
    // A chunk costs about what four boxes cost one by one: a screen whose centres lie too far
    // apart (steeply turned in the image) is read box by box.
    sweepPays = !sweepOffset.empty() && sweepOffset.size() * 4 <= boxes.size();
}

void BoxTrackingEngine::rebuildSweepLimits()
{
    sweepAlways.clear();
    std::fill(sweepLimit.begin(), sweepLimit.end(), 255);
    sweepLowest.assign(sweepOffset.size(), 255);
    std::size_t c = 0;
    for (const auto& [index, box] : sweepBoxes) {
        // Chunks of one place in the frame lie side by side, one per region.
        const ScanBox& b = boxes[std::size_t(box)];
        const unsigned chunk = index / ChunkWidth * ChunkWidth;
        while (sweepOffset[c] != chunk)
            ++c;
        std::size_t at = c;
        while (sweepRegion[at] != b.region)
            ++at;
        const long long lowest = static_cast<long long>(packed[std::size_t(box)].background)
                                 + limitOfRegion[std::size_t(b.region)];
        if (lowest < 0) {
            sweepAlways.push_back(box);
            continue;
        }
        unsigned char& limit = sweepLimit[at * ChunkWidth + (index - chunk)];
        limit = static_cast<unsigned char>(std::min<long long>(limit, std::min<long long>(lowest, 255)));
        sweepLowest[at] = std::min(sweepLowest[at], limit);
    }
    std::sort(sweepAlways.begin(), sweepAlways.end());
    sweepLimits = limitOfRegion;
    sweepValid = true;
}

void BoxTrackingEngine::sumBackgrounds()
{
    backgroundOfRegionValid = false;
    for (Run& run : runs) {
        run.backgroundPart = 0;
        for (int i = run.begin; i < run.end; ++i)
            run.backgroundPart += std::trunc(packed[std::size_t(i)].background / cachedGain);
    }
}

AllBlobs BoxTrackingEngine::processImage(unsigned char* image, bool extended_, bool debugFrame)
{
    ++frameCount;
    extended = extended_;
    result.clear();
    if (!image)
        return result;
    frameHeader = cv::Mat(height, width, CV_8UC1, image);
    return processImage(&frameHeader, debugFrame);
}

void BoxTrackingEngine::triggerUpdateBackground(cv::Mat* image)
{
    cv::max(backgroundMax, *image, backgroundMax);
}

void BoxTrackingEngine::triggerBgRefresh(bool full, bool topUp)
{
    updating = true;
    if (GS::instance()->verboseLog)
        std::printf("full update: %s\n", full ? "yes" : "no");
    if (full) {
        QList<int> all;
        all.reserve(regionCount);
        for (int r = 0; r < regionCount; ++r)
            all.append(r);
        regionsToUpdate = all;
    }
    regionsReset = true;
    if (full && !topUp)
        updateCount = 0;
    else
        updateCount = updateFrames - GS::instance()->stylusBgTopUpFrames;
}

void BoxTrackingEngine::updateRegionals()
{
    if (updating)
        return;
    EngineHelper::updateRegionals(&regionIntensity, &regionBackground, &regionThreshold, &regionsToUpdate,
                                  &regionDeltas, &regionHits, regionCount, static_cast<double>(boxes.size()));
    if (!regionsToUpdate.isEmpty())
        triggerBgRefresh(false, false);
}

void BoxTrackingEngine::resetBackgroundTable(bool topUp)
{
    std::printf("Reset Background: %d\n", updateFrames);
    std::fflush(stdout);
    pendingRefresh = topUp ? 2 : 1;
    // At most ten seconds, looked at every 5 ms so that the caller goes on soon after the end.
    for (int n = 0; n < 2000; ++n) {
        if (pendingRefresh.load() == 0 && updateCount.load() >= updateFrames && learnCount.load() >= learnFrames)
            return;
        WorkerThread::msleep(5);
    }
}

void BoxTrackingEngine::firstPass(cv::Mat* image, int* hits, bool* anyReset)
{
    const GS* gs = GS::instance();
    const double gain = gs->stylusBgGain;
    if (gain != cachedGain) {
        cachedGain = gain;
        sumBackgrounds();
    }

    std::fill(refreshing.begin(), refreshing.end(), 0);
    for (int r : regionsToUpdate) {
        if (r >= 0 && r < regionCount)
            refreshing[std::size_t(r)] = 1;
    }
    for (int r = 0; r < regionCount; ++r) {
        double t = regionThreshold[r];
        if (extended)
            t = std::max(35.0, t);
        limitOfRegion[std::size_t(r)] = integerLimit(t);
    }

    // The frame stays untouched until the frame is done; a box that fires blanks its square
    // only in the books, and a later box whose centre lies there reads 0, as if blanked.
    const unsigned char* last = image->data;
    const bool resetting = regionsReset;
    PackedBox* box = packed.data();
    blanked.clear();
    const bool anyRefreshing = std::find(refreshing.begin(), refreshing.end(), 1) != refreshing.end();

    auto fire = [&](int i, int v, int bg, int limit, int region) {
        const int w = v < 0 || !isBlanked(box[i].index) ? v : 0;
        ScanBox& scanBox = boxes[std::size_t(i)];
        scanBox.intensity = w;
        if (w - bg <= limit)
            return;
        blanked.push_back(scanBox.rect());
        ScanBox::addOverlapping(groups, groupCount, scanBox);
        ++*hits;
        regionHits[region] += 1.0;
    };

    if (!anyRefreshing && sweepPays) {
        // Backgrounds stand still: the chunks' limits hold until a region's limit changes.
        if (!sweepValid || sweepLimits != limitOfRegion)
            rebuildSweepLimits();
        regionSums.assign(std::size_t(regionCount), 0);
        long long* sums = regionSums.data();
        sweep(last, sums);
        // The runs' parts stand still with the backgrounds: their sums by region, added in run
        // order as the loop below does it, are kept until a part changes.
        if (!backgroundOfRegionValid) {
            backgroundOfRegion.assign(std::size_t(regionCount), 0.0);
            for (const Run& run : runs)
                backgroundOfRegion[std::size_t(run.region)] += run.backgroundPart;
            backgroundOfRegionValid = true;
        }
        for (int r = 0; r < regionCount; ++r) {
            regionBackground[r] += backgroundOfRegion[std::size_t(r)];
            regionIntensity[r] += static_cast<double>(sums[r]);
        }
        // Box order decides which of two boxes on one spot fires.
        std::sort(candidates.begin(), candidates.end());
        for (int i : candidates) {
            const int region = boxes[std::size_t(i)].region;
            const unsigned index = box[i].index;
            const int v = index - 1u < static_cast<unsigned>(width * height) - 1u ? last[index] : -1;
            fire(i, v, box[i].background, limitOfRegion[std::size_t(region)], region);
        }
        return;
    }
    // A refresh moves backgrounds: the chunks' limits are filled again once it is over.
    sweepValid = false;
    for (Run& run : runs) {
        const int region = run.region;
        const int limit = limitOfRegion[std::size_t(region)];
        long long intensitySum = 0;
        if (!refreshing[std::size_t(region)]) {
            if (run.readable) {
                intensitySum =
                    scanRun(last, run, limit, [&](int i, int v) { fire(i, v, box[i].background, limit, region); });
            } else {
                for (int i = run.begin; i < run.end; ++i) {
                    intensitySum += -1;
                    if (-1 - box[i].background > limit)
                        fire(i, -1, box[i].background, limit, region);
                }
            }
            regionBackground[region] += run.backgroundPart;
        } else {
            double part = 0;
            for (int i = run.begin; i < run.end; ++i) {
                int bg = box[i].background;
                if (resetting) {
                    bg = 0;
                    *anyReset = true;
                }
                const int v = run.readable ? last[box[i].index] : -1;
                if (bg < v)
                    bg = static_cast<int>(v * gain);
                box[i].background = bg;
                setShortBackground(std::size_t(i), bg);
                boxes[std::size_t(i)].bgIntensity = bg;
                intensitySum += v;
                if (v - bg > limit)
                    fire(i, v, bg, limit, region);
                part += std::trunc(bg / gain);
            }
            run.backgroundPart = part;
            backgroundOfRegionValid = false;
            regionBackground[region] += part;
        }
        regionIntensity[region] += static_cast<double>(intensitySum);
    }
}

void BoxTrackingEngine::sweep(const unsigned char* frame, long long* sums)
{
    candidates.clear();
    const unsigned frameSize = static_cast<unsigned>(width * height);
    auto exceeds = [&](int i, int v) {
        return v - packed[std::size_t(i)].background > limitOfRegion[std::size_t(boxes[std::size_t(i)].region)];
    };
    // A chunk's lane is above the lowest limit of its boxes: each of them is looked at.
    auto above = [&](int c, unsigned mask) {
        const int region = sweepRegion[std::size_t(c)];
        auto it = sweepBoxes.begin() + sweepFirst[std::size_t(c)];
        while (mask != 0) {
            const unsigned index = sweepOffset[std::size_t(c)] + unsigned(__builtin_ctz(mask));
            mask &= mask - 1;
            // The lanes come in rising order: the boxes of the chunk are walked once.
            while (it != sweepBoxes.end() && it->first < index)
                ++it;
            for (; it != sweepBoxes.end() && it->first == index; ++it) {
                if (boxes[std::size_t(it->second)].region == region && exceeds(it->second, frame[index]))
                    candidates.push_back(it->second);
            }
        }
    };
    const ChunkScan scan{frame, sweepOffset.data(), sweepLimit.data(), sweepLowest.data(), sweepCentres.data()};
#ifdef VELORA_AVX2_SWEEP
    const bool wide = haveAvx2();
#endif
#ifdef VELORA_AVX2_SWEEP
    if (wide) {
        sweepAllAvx2(scan, sweepRunOf.data(), sweepRuns.data(), int(sweepRuns.size()), sweepRunEnds.data(),
                     sweepRegionLanes.data(), sums, regionCount, above);
    } else
#endif
    {
        for (const SweepRun& run : sweepRuns)
            sums[run.region] += sumChunksPlain(scan, run.begin, run.end, above);
    }
    for (const SweepRepeat& r : sweepRepeats)
        sums[r.region] += static_cast<long long>(frame[r.index]) * r.count;
    for (int i : sweepAlways) {
        // Counted in the sums already; only the limit is left to test.
        if (exceeds(i, frame[packed[std::size_t(i)].index]))
            candidates.push_back(i);
    }
    for (int i : sweepLeftover) {
        const unsigned index = packed[std::size_t(i)].index;
        const int v = index - 1u < frameSize - 1u ? frame[index] : -1;
        sums[boxes[std::size_t(i)].region] += v;
        if (exceeds(i, v))
            candidates.push_back(i);
    }
}

void BoxTrackingEngine::setShortBackground(std::size_t i, int background)
{
    // v - background must not overflow 16 bits for v of 0 to 255.
    const bool fits = background >= -32000 && background <= 32000;
    packedBackground[i] = static_cast<short>(fits ? background : 0);
    backgroundsFitShort = backgroundsFitShort && fits;
}

template <class Fire>
int BoxTrackingEngine::scanRun(const unsigned char* frame, const Run& run, int limit, Fire&& fire)
{
    const int n = run.end - run.begin;
    const int* index = packedIndex.data() + run.begin;
    unsigned char* v = centres.data();
    // The pixel reads first, on their own: a tight loop of loads that the processor overlaps.
    // A run lies within a few rows, so its centres are 16-bit offsets, four to a load.
    int g = 0;
    if (run.offsetsFit) {
        const unsigned char* at = frame + run.base;
        const unsigned short* offset = packedOffset.data() + run.begin;
        for (; g + 4 <= n; g += 4) {
            std::uint64_t four;
            std::memcpy(&four, offset + g, sizeof four);
            v[g] = at[four & 0xFFFF];
            v[g + 1] = at[(four >> 16) & 0xFFFF];
            v[g + 2] = at[(four >> 32) & 0xFFFF];
            v[g + 3] = at[four >> 48];
        }
    }
    for (; g < n; ++g)
        v[g] = frame[index[g]];

    int sum = 0;
    int k = 0;
#ifdef __SSE2__
    if (backgroundsFitShort) {
        // All but a few boxes are quiet: sixteen centres are summed and compared with their
        // backgrounds at a time, and only a group with a box above its limit is looked into.
        const short* background = packedBackground.data() + run.begin;
        const __m128i zero = _mm_setzero_si128();
        const __m128i limits = _mm_set1_epi16(static_cast<short>(std::clamp(limit, -32768, 32767)));
        __m128i sums = zero;
        for (; k + 16 <= n; k += 16) {
            const __m128i px = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + k));
            sums = _mm_add_epi64(sums, _mm_sad_epu8(px, zero));
            const __m128i low = _mm_sub_epi16(_mm_unpacklo_epi8(px, zero),
                                              _mm_loadu_si128(reinterpret_cast<const __m128i*>(background + k)));
            const __m128i high = _mm_sub_epi16(_mm_unpackhi_epi8(px, zero),
                                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(background + k + 8)));
            unsigned above = static_cast<unsigned>(
                _mm_movemask_epi8(_mm_packs_epi16(_mm_cmpgt_epi16(low, limits), _mm_cmpgt_epi16(high, limits))));
            while (above != 0) [[unlikely]] {
                const int lane = __builtin_ctz(above);
                above &= above - 1;
                fire(run.begin + k + lane, int(v[k + lane]));
            }
        }
        sum = _mm_cvtsi128_si32(sums) + _mm_cvtsi128_si32(_mm_srli_si128(sums, 8));
    }
#endif
    const PackedBox* box = packed.data() + run.begin;
    for (; k < n; ++k) {
        const int x = v[k];
        sum += x;
        if (x - box[k].background > limit)
            fire(run.begin + k, x);
    }
    return sum;
}

AllBlobs BoxTrackingEngine::processImage(cv::Mat* image, bool debugFrame)
{
    idle = false;
    result.clear();
    // paused first: once it is seen clear, a waiting setCalibration has not begun to
    // change the boxes and will wait for idle.
    if (paused || !image || !image->data || boxes.empty()) {
        idle = true;
        return result;
    }

    // A refresh asked for from another thread starts here, on the frame thread.
    const int request = pendingRefresh.exchange(0);
    if (request != 0)
        triggerBgRefresh(true, request == 2);

    if (learnCount < learnFrames) {
        triggerUpdateBackground(image);
        ++learnCount;
        idle = true;
        return result;
    }
    if (!backgroundScaled) {
        backgroundMax.convertTo(backgroundMax, -1, backgroundScale);
        backgroundScaled = true;
    }

    // Only frames as the sensor delivers them are searched: the first pass reads centres by
    // their index into a continuous frame of the engine's size.
    if (!image->isContinuous() || image->cols != width || image->rows != height || image->type() != CV_8UC1) {
        idle = true;
        return result;
    }
    // The frame itself stays untouched until the end of the loop and serves as the untouched
    // copy; the blanking of fired boxes is applied to it at the end.
    lastFrame = *image;

    for (int r = 0; r < regionCount; ++r) {
        regionIntensity[r] = 0;
        regionBackground[r] = 0;
        regionHits[r] = 0;
    }
    bool anyReset = false;
    int hits = 0;
    groupCount = 0;

    firstPass(image, &hits, &anyReset);

    updateRegionals();
    if (anyReset)
        regionsReset = false;

    const GS* gs = GS::instance();
    if (updateCount < updateFrames) {
        updating = true;
        ++updateCount;
        if (gs->verboseLog) {
            std::printf("Update background, #%d, regions:", updateCount.load());
            for (int r : regionsToUpdate)
                std::printf(" %d", r);
            std::printf("\n");
        }
    } else if (updating) {
        updating = false;
        regionsToUpdate.clear();
        if (gs->verboseLog)
            std::printf("Update background is over.\n");
    }

    if (hits > 255) {
        std::printf("More than 255 boxes detected in total, returning from here\n");
        applyBlanking(image);
        idle = true;
        return result;
    }

    // Twice, since one pass does not join groups that a later box connects.
    ScanBox::mergeBounds(groups, groupCount, merged);
    group2Count = 0;
    for (const ScanBox& box : merged)
        ScanBox::addOverlapping(groups2, group2Count, box);
    ScanBox::mergeBounds(groups2, group2Count, merged);

    const std::vector<ScanBox> noMembers;
    for (std::size_t i = 0; i < merged.size(); ++i) {
        const ScanBox& mergedBox = merged[i];
        // Members of the first grouping, paired by index with boxes of the second.
        const std::vector<ScanBox>& members = i < groupCount ? groups[i] : noMembers;
        bool found = false;
        mergedBox.getMinimumScanBox(contours, &found, &lastFrame, members, &backgroundMax, backgroundScaled,
                                    extended);
        if (!found)
            continue;

        points.clear();
        for (ScanBox& c : contours) {
            const ScanBox defaultBox;
            const ScanBox* m = &defaultBox;
            bool containerFound = false;
            for (const ScanBox& member : members) {
                m = &member;
                if (c.fitsIn(member)) {
                    containerFound = true;
                    break;
                }
            }
            const int region = m->region >= 0 && m->region < regionCount ? m->region : 0;
            const int t = static_cast<int>(regionThreshold[region]);
            const bool passed = containerFound && c.hasBrightCenter(&lastFrame, true, t, false, true);
            lastContourBox = c;
            if (!passed) {
                if (gs->verboseLog)
                    std::printf("not passed through 2. pass: intens = %d, bgIntens = %d, thresh = %d, "
                                "containerFound = %s\n",
                                c.intensity, c.bgIntensity, t, containerFound ? "true" : "false");
                continue;
            }
            c.shrink(-2);
            EVector p = QuillonImageHelper::subPix(&lastFrame, c, t, false, nullptr, 0);
            if (p.x > -1.0 && p.y > -1.0) {
                p.boxWidth = c.width;
                p.boxHeight = c.height;
                p.measureB = c.bgIntensity;
                p.cellIndex = t;
                points.push_back(p);
            } else if (gs->verboseLog) {
                std::printf("not passed through subpix\n");
            }
        }
        EngineHelper::erasePointsInLightShadow(&points, shadowLeft, shadowRight);
        // The screen's outline through its index; what is left is inside.
        if (screenIndex)
            std::erase_if(points, [&](const EVector& p) { return !screenIndex->HitTest(p); });
        EngineHelper::addBlobs(points, nullptr, fingerYShifts, fingerXShifts, transform, gridSize, shiftInverted,
                               &result.blobs, extended);
    }

    // Drawn before the frame is declared done, so that a calibration that waits for it
    // cannot change the border or the corners under the drawing.
    if (debugFrame)
        drawOverlay(image);
    else
        applyBlanking(image);
    idle = true;
    return result;
}

bool BoxTrackingEngine::isBlanked(unsigned index) const
{
    // floodFill's pixel set: inside the frame, or, at the edge, the pixel one past the end of a
    // row, which is the first pixel of the next.
    const unsigned x = index % unsigned(width), y = index / unsigned(width);
    for (const cv::Rect& r : blanked) {
        if (r.width <= 0 || r.height <= 0)
            continue;
        const bool inside = r.x >= 0 && r.y >= 0 && r.x + r.width <= width && r.y + r.height <= height;
        if (int(x) >= r.x && int(x) < r.x + r.width && int(y) >= r.y && int(y) < r.y + r.height)
            return true;
        if (!inside && x == 0 && y > 0 && width >= r.x && width < r.x + r.width && int(y) - 1 >= r.y
            && int(y) - 1 < r.y + r.height)
            return true;
    }
    return false;
}

void BoxTrackingEngine::applyBlanking(cv::Mat* image)
{
    for (const cv::Rect& r : blanked) {
        ScanBox box;
        box.x = r.x;
        box.y = r.y;
        box.width = r.width;
        box.height = r.height;
        QuillonImageHelper::floodFill(image, box, 0);
    }
    blanked.clear();
}

void BoxTrackingEngine::drawOverlay(cv::Mat* image)
{
    const GS* gs = GS::instance();
    auto pt = [](const EVector& v) { return cv::Point(static_cast<int>(v.x), static_cast<int>(v.y)); };
    cv::rectangle(*image, lastContourBox.rect(), cv::Scalar(180), 1);
    cv::circle(*image, pt(gs->cornerTopLeft), 4, cv::Scalar(255), 1);
    cv::circle(*image, pt(gs->cornerTopRight), 3, cv::Scalar(255), 1);
    for (const EVector& b : border)
        cv::circle(*image, pt(b), 2, cv::Scalar(50), cv::FILLED);
    char label[64];
    for (Blob* b : result.blobs.blobs) {
        const cv::Rect r(static_cast<int>(b->left), static_cast<int>(b->top), static_cast<int>(b->width),
                         static_cast<int>(b->height));
        cv::rectangle(*image, r, cv::Scalar(255), 1);
        const cv::Point centre(static_cast<int>(b->x), static_cast<int>(b->y));
        cv::circle(*image, centre, 1, cv::Scalar(255), cv::FILLED);
        std::snprintf(label, sizeof label, "%.2f/%.2f", b->x, b->y);
        cv::putText(*image, label, cv::Point(centre.x, centre.y - 20), cv::FONT_HERSHEY_SIMPLEX, 0.7, cv::Scalar(255),
                    1);
    }
}
