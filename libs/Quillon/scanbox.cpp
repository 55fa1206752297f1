#include "scanbox.h"

#include "globalsettings.h"
#include "gridhelper.h"
#include "contourtracer.h"
#include "quillonimagehelper.h"

#include <opencv2/imgproc.hpp>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cmath>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <span>

ScanBox::ScanBox(double x_, double y_, double width_, double height_, double imageWidth_, int threshold_)
    : imageWidth(static_cast<int>(imageWidth_)), x(x_), y(y_), width(width_), height(height_),
      centerX(std::round(x_ + 0.5 * width_)), centerY(std::round(y_ + 0.5 * height_)),
      centerIndex(static_cast<int>(centerX + centerY * imageWidth)), threshold(threshold_)
{
    if (threshold == -1) {
        const GS* gs = GS::instance();
        const double d = (gs->cornerTopLeft - gs->cornerTopRight).length();
        threshold = GridHelper::getLocationThreshold(EVector(centerX, centerY), d);
    }
}

void ScanBox::copyFrom(const ScanBox& o)
{
    x = o.x;
    y = o.y;
    width = o.width;
    height = o.height;
    centerX = o.centerX;
    centerY = o.centerY;
    centerIndex = o.centerIndex;
    threshold = o.threshold;
}

void ScanBox::shrink(int n)
{
    x += n;
    y += n;
    width -= 2 * n;
    height -= 2 * n;
}

bool ScanBox::isOverlappingWith(const ScanBox& o) const
{
    return x < o.x + o.width && o.x < x + width && y < o.y + o.height && o.y < y + height;
}

bool ScanBox::contains(const ScanBox& o) const
{
    return o.x > x && o.y > y && o.x + o.width < x + width && o.y + o.height < y + height;
}

bool ScanBox::fitsIn(const ScanBox& o) const { return o.width > width && o.height > height; }

cv::Rect ScanBox::rect() const
{
    return cv::Rect(static_cast<int>(x), static_cast<int>(y), static_cast<int>(width), static_cast<int>(height));
}

bool ScanBox::hasBrightCenter(cv::Mat* image, bool checkEdges, double thresh, bool erase, bool useNeighbours)
{
    int value;
    if (checkEdges && useNeighbours) {
        const cv::Rect square(static_cast<int>(centerX) - 1, static_cast<int>(centerY) - 1, 3, 3);
        value = static_cast<int>(QuillonImageHelper::getMaxIntensity(square, image, nullptr));
    } else {
        value = QuillonImageHelper::intensityAtByPos(image, centerIndex, -1);
    }
    intensity = value;
    if (!(value > bgIntensity + thresh))
        return false;

    if (checkEdges) {
        ScanBox probe;
        probe.copyFrom(*this);
        for (int i = 0; i < 5; ++i) {
            if (!probe.hasBrightEdge(image, thresh))
                return true;
            probe.shrink(-1);
        }
        // Still bright 4 pixels out: larger than a finger.
        std::printf("checkEdges failed \n");
        return false;
    }
    if (erase)
        QuillonImageHelper::floodFill(image, *this, 0);
    return true;
}

bool ScanBox::hasBrightEdge(cv::Mat* image, double thresh) const
{
    const cv::Rect square(static_cast<int>(centerX) - 1, static_cast<int>(centerY) - 1, 3, 3);
    const double m = QuillonImageHelper::getMaxIntensity(square, image, nullptr);
    const int ix = static_cast<int>(x), iy = static_cast<int>(y);
    const int iw = static_cast<int>(width), ih = static_cast<int>(height);
    const int right = static_cast<int>(x + width - 1), bottom = static_cast<int>(y + height - 1);
    return QuillonImageHelper::hasBrighterThan(cv::Rect(ix, iy, iw, 1), image, m, thresh) ||
           QuillonImageHelper::hasBrighterThan(cv::Rect(right, iy, 1, ih), image, m, thresh) ||
           QuillonImageHelper::hasBrighterThan(cv::Rect(ix, bottom, iw, 1), image, m, thresh) ||
           QuillonImageHelper::hasBrighterThan(cv::Rect(ix, iy, 1, ih), image, m, thresh);
}

