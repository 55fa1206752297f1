#pragma once

#include <opencv2/core.hpp>

#include <vector>

// One square region of the sensor image that the finger engine watches: its rectangle,
// the precomputed index of its centre pixel, its own background and its region. Also the
// tests that decide whether something bright sits in it, and the steps that turn many
// fired boxes into one candidate. All coordinates are sensor pixels.
class ScanBox {
public:
    int imageWidth = 0;
    double x = 0, y = 0;
    double width = 0, height = 0;
    // Centroid of the contour; written only by getMinimumScanBox.
    double centroidX = 0, centroidY = 0;
    double centerX = 0, centerY = 0;
    // Index of the centre pixel in the frame buffer, so the hot loop needs no arithmetic.
    int centerIndex = 0;
    // Threshold by location; carried and averaged, but detection uses the region's threshold.
    int threshold = 0;
    std::vector<ScanBox> children;
    int intensity = 0;
    int bgIntensity = 0;
    int region = 0;

    ScanBox() = default;
    // A threshold of -1 is replaced by the threshold by location of the centre.
    ScanBox(double x, double y, double width, double height, double imageWidth, int threshold);

    // Takes the rectangle, the centre and the threshold; leaves the rest.
    void copyFrom(const ScanBox& other);
    // A negative n grows the box. The centre stays where it is.
    void shrink(int n);
    // Strict overlap on both axes; rectangles that only touch do not overlap.
    bool isOverlappingWith(const ScanBox& o) const;
    bool contains(const ScanBox& o) const;
    // o is larger in both directions; positions do not matter.
    bool fitsIn(const ScanBox& o) const;
    cv::Rect rect() const;

    // The test on which detection rests: is the centre (or its 3x3 peak) above background
    // plus thresh? With checkEdges the spot must also end within the box plus 4 pixels.
    // With erase (and no edge check) a bright box is blanked to 0 in image, so that later
    // boxes on the same spot stay quiet.
    bool hasBrightCenter(cv::Mat* image, bool checkEdges, double thresh, bool erase, bool useNeighbours);
    // Does any pixel of the box's outline come within thresh of the 3x3 peak at the centre?
    bool hasBrightEdge(cv::Mat* image, double thresh) const;
    bool hasBrightEdgeAvg(cv::Mat* image, const ScanBox& centerBox, unsigned char* background, double thresh) const;

    // The union rectangle with averaged threshold, highest intensity and background, the
    // first box's region, and the boxes as children.
    static ScanBox merge(const std::vector<ScanBox>& boxes);
    // The same without the children, for the frame loop, which does not read them.
    static ScanBox mergeBounds(const ScanBox* boxes, std::size_t count);
    static std::vector<ScanBox> mergeOverlapping(const std::vector<std::vector<ScanBox>>& groups);
    // Appends box to the first group that has an overlapping member, or to a new group.
    // Groups that box would connect are not joined.
    static void addOverlapping(std::vector<std::vector<ScanBox>>* groups, const ScanBox& box);
    // The same for the frame loop: on the first count groups, reusing the vectors past them
    // from frame to frame; mergeBounds of each of them into merged.
    static void addOverlapping(std::vector<std::vector<ScanBox>>& groups, std::size_t& count, const ScanBox& box);
    static void mergeBounds(const std::vector<std::vector<ScanBox>>& groups, std::size_t count,
                            std::vector<ScanBox>& merged);

    // Called on a merged box: the contours of what is bright inside it, found by a local
    // adaptive threshold and filtered by size and shape. contourFound (may be null) tells
    // whether any contour was there at all, also when all were dropped.
    std::vector<ScanBox> getMinimumScanBox(bool* contourFound, cv::Mat* image, const std::vector<ScanBox>& boxes,
                                           cv::Mat* background, bool useBackground, bool extended) const;
    // The same into found, whose room is kept from call to call.
    void getMinimumScanBox(std::vector<ScanBox>& found, bool* contourFound, cv::Mat* image,
                           const std::vector<ScanBox>& boxes, cv::Mat* background, bool useBackground,
                           bool extended) const;

    // The block size and constant of the adaptive threshold for boxes of a mean width.
    static void thresholdBlock(double avgWidth, bool extended, int* block, int* offset);
    // Checks ahead, once per process, the thresholds of every block size that groups of boxes
    // between these widths use in either mode; any thread may call it.
    static void prepareThresholds(double narrowest, double widest);
};
