#include "trackingengine.h"

#include "globalsettings.h"
#include "icorrection.h"
#include "quillonimagehelper.h"
#include "unitweights.h"
#include "workerthread.h"

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

TrackingEngine::TrackingEngine(int width_, int height_, int threshold_, int pixelStep_, bool weighted_)
    : width(width_), height(height_), threshold(threshold_), pixelStep(pixelStep_), weighted(weighted_),
      bufferSize(width_ * height_ * pixelStep_), clipLeft(0), clipRight(width_), clipTop(0),
      clipBottom(height_), framesToLearn(GS::instance()->stylusBgFrames)
{
    context.lines.reserve(MaxRuns + 1);
}

void TrackingEngine::setCalibration(Calibration* calibration, int mode)
{
    (void)calibration;
    (void)mode;
}

void TrackingEngine::Clip(int left, int right, int top, int bottom)
{
    clipLeft = left < 1 ? 0 : left;
    clipRight = width > right ? right : static_cast<int>(width);
    clipTop = top > 0 ? top : 0;
    clipBottom = height > bottom ? bottom : static_cast<int>(height);
    const long long start = static_cast<long long>(top) * static_cast<long long>(width) * pixelStep;
    if (start < static_cast<long long>(width * height * pixelStep))
        startIndex = static_cast<int>(start);
}

TrackingEngine::bloblineContext* TrackingEngine::CreateBloblineContext(int maxRuns)
{
    context.nextId = -1;
    context.lastX = -1;
    context.lastY = -1;
    context.runStart = 0;
    context.runEnd = 0;
    context.maxRuns = maxRuns;
    context.lines.clear();
    return &context;
}

void TrackingEngine::AddBlobPixel(bloblineContext* c, int x, int y, unsigned char value)
{
    (void)value;
    if (c->nextId >= c->maxRuns)
        return;
    // Gaps of up to three pixels within a row do not break a run.
    if (std::abs(x - c->lastX) < 4 && y == c->lastY) {
        c->lastX = x;
        c->lastY = y;
        return;
    }
    // A run is stored only once the next one starts: the frame's last run never is.
    if (c->lastX >= 0 && c->lastY >= 0) {
        c->runEnd = c->lastX;
        c->lines.push_back({c->nextId, c->runStart, c->lastX, c->lastY});
        c->runStart = x;
        ++c->nextId;
    }
    if (y != c->lastY)
        c->runStart = x;
    c->lastX = x;
    c->lastY = y;
}

bool TrackingEngine::IsAttached(const blobline* a, const blobline* b)
{
    return std::abs(a->y - b->y) <= 2 && a->xEnd + 2 >= b->xStart && a->xStart - 2 <= b->xEnd;
}

AllBlobs TrackingEngine::processImage(unsigned char* image, bool extended, bool debug)
{
    (void)extended;
    allBlobs.clear();
    if (!image)
        return allBlobs;

    if (learning.load()) {
        if (clearTable.load() && backgroundTable)
            std::memset(backgroundTable.get(), 0, std::size_t(clipBottom) * std::size_t(clipRight));
        clearTable = false;
        updateBg(image);
        if (++learnedFrames >= framesToLearn)
            learning = false;
        return allBlobs;
    }

    bloblineContext* c = CreateBloblineContext(MaxRuns);
    scan(c, image);
    buildBlobList(c, image);

    imageHeader = cv::Mat(static_cast<int>(height), static_cast<int>(width), CV_8UC1, image);
    rectifyBlobsPos(allBlobs.blobs, imageHeader, debug);
    rectifyBlobsPos(allBlobs.outsideBlobs, imageHeader, debug);

    if (debug) {
        for (Blob* b : allBlobs.blobs.blobs) {
            const cv::Point centre(static_cast<int>(std::lround(b->x)), static_cast<int>(std::lround(b->y)));
            cv::circle(imageHeader, centre, 2, cv::Scalar(0, 0, 255, 0));
            const std::string label = std::to_string(std::lround(b->x)) + "/" + std::to_string(std::lround(b->y));
            cv::putText(imageHeader, label, cv::Point(static_cast<int>(b->x), static_cast<int>(b->y) - 20),
                        cv::FONT_HERSHEY_SIMPLEX, 1.0, cv::Scalar(255, 255, 255, 0), 1);
        }
    }
    return allBlobs;
}