bool ScanBox::hasBrightEdgeAvg(cv::Mat* image, const ScanBox& centerBox, unsigned char* background,
                               double thresh) const
{
    const cv::Rect square(static_cast<int>(centerBox.centerX) - 1, static_cast<int>(centerBox.centerY) - 1, 3, 3);
    const double m = QuillonImageHelper::getMaxIntensity(square, image, background);
    const int ix = static_cast<int>(x), iy = static_cast<int>(y);
    const int iw = static_cast<int>(width), ih = static_cast<int>(height);
    const int right = static_cast<int>(x + width - 1), bottom = static_cast<int>(y + height - 1);
    const cv::Rect strips[4] = {cv::Rect(ix, iy, iw, 1), cv::Rect(right, iy, 1, ih), cv::Rect(ix, bottom, iw, 1),
                                cv::Rect(ix, iy, 1, ih)};
    for (const cv::Rect& s : strips) {
        if (m < QuillonImageHelper::getAvgIntensity(s, image, background) + thresh)
            return true;
    }
    return false;
}

ScanBox ScanBox::merge(const std::vector<ScanBox>& boxes)
{
    ScanBox merged = mergeBounds(boxes.data(), boxes.size());
    merged.children = boxes;
    return merged;
}

ScanBox ScanBox::mergeBounds(const ScanBox* boxes, std::size_t count)
{
    if (count == 0)
        return ScanBox(0, 0, 0, 0, 0, -1);
    double left = boxes[0].x, top = boxes[0].y;
    double right = boxes[0].x + boxes[0].width, bottom = boxes[0].y + boxes[0].height;
    long long thresholdSum = 0;
    int maxIntensity = boxes[0].intensity, maxBackground = boxes[0].bgIntensity;
    for (const ScanBox& b : std::span(boxes, count)) {
        left = std::min(left, b.x);
        top = std::min(top, b.y);
        right = std::max(right, b.x + b.width);
        bottom = std::max(bottom, b.y + b.height);
        thresholdSum += b.threshold;
        maxIntensity = std::max(maxIntensity, b.intensity);
        maxBackground = std::max(maxBackground, b.bgIntensity);
    }
    // The threshold by location is replaced by the average at once: not worth computing.
    ScanBox merged(left, top, right - left, bottom - top, boxes[0].imageWidth, 0);
    merged.threshold = static_cast<int>(thresholdSum / static_cast<long long>(count));
    merged.intensity = maxIntensity;
    merged.bgIntensity = maxBackground;
    merged.region = boxes[0].region;
    return merged;
}

std::vector<ScanBox> ScanBox::mergeOverlapping(const std::vector<std::vector<ScanBox>>& groups)
{
    std::vector<ScanBox> result;
    result.reserve(groups.size());
    for (const auto& g : groups) {
        if (!g.empty())
            result.push_back(merge(g));
    }
    return result;
}

void ScanBox::addOverlapping(std::vector<std::vector<ScanBox>>* groups, const ScanBox& box)
{
    std::size_t count = groups->size();
    addOverlapping(*groups, count, box);
}

void ScanBox::addOverlapping(std::vector<std::vector<ScanBox>>& groups, std::size_t& count, const ScanBox& box)
{
    for (std::size_t g = 0; g < count; ++g) {
        for (const ScanBox& member : groups[g]) {
            if (member.isOverlappingWith(box)) {
                groups[g].push_back(box);
                return;
            }
        }
    }
    if (count == groups.size())
        groups.emplace_back();
    groups[count].clear();
    groups[count].push_back(box);
    ++count;
}

void ScanBox::mergeBounds(const std::vector<std::vector<ScanBox>>& groups, std::size_t count,
                          std::vector<ScanBox>& merged)
{
    merged.clear();
    for (std::size_t g = 0; g < count; ++g)
        merged.push_back(mergeBounds(groups[g].data(), groups[g].size()));
}

void ScanBox::thresholdBlock(double avgWidth, bool extended, int* block, int* offset)
{
    const int raw = static_cast<int>(std::round(std::pow(std::sqrt(avgWidth * avgWidth + avgWidth * avgWidth), 1.6)));
    const int b = static_cast<int>(raw * (extended ? 0.17 : 0.03));
    *offset = std::max(-2 * b, -190);
    *block = b <= 2 ? 3 : (b % 2 == 0 ? b + 1 : b);
}

namespace {

// cv::adaptiveThreshold with the mean method and a binary result (a normalised box filter with
// replicated borders, 8 bits, the library's rounding), for one block size. Checked once against
// the library on noise; a block size that does not agree is left to the library.
class BlockMean {
public:
    explicit BlockMean(int block) : block(block), scale(1.0 / (block * block))
    {
        const int d = block * block;
        if (d <= 256) {
            // The library's fixed-point division, to nearest above, for blocks of up to 256
            // pixels: (255 d + d / 2 + 1) (2^23 / d + 1) stays below 2^32.
            double scalef = double(1 << Shift) / d;
            divScale = static_cast<unsigned>(std::floor(scalef));
            scalef -= double(divScale);
            divDelta = unsigned(d / 2);
            if (scalef < 0.5)
                ++divDelta;
            else
                ++divScale;
            fixedPoint = true;
        }
        agrees = verdict();
    }

    bool agrees = false;

    // 255 where src - mean > -idelta, else 0. The means are never below 0, so only a pixel
    // above -idelta can pass: rows without one are left alone, and in the others only the
    // stretch from the first such pixel to the last is tested, from column sums that slide
    // down the patch. In a patch around a spot most pixels are background and need no sum at
    // all. Returns the rows from the first to past the last with a pixel set.
    cv::Range threshold(const cv::Mat& src, cv::Mat& out, int idelta)
    {
        const int above = -idelta;
        const int* limit = limitsFor(above);
        const int w = src.cols, h = src.rows, r = block / 2;
        out.create(h, w, CV_8UC1);
        if (out.isContinuous()) {
            std::memset(out.data, 0, std::size_t(w) * std::size_t(h));
        } else {
            for (int y = 0; y < h; ++y)
                std::memset(out.ptr<unsigned char>(y), 0, std::size_t(w));
        }
        // Per row, the first and the last pixel above -idelta.
        spans.resize(std::size_t(h));
        int first = h, last = -1;
        for (int y = 0; y < h; ++y) {
            spans[std::size_t(y)] = spanAbove(src.ptr<unsigned char>(y), w, above);
            if (spans[std::size_t(y)].first <= spans[std::size_t(y)].second) {
                first = std::min(first, y);
                last = y;
            }
        }
        cv::Range set(h, 0);
        if (last < 0)
            return set;
        int* col = columnsAt(src, first);
        const bool across = r >= w - 1;
        for (int y = first; y <= last; ++y) {
            const unsigned char* p = src.ptr<unsigned char>(y);
            unsigned char* o = out.ptr<unsigned char>(y);
            // Every pixel from the first to the last above -idelta is tested, the sum sliding
            // along: one between them that is not above cannot pass either, and a straight run
            // costs less than jumping from one pixel above to the next.
            const auto [lo, hi] = spans[std::size_t(y)];
            bool any = false;
            if (lo <= hi && across) {
                // Every window holds the whole row and the clamped ends: the sum moves by the
                // same step from one pixel to the next.
                const int step = col[w - 1] - col[0];
                int runSum = clampedSum(col, w, 0, w - 1) + (r - lo) * col[0] + (lo + r - w + 1) * col[w - 1];
                for (int x = lo; x <= hi; ++x, runSum += step) {
                    const bool passes = runSum < limit[p[x]];
                    o[x] = static_cast<unsigned char>(-int(passes));
                    any |= passes;
                }
            } else if (lo <= hi) {
                int runSum = clampedSum(col, w, lo - r, lo + r);
                for (int x = lo;;) {
                    // Without a branch: whether a pixel passes is as good as random.
                    const bool passes = runSum < limit[p[x]];
                    o[x] = static_cast<unsigned char>(-int(passes));
                    any |= passes;
                    if (++x > hi)
                        break;
                    runSum += col[std::min(x + r, w - 1)] - col[std::max(x - r - 1, 0)];
                }
            }
            if (any) {
                set.start = std::min(set.start, y);
                set.end = y + 1;
            }
            if (y < last)
                slideColumns(src, y);
        }
        return set;
    }

private:
    // For each pixel value v, the least block sum whose mean m has v - m > above no longer:
    // the mean only rises with the sum, so a pixel passes exactly below it, and the division
    // leaves the loop. Kept for the last offset, which a block size keeps.
    const int* limitsFor(int above)
    {
        if (!limits.empty() && limitAbove == above)
            return limits.data();
        const int top = 255 * block * block + 1;
        limits.assign(256, 0);
        for (int v = 0; v < 256; ++v) {
            int lo = 0, hi = top;
            while (lo < hi) {
                const int mid = lo + (hi - lo) / 2;
                if (v - meanOf(mid) > above)
                    lo = mid + 1;
                else
                    hi = mid;
            }
            limits[std::size_t(v)] = lo;
        }
        limitAbove = above;
        return limits.data();
    }