void TrackingEngine::scan(bloblineContext* c, const unsigned char* image)
{
    const int w = static_cast<int>(width);
    // Integer forms of the two tests: pixel > threshold, table < threshold.
    if (!(threshold > 0.0 && threshold < 255.0) || !backgroundTable)
        return;
    const int above = static_cast<int>(std::floor(threshold));
    const int maskedFrom = static_cast<int>(std::ceil(threshold));
    const unsigned char* table = backgroundTable.get();

    if (pixelStep == 1 && clipLeft == 0 && clipRight == w && clipBottom > clipTop) {
        const long long first = startIndex;
        const long long last = first + static_cast<long long>(clipBottom - clipTop) * w - 1;
        if (first >= 0 && last < bufferSize) {
            scanRowFast(c, image, static_cast<int>(first), static_cast<int>(last - first + 1), clipTop);
            return;
        }
    }
    for (int y = clipTop; y < clipBottom; ++y) {
        const long long rowIndex = static_cast<long long>(startIndex)
                                   + static_cast<long long>(y - clipTop) * w * pixelStep
                                   + static_cast<long long>(clipLeft) * pixelStep;
        const int count = clipRight - clipLeft;
        if (count <= 0)
            return;
        const long long rowEnd = rowIndex + static_cast<long long>(count - 1) * pixelStep;
        // Only a clip window that leaves the frame gets here; such rows hold nothing.
        if (rowIndex < 0 || rowEnd >= bufferSize)
            continue;
        if (pixelStep == 1) {
            scanRowFast(c, image, static_cast<int>(rowIndex), count, y);
            continue;
        }
        int i = static_cast<int>(rowIndex);
        for (int x = clipLeft; x < clipRight; ++x, i += pixelStep) {
            if (image[i] > above && table[i] < maskedFrom)
                AddBlobPixel(c, x, y, image[i]);
        }
    }
}

namespace {


constexpr int DarkBlock = 128;

#if defined(__SSE2__)
inline __m128i load16(const unsigned char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// First block start from k on whose block holds a pixel above limit, or the start of
// the last, incomplete block.
int skipDarkSse2(const unsigned char* img, int k, int count, unsigned char limit)
{
    const __m128i lim = _mm_set1_epi8(static_cast<char>(limit));
    for (; k + DarkBlock <= count; k += DarkBlock) {
        const unsigned char* p = img + k;
        const __m128i m0 = _mm_max_epu8(_mm_max_epu8(load16(p), load16(p + 16)), _mm_max_epu8(load16(p + 32), load16(p + 48)));
        const __m128i m1 = _mm_max_epu8(_mm_max_epu8(load16(p + 64), load16(p + 80)), _mm_max_epu8(load16(p + 96), load16(p + 112)));
        const __m128i m = _mm_max_epu8(m0, m1);
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(m, lim), lim)) != 0xFFFF)
            return k;
    }
    return k;
}
#endif

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"))) int skipDarkAvx2(const unsigned char* img, int k, int count, unsigned char limit)
{
    const __m256i lim = _mm256_set1_epi8(static_cast<char>(limit));
    for (; k + DarkBlock <= count; k += DarkBlock) {
        const __m256i* p = reinterpret_cast<const __m256i*>(img + k);
        const __m256i m = _mm256_max_epu8(_mm256_max_epu8(_mm256_loadu_si256(p), _mm256_loadu_si256(p + 1)),
                                          _mm256_max_epu8(_mm256_loadu_si256(p + 2), _mm256_loadu_si256(p + 3)));
        if (static_cast<unsigned>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(_mm256_max_epu8(m, lim), lim))) != 0xFFFFFFFFu)
            return k;
    }
    return k;
}
const bool haveAvx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2"));
#endif

} // namespace