    // The first and the last x with p[x] > above; first > last when there is none.
    static std::pair<int, int> spanAbove(const unsigned char* p, int w, int above)
    {
        if (above < 0)
            return {0, w - 1};
        if (above >= 255)
            return {w, -1};
        int lo = w, hi = -1;
        int x = 0;
#ifdef __SSE2__
        const __m128i limit = _mm_set1_epi8(static_cast<char>(above));
        auto span = [&](int at) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + at));
            const unsigned lit =
                ~unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_subs_epu8(v, limit), _mm_setzero_si128()))) & 0xFFFFu;
            if (lit != 0) {
                lo = std::min(lo, at + __builtin_ctz(lit));
                hi = std::max(hi, at + 31 - __builtin_clz(lit));
            }
        };
        for (; x + 16 <= w; x += 16)
            span(x);
        // The rest as the last sixteen of the row.
        if (x < w && w >= 16) {
            span(w - 16);
            x = w;
        }
#endif
        for (; x < w; ++x) {
            if (p[x] > above) {
                lo = std::min(lo, x);
                hi = x;
            }
        }
        return {lo, hi};
    }

#ifdef __SSE2__
    // col[0..7] += the eight signed 16-bit words of v.
    static void addWords(int* col, __m128i v)
    {
        const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(v, v), 16);
        const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(v, v), 16);
        auto* at = reinterpret_cast<__m128i*>(col);
        _mm_storeu_si128(at, _mm_add_epi32(_mm_loadu_si128(at), lo));
        _mm_storeu_si128(at + 1, _mm_add_epi32(_mm_loadu_si128(at + 1), hi));
    }
#endif

    // Sums of the block's rows, replicated at the edges, for each column of row y0: rows
    // y0 - r..y0 + r, clamped, those inside once each and the clamped ones as extra counts of
    // the first and the last row.
    int* columnsAt(const cv::Mat& src, int y0)
    {
        const int w = src.cols, h = src.rows, r = block / 2;
        column.resize(std::size_t(w));
        int* col = column.data();
        const int low = y0 - r, high = y0 + r;
        const int from = std::max(low, 0), to = std::min(high, h - 1);
        const int firstExtra = std::max(-low, 0), lastExtra = std::max(high - (h - 1), 0);
        int x = 0;
#ifdef __SSE2__
        // Sixteen columns at a time, summed in registers and stored once; the block has at most
        // 255 rows of at most 255, which fits 16 bits unsigned. The last sixteen may overlap
        // columns done already: they are written again with the same sums.
        if (block <= 255 && w >= 16) {
            const __m128i zero = _mm_setzero_si128();
            auto sixteen = [&](int at) {
                __m128i lo = zero, hi = zero;
                auto add = [&](int row, int times) {
                    const auto* p = reinterpret_cast<const __m128i*>(src.ptr<unsigned char>(row) + at);
                    const __m128i v = _mm_loadu_si128(p);
                    const __m128i factor = _mm_set1_epi16(static_cast<short>(times));
                    lo = _mm_add_epi16(lo, _mm_mullo_epi16(_mm_unpacklo_epi8(v, zero), factor));
                    hi = _mm_add_epi16(hi, _mm_mullo_epi16(_mm_unpackhi_epi8(v, zero), factor));
                };
                for (int j = from; j <= to; ++j)
                    add(j, 1);
                if (firstExtra > 0)
                    add(0, firstExtra);
                if (lastExtra > 0)
                    add(h - 1, lastExtra);
                auto* at32 = reinterpret_cast<__m128i*>(col + at);
                _mm_storeu_si128(at32, _mm_unpacklo_epi16(lo, zero));
                _mm_storeu_si128(at32 + 1, _mm_unpackhi_epi16(lo, zero));
                _mm_storeu_si128(at32 + 2, _mm_unpacklo_epi16(hi, zero));
                _mm_storeu_si128(at32 + 3, _mm_unpackhi_epi16(hi, zero));
            };
            for (; x + 16 <= w; x += 16)
                sixteen(x);
            if (x < w)
                sixteen(w - 16);
            return col;
        }
#endif
        for (; x < w; ++x) {
            int sum = firstExtra * src.ptr<unsigned char>(0)[x] + lastExtra * src.ptr<unsigned char>(h - 1)[x];
            for (int j = from; j <= to; ++j)
                sum += src.ptr<unsigned char>(j)[x];
            col[x] = sum;
        }
        return col;
    }

    // The sum of c[clamp(k, 0, n - 1)] for k from a to b (a <= b), the clamped
    // ends counted at once.
    static int clampedSum(const int* c, int n, int a, int b)
    {
        int sum = 0;
        if (a <= 0) {
            const int upto = std::min(b, 0);
            sum += (upto - a + 1) * c[0];
            a = upto + 1;
        }
        if (b >= n - 1 && a <= b) {
            const int first = std::max(a, n - 1);
            sum += (b - first + 1) * c[n - 1];
            b = first - 1;
        }
        int k = a;
#ifdef __SSE2__
        // Large blocks sum whole rows of a patch here, at the start of every row.
        if (b - a >= 8) {
            __m128i four = _mm_setzero_si128();
            for (; k + 3 <= b; k += 4)
                four = _mm_add_epi32(four, _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + k)));
            four = _mm_add_epi32(four, _mm_shuffle_epi32(four, 0x4E));
            four = _mm_add_epi32(four, _mm_shuffle_epi32(four, 0xB1));
            sum += _mm_cvtsi128_si32(four);
        }
#endif
        for (; k <= b; ++k)
            sum += c[k];
        return sum;
    }

    // From the column sums of row y to those of row y + 1.
    void slideColumns(const cv::Mat& src, int y)
    {
        const int w = src.cols, h = src.rows, r = block / 2;
        const unsigned char* add = src.ptr<unsigned char>(std::min(y + r + 1, h - 1));
        const unsigned char* drop = src.ptr<unsigned char>(std::max(y - r, 0));
        int* col = column.data();
        int x = 0;
#ifdef __SSE2__
        const __m128i zero = _mm_setzero_si128();
        for (; x + 16 <= w; x += 16) {
            const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(add + x));
            const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(drop + x));
            addWords(col + x, _mm_sub_epi16(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(d, zero)));
            addWords(col + x + 8, _mm_sub_epi16(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(d, zero)));
        }