void TrackingEngine::scanRowFast(bloblineContext* c, const unsigned char* image, int rowIndex, int count, int y)
{
    const int above = static_cast<int>(std::floor(threshold));
    const int maskedFrom = static_cast<int>(std::ceil(threshold));
    const unsigned char* img = image + rowIndex;
    const unsigned char* tab = backgroundTable.get() + rowIndex;
    // count may span several rows when the window is the full width: positions are
    // then recovered from the offset, which only bright pixels need.
    const int w = static_cast<int>(width);
    const int x0 = clipLeft;
    auto add = [&](int k) {
        if (count <= w - x0)
            AddBlobPixel(c, x0 + k, y, img[k]);
        else
            AddBlobPixel(c, (x0 + k) % w, y + (x0 + k) / w, img[k]);
    };
    int k = 0;
#if defined(__SSE2__)
    // Most of a stylus frame is dark: whole blocks without a pixel above the threshold
    // are skipped, and the table is read only where there is one.
    const __m128i low = _mm_set1_epi8(static_cast<char>(above + 1));
    const __m128i high = _mm_set1_epi8(static_cast<char>(maskedFrom - 1));
    auto scan16 = [&](int s) {
        const __m128i v = load16(img + s);
        const __m128i t = load16(tab + s);
        const __m128i bright = _mm_cmpeq_epi8(_mm_max_epu8(v, low), v);
        const __m128i free = _mm_cmpeq_epi8(_mm_min_epu8(t, high), t);
        unsigned bits = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(bright, free)));
        while (bits) {
            const int bit = __builtin_ctz(bits);
            bits &= bits - 1;
            add(s + bit);
        }
    };
    const unsigned char limit = static_cast<unsigned char>(above);
    for (;;) {
#if defined(__x86_64__) && defined(__GNUC__)
        k = haveAvx2 ? skipDarkAvx2(img, k, count, limit) : skipDarkSse2(img, k, count, limit);
#else
        k = skipDarkSse2(img, k, count, limit);
#endif
        if (k + DarkBlock > count)
            break;
        for (int s = k; s < k + DarkBlock; s += 16)
            scan16(s);
        k += DarkBlock;
    }
    for (; k + 16 <= count; k += 16)
        scan16(k);
#endif
    for (; k < count; ++k) {
        if (img[k] > above && tab[k] < maskedFrom)
            add(k);
    }
}

AllBlobs TrackingEngine::GenerateBlobList(bloblineContext* c, unsigned char* image)
{
    buildBlobList(c, image);
    return allBlobs;
}

void TrackingEngine::addBlob(Blob* blob)
{
    const bool filtered = correction && blobFilter && blobFilter->size() >= 3;
    BlobList& target = (filtered && !blobFilter->HitTest(correction->undistort(blob->center())))
                           ? allBlobs.outsideBlobs
                           : allBlobs.blobs;
    if (target.size() >= BlobList::MaxBlobs) {
        delete blob; // the list refuses it, and nobody else holds it
        return;
    }
    target.add(blob);
}

void TrackingEngine::buildBlobList(bloblineContext* c, unsigned char* image)
{
    allBlobs.clear();
    std::vector<blobline>& lines = c->lines;
    if (lines.size() < 2)
        return;

    const int w = static_cast<int>(width);
    const int h = static_cast<int>(height);
    double sumW = 0, sumX = 0, sumY = 0;
    int firstY = -1;
    int maxWidth = 0;
    int i = 0;
    while (i < static_cast<int>(lines.size())) {
        if (allBlobs.size() > MaxBlobs)
            break;
        const blobline r = lines[i];
        if (firstY == -1)
            firstY = r.y;

        // The successor: the first attached run after this one. Runs are in scan order,
        // so none past two rows below can be attached.
        int j = -1;
        for (int k = i + 1; k < static_cast<int>(lines.size()); ++k) {
            if (lines[k].y > r.y + 2)
                break;
            if (IsAttached(&r, &lines[k])) {
                j = k;
                break;
            }
        }
        const int dir = j != -1 ? -1 : 1;
        // The chain's first run takes in the glow above it, its last the glow below.
        const bool glow = weighted && (i == 0 || j == -1);

        double lineW = 0;
        for (int px = r.xStart - 3; px <= r.xEnd + 3; ++px) {
            if (px < 0 || px > w)
                continue;
            const long long idx = (static_cast<long long>(w) * r.y + px) * pixelStep;
            if (idx >= bufferSize)
                continue;
            if (!weighted) {
                sumX += px;
                sumY += r.y;
                lineW += 1;
                continue;
            }
            const double wt = unitWeights.w[image[idx]];
            sumX += px * wt;
            sumY += r.y * wt;
            lineW += wt;
            if (!glow)
                continue;
            for (int yy = r.y + 5 * dir; yy != r.y; yy -= dir) {
                if (yy < 0 || yy > h)
                    continue;
                const long long idx2 = (static_cast<long long>(w) * yy + px) * pixelStep;
                if (idx2 >= bufferSize)
                    continue;
                const double w2 = unitWeights.w[image[idx2]];
                lineW += w2;
                sumX += px * w2;
                sumY += yy * w2;
            }
        }
        sumW += lineW;
        maxWidth = std::max(maxWidth, r.xEnd + 1 - r.xStart);

        if (j == -1 || i == static_cast<int>(lines.size()) - 1) {
            const int rows = r.y - firstY;
            // A chain within one row is no blob.
            if (!(rows < 1 || sumW < 0 || sumW > 999999999.0))
                addBlob(new Blob(sumX / sumW, sumY / sumW, maxWidth, rows + 1, 0));
            sumW = sumX = sumY = 0;
            firstY = -1;
            maxWidth = 0;
        }

        lines.erase(lines.begin() + i);
        i = j != -1 ? j - 1 : 0;
    }
}