#endif
        // The rest one by one: a last sixteen overlapping the ones just added would wait for
        // their stores.
        for (; x < w; ++x)
            col[x] += int(add[x]) - int(drop[x]);
    }

    // Every pixel's block mean, for the check.
    void means(const cv::Mat& src, cv::Mat& out)
    {
        const int w = src.cols, h = src.rows, r = block / 2;
        out.create(h, w, CV_8UC1);
        int* col = columnsAt(src, 0);
        for (int y = 0; y < h; ++y) {
            unsigned char* o = out.ptr<unsigned char>(y);
            for (int x = 0; x < w; ++x)
                o[x] = static_cast<unsigned char>(meanOf(clampedSum(col, w, x - r, x + r)));
            slideColumns(src, y);
        }
    }

    // check()'s answer, kept for the process: the frame loop meets a block size the first
    // time on its own thread, and the check takes about a millisecond.
    bool verdict()
    {
        static std::mutex lock;
        static std::vector<signed char> known; // by block size: -1 not yet checked, else the answer
        const std::lock_guard<std::mutex> hold(lock);
        if (known.size() <= std::size_t(block))
            known.resize(std::size_t(block) + 1, -1);
        if (known[std::size_t(block)] < 0)
            known[std::size_t(block)] = check() ? 1 : 0;
        return known[std::size_t(block)] == 1;
    }

    bool check()
    {
        cv::RNG rng(static_cast<uint64>(block));
        for (const cv::Size size : {cv::Size(1, 1), cv::Size(3, 2), cv::Size(block + 5, block + 3), cv::Size(61, 47)}) {
            for (int flat = 0; flat <= 255; flat += 255) {
                cv::Mat src(size, CV_8UC1);
                rng.fill(src, cv::RNG::UNIFORM, 0, 256);
                if (flat)
                    src.setTo(flat);
                cv::Mat theirs, mine;
                cv::boxFilter(src, theirs, CV_8U, cv::Size(block, block), cv::Point(-1, -1), true,
                              cv::BORDER_REPLICATE | cv::BORDER_ISOLATED);
                means(src, mine);
                if (cv::countNonZero(theirs != mine) != 0)
                    return false;
                for (const int delta : {0, -1, -18, -20, -190, 7}) {
                    cv::adaptiveThreshold(src, theirs, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, block,
                                          delta);
                    threshold(src, mine, delta);
                    if (cv::countNonZero(theirs != mine) != 0)
                        return false;
                }
            }
        }
        return true;
    }

    // The library's division of a block sum: fixed point up to 256 pixels, else rounded.
    int meanOf(int sum) const
    {
        return fixedPoint ? int(((unsigned(sum) + divDelta) * divScale) >> Shift) : cvRound(sum * scale);
    }

    static constexpr int Shift = 23;
    int block;
    double scale;
    bool fixedPoint = false; // false above 256 pixels
    unsigned divScale = 0, divDelta = 0;
    std::vector<int> column;
    std::vector<std::pair<int, int>> spans;
    std::vector<int> limits;
    int limitAbove = 0;
};

// Scratch of the contour step, kept per thread so that a frame allocates only what grows.
struct ContourScratch {
    // The patch and its threshold live in buffers that only grow: spots of different sizes
    // one after the other would otherwise reallocate both at every contour step.
    std::vector<unsigned char> patchData, binaryData;
    cv::Mat patch;
    cv::Mat binary;
    std::vector<std::vector<cv::Point>> contours;
    std::vector<std::unique_ptr<BlockMean>> means; // by block size
    ContourTracer tracer;
    // The last block asked for: spots of one size come one after the other, and the block
    // takes a power.
    double blockWidth = -1;
    bool blockExtended = false;
    int block = 3, offset = 0;

    BlockMean* meanOf(int block)
    {
        if (means.size() <= std::size_t(block))
            means.resize(std::size_t(block) + 1);
        if (!means[std::size_t(block)])
            means[std::size_t(block)] = std::make_unique<BlockMean>(block);
        return means[std::size_t(block)]->agrees ? means[std::size_t(block)].get() : nullptr;
    }
};

thread_local ContourScratch scratch;

const char* yesNo(bool b) { return b ? "true" : "false"; }

// cv::adaptiveThreshold with the mean method and a binary result, without its per-call set-up.
// Returns the rows that may hold a set pixel.
cv::Range adaptiveMeanThreshold(const cv::Mat& src, cv::Mat& dst, int block, double delta)
{
    BlockMean* mean = scratch.meanOf(block);
    if (!mean) {
        cv::adaptiveThreshold(src, dst, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, block, delta);
        return cv::Range(0, src.rows);
    }
    return mean->threshold(src, dst, cvCeil(delta));
}

} // namespace

void ScanBox::prepareThresholds(double narrowest, double widest)
{
    for (const bool extended : {false, true}) {
        int first = 3, last = 3, offset = 0;
        thresholdBlock(narrowest, extended, &first, &offset);
        thresholdBlock(widest, extended, &last, &offset);
        // Block sizes are odd and rise with the width.
        for (int block = first; block <= std::min(last, first + 2 * 64); block += 2)
            BlockMean{block};
    }
}

std::vector<ScanBox> ScanBox::getMinimumScanBox(bool* contourFound, cv::Mat* image, const std::vector<ScanBox>& boxes,
                                                cv::Mat* background, bool useBackground, bool extended) const
{
    std::vector<ScanBox> found;
    getMinimumScanBox(found, contourFound, image, boxes, background, useBackground, extended);
    return found;
}

void ScanBox::getMinimumScanBox(std::vector<ScanBox>& found, bool* contourFound, cv::Mat* image,
                                const std::vector<ScanBox>& boxes, cv::Mat* background, bool useBackground,
                                bool extended) const
{
    // Once: every use of a thread_local with a constructor goes through its wrapper.
    ContourScratch& work = scratch;
    found.clear();
    double avgWidth = 0;
    for (const ScanBox& b : boxes)
        avgWidth += b.width;
    if (!boxes.empty())
        avgWidth /= static_cast<double>(boxes.size());
    if (contourFound)
        *contourFound = false;

    if (x < 0 || y < 0 || width < 1 || height < 1)
        return;
    if (!image || !image->data)
        return;
    const cv::Rect roi = rect() & cv::Rect(0, 0, image->cols, image->rows);
    if (roi.width <= 0 || roi.height <= 0)
        return;

    // A copy of the region, since the threshold works in place, less the background.
    const std::size_t area = std::size_t(roi.width) * std::size_t(roi.height);
    if (work.patchData.size() < area) {
        work.patchData.resize(area);
        work.binaryData.resize(area);
    }
    // The headers stay while the spots keep their size.
    if (work.patch.data != work.patchData.data() || work.patch.rows != roi.height || work.patch.cols != roi.width)
        work.patch = cv::Mat(roi.height, roi.width, CV_8UC1, work.patchData.data());
    if (work.binary.data != work.binaryData.data() || work.binary.rows != roi.height ||
        work.binary.cols != roi.width)
        work.binary = cv::Mat(roi.height, roi.width, CV_8UC1, work.binaryData.data());
    const bool subtract = useBackground && background && background->data;
    // The rows lie a frame's width apart: ask for all of them at once rather than one miss
    // after the other.
    for (int r = 0; r < roi.height; ++r) {
        const unsigned char* from = image->ptr<unsigned char>(roi.y + r) + roi.x;
        __builtin_prefetch(from);
        __builtin_prefetch(from + roi.width - 1);
        if (subtract) {
            const unsigned char* bg = background->ptr<unsigned char>(roi.y + r) + roi.x;
            __builtin_prefetch(bg);
            __builtin_prefetch(bg + roi.width - 1);
        }
    }
    // Pointers and steps in locals: the stores through bytes could otherwise alias the headers,
    // which would be read again after every row.
    const std::size_t imageStep = image->step[0], patchStep = work.patch.step[0];
    const unsigned char* from = image->data + std::size_t(roi.y) * imageStep + std::size_t(roi.x);
    unsigned char* to = work.patch.data;
    if (subtract) {
        const std::size_t bgStep = background->step[0];
        const unsigned char* bg = background->data + std::size_t(roi.y) * bgStep + std::size_t(roi.x);
        const int w = roi.width;
        for (int r = 0; r < roi.height; ++r, from += imageStep, to += patchStep, bg += bgStep) {
            int c = 0;
#ifdef __SSE2__
            for (; c + 16 <= w; c += 16)
                _mm_storeu_si128(reinterpret_cast<__m128i*>(to + c),
                                 _mm_subs_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from + c)),
                                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(bg + c))));
            // The rest as the last sixteen of the row, some written twice with the same value.
            if (c < w && w >= 16) {
                c = w - 16;
                _mm_storeu_si128(reinterpret_cast<__m128i*>(to + c),
                                 _mm_subs_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from + c)),
                                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(bg + c))));
                c = w;
            }