void TrackingEngine::rectifyBlobsPos(BlobList& list, cv::Mat& header, bool debug)
{
    const int thresh = static_cast<int>(threshold * 0.3);
    for (int n = 0; n < list.size();) {
        Blob* b = list[n];
        const int x0 = static_cast<int>(b->left - 3.0);
        const int y0 = static_cast<int>(b->top - 3.0);
        const int w = static_cast<int>(b->width + 8.0);
        const int h = static_cast<int>(b->height + 8.0);
        if (x0 < 1 || y0 < 1 || header.cols <= x0 + w || header.rows <= y0 + h) {
            list.removeAt(n);
            delete b; // dropped for good: nothing else refers to it
            continue;
        }
        const cv::Rect rect(x0, y0, w, h);
        const EVector p = QuillonImageHelper::subPix(&header, rect, thresh, false, nullptr, 0);
        b->x = p.x;
        b->y = p.y;
        if (debug)
            cv::rectangle(header, rect, cv::Scalar(200, 200, 200, 0), 1);
        ++n;
    }
}

void TrackingEngine::updateBg(unsigned char* image)
{
    if (GS::instance()->verboseLog)
        printf("update bg now\n");
    if (!backgroundTable) {
        // Sized for the whole frame so that every index the scan makes stays inside.
        const std::size_t n = std::max<std::size_t>(std::size_t(bufferSize), std::size_t(clipBottom) * clipRight);
        backgroundTable = std::make_unique<unsigned char[]>(n);
    }
    const double gain = GS::instance()->stylusBgGain;
    unsigned char* table = backgroundTable.get();
    const int w = static_cast<int>(width);
    for (int y = clipTop; y < clipBottom; ++y) {
        long long i = static_cast<long long>(startIndex) + static_cast<long long>(y - clipTop) * w * pixelStep
                      + static_cast<long long>(clipLeft) * pixelStep;
        for (int x = clipLeft; x < clipRight; ++x, i += pixelStep) {
            if (i < 0 || i >= bufferSize)
                continue;
            const unsigned char v = image[i];
            if (v > table[i]) {
                // Truncated into a byte: a product past 255 wraps below the pixel and is
                // then caught by the test that follows.
                const long long scaled = static_cast<long long>(v * gain);
                table[i] = static_cast<unsigned char>(scaled & 0xFF);
                if (table[i] < v)
                    table[i] = 255;
            }
        }
    }
}

void TrackingEngine::resetBackgroundTable(bool full)
{
    printf("Resetting stylus background\n");
    fflush(stdout);
    learning = true;
    learnedFrames = full ? 0 : framesToLearn - GS::instance()->stylusBgTopUpFrames;
    clearTable = true;
    for (int n = 0; n < 100 && learnedFrames.load() < framesToLearn; ++n)
        WorkerThread::msleep(100);
}