#endif
            for (; c < w; ++c)
                to[c] = static_cast<unsigned char>(std::max(0, int(from[c]) - int(bg[c])));
        }
    } else {
        for (int r = 0; r < roi.height; ++r, from += imageStep, to += patchStep)
            std::memcpy(to, from, std::size_t(roi.width));
    }

    if (avgWidth != work.blockWidth || extended != work.blockExtended) {
        thresholdBlock(avgWidth, extended, &work.block, &work.offset);
        work.blockWidth = avgWidth;
        work.blockExtended = extended;
    }
    const int block = work.block, offset = work.offset;

    const GS* gs = GS::instance();
    if (gs->scanBoxLargeCheck && block > 40) {
        cv::dilate(work.patch, work.patch, cv::Mat(), cv::Point(-1, -1), 2);
    } else {
        const int erosions = block > 100 ? 3 : block > 80 ? 2 : block > 55 ? 1 : 0;
        if (erosions > 0)
            cv::erode(work.patch, work.patch, cv::Mat(), cv::Point(-1, -1), erosions);
    }

    const cv::Range lit =
        adaptiveMeanThreshold(work.patch, work.binary, block, extended ? -20.0 : static_cast<double>(offset));
    if (work.binary.cols == 0 || work.binary.rows == 0) {
        std::printf("Exception caught\n");
        return;
    }

    // The contour tracer has always treated the outermost row and column as empty; a spot
    // cut by the rectangle keeps that shape.
    cv::Mat& binary = work.binary;
    std::memset(binary.ptr<unsigned char>(0), 0, std::size_t(binary.cols));
    std::memset(binary.ptr<unsigned char>(binary.rows - 1), 0, std::size_t(binary.cols));
    unsigned char* edge = binary.data;
    const std::size_t binaryStep = binary.step[0];
    const int right = binary.cols - 1;
    for (int r = 0; r < binary.rows; ++r, edge += binaryStep) {
        edge[0] = 0;
        edge[right] = 0;
    }

    work.tracer.trace(binary, work.contours, lit);

    for (const std::vector<cv::Point>& contour : work.contours) {
        const ContourTracer::Shape shape = ContourTracer::shape(contour);
        const cv::Rect& r = shape.bounds;
        if (contourFound)
            *contourFound = true;
        if (r.width <= 0 || r.height <= 0)
            continue;

        bool roundEnough = true;
        if (gs->scanBoxShapeLimit > 0) {
            const double a = shape.area;
            const double p = shape.perimeter;
            if (a >= gs->scanBoxMinArea && p >= gs->scanBoxMinArcLength)
                roundEnough = a / p > gs->scanBoxShapeLimit;
        }
        const bool small = r.width < gs->scanBoxShape2A && r.height < gs->scanBoxShape2B;
        bool widthOk = true;
        if (gs->scanBoxShape2Ratio > 0 && !small)
            widthOk = static_cast<double>(r.width) / r.height < gs->scanBoxShape2Ratio;
        bool heightOk = true;
        if (gs->scanBoxShape2Limit > 0 && !small)
            heightOk = static_cast<double>(r.height) / r.width < gs->scanBoxShape2Limit;
        if (!roundEnough || !widthOk || !heightOk) {
            if (gs->verboseLog)
                std::printf("area: %s, w/h: %s\n", yesNo(roundEnough), yesNo(widthOk));
            continue;
        }

        ScanBox box(static_cast<int>(r.x + x), static_cast<int>(r.y + y), r.width, r.height, imageWidth, -1);
        box.intensity = intensity;
        box.bgIntensity = bgIntensity;
        box.centroidX = shape.m10 / shape.m00 + x;
        box.centroidY = shape.m01 / shape.m00 + y;
        box.region = 0;
        found.push_back(box);
    }
}
