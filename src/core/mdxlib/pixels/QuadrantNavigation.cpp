#include "QuadrantRegions.h"

#include <mdxlib/pixels/QuadrantNavigation.h>

#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/McVec2i.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/tags/VR.h>

#include <QByteArray>
#include <QList>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>

namespace Mdx {

namespace quadrant {

McVec3i floodFill2D(Data const& data, Checker const& checker, int x, int y, int32_t label)
{
    if (x < 0 || y < 0 || x >= data.width || y >= data.height || data.maskAt(x, y) != checker.value)
        return McVec3i();
    data.labelAt(x, y) = label;
    // Last in, first out. A vector does what a deque would, in the same
    // order, without a block allocation for every region.
    std::vector<McVec2i> stack;
    stack.reserve(256);
    stack.emplace_back(x, y);
    // The seed is one of the region's pixels and is counted with them.
    McVec3i result(1, y, y);
    int32_t* const labels = data.labels->data();
    long const width = data.width;
    // Neighbours in the order left, right, up, down; labels by row of
    // width, the mask by its strides.
    auto visit = [&](long labelIndex, long maskIndex, int nx, int ny) {
        int32_t& target = labels[labelIndex];
        if (target == label || data.mask[maskIndex] != checker.value)
            return;
        target = label;
        stack.emplace_back(nx, ny);
        ++result.x;
        result.y = std::min(result.y, ny);
        result.z = std::max(result.z, ny);
    };
    while (!stack.empty()) {
        McVec2i const p = stack.back();
        stack.pop_back();
        long const labelIndex = p.y * width + p.x;
        long const maskIndex = static_cast<long>(p.y) * data.yStride + static_cast<long>(p.x) * data.xStride;
        if (p.x > 0)
            visit(labelIndex - 1, maskIndex - data.xStride, p.x - 1, p.y);
        if (p.x + 1 < data.width)
            visit(labelIndex + 1, maskIndex + data.xStride, p.x + 1, p.y);
        if (p.y > 0)
            visit(labelIndex - width, maskIndex - data.yStride, p.x, p.y - 1);
        if (p.y + 1 < data.height)
            visit(labelIndex + width, maskIndex + data.yStride, p.x, p.y + 1);
    }
    return result;
}

void doBoundingBoxV1(Mask const& mask, McBox2i& box, McVec2f& center, int regions)
{
    int const width = mask.width;
    int const height = mask.height;
    int minX = width, minY = height, maxX = -1, maxY = -1;
    double sumX = 0.0, sumY = 0.0;
    long long count = 0;
    for (int y = 0; y < height; ++y) {
        uint8_t const* row = mask.pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(width);
        for (int x = 0; x < width; ++x) {
            if (!row[x])
                continue;
            minX = std::min(minX, x);
            maxX = std::max(maxX, x);
            minY = std::min(minY, y);
            maxY = std::max(maxY, y);
            sumX += x;
            sumY += y;
            ++count;
        }
    }
    if (count == 0 || width <= 1 || height <= 1) {
        box = McBox2i(0, 0, std::max(width - 1, 0), std::max(height - 1, 0));
        center = McVec2f(0.5f, 0.5f);
        return;
    }
    box = McBox2i(regions == BorderLeft ? 0 : minX, minY, regions == BorderRight ? width - 1 : maxX, maxY);
    center.x = static_cast<float>(sumX) / (static_cast<float>(width - 1) * static_cast<float>(count));
    center.y = static_cast<float>(sumY) / (static_cast<float>(height - 1) * static_cast<float>(count));
}

Mask tissueMask(uint8_t const* firstBytes, int width, int height, int xStride, int yStride)
{
    Mask thresholded{width, height, {}};
    thresholded.pixels.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
    for (int y = 0; y < height; ++y) {
        uint8_t const* row = firstBytes + static_cast<long>(y) * yStride;
        for (int x = 0; x < width; ++x)
            thresholded.pixels[static_cast<size_t>(y) * width + x] =
                row[static_cast<long>(x) * xStride] > 6 ? 1 : 0;
    }
    Mask grown{width, height, thresholded.pixels};
    uint8_t const* in = thresholded.pixels.data();
    uint8_t* out = grown.pixels.data();
    for (int y = 0; y < height; ++y) {
        size_t const row = static_cast<size_t>(y) * static_cast<size_t>(width);
        for (int x = 0; x < width; ++x) {
            size_t const i = row + static_cast<size_t>(x);
            out[i] = in[i] || (x > 0 && in[i - 1]) || (x + 1 < width && in[i + 1]) ||
                             (y > 0 && in[i - width]) || (y + 1 < height && in[i + width])
                         ? 1
                         : 0;
        }
    }
    return grown;
}

namespace {

Data dataOf(Mask const& mask, std::vector<int32_t>& labels)
{
    return Data{mask.width, mask.height, 1, mask.width, mask.pixels.data(), &labels};
}

void keepLabel(Mask& mask, std::vector<int32_t> const& labels, int32_t label)
{
    for (size_t i = 0; i < mask.pixels.size(); ++i)
        mask.pixels[i] = label != 0 && labels[i] == label ? 1 : 0;
}

// Relative to the picture; a picture one pixel wide or high spans 0 to 1,
// as the whole picture does, instead of dividing by zero.
void pushRelativeBox(std::vector<float>& out, McBox2i const& box, int width, int height)
{
    auto relative = [](int value, int size, float whole) {
        return size > 1 ? static_cast<float>(value) / static_cast<float>(size - 1) : whole;
    };
    out.push_back(relative(box.xMin, width, 0.0f));
    out.push_back(relative(box.yMin, height, 0.0f));
    out.push_back(relative(box.xMax, width, 1.0f));
    out.push_back(relative(box.yMax, height, 1.0f));
}

void runV1(Mask const& grown, std::vector<float>& out, BorderRegions regions)
{
    Mask mask = grown;
    std::vector<int32_t> labels;
    int32_t const best = labelRegionsV1(mask, labels);
    if (best != 0) {
        Data const data = dataOf(mask, labels);
        for (int column : {0, mask.width - 1}) {
            bool const wanted = column == 0 ? (regions & BorderLeft) != 0 : (regions & BorderRight) != 0;
            if (!wanted)
                continue;
            for (int y = 0; y < mask.height; ++y) {
                int32_t const label = data.labelAt(column, y);
                if (label != 0 && label != best)
                    floodFill2D(data, Checker{1}, column, y, best);
            }
        }
    }
    keepLabel(mask, labels, best);
    McBox2i box;
    McVec2f center;
    doBoundingBoxV1(mask, box, center, 0);
    out.push_back(1.0f);
    out.push_back(center.y);
    pushRelativeBox(out, box, mask.width, mask.height);
}

int countSet(Mask const& mask, int firstRow, int endRow)
{
    int count = 0;
    for (int y = std::max(firstRow, 0); y < std::min(endRow, mask.height); ++y)
        for (int x = 0; x < mask.width; ++x)
            count += mask.at(x, y);
    return count;
}

void clearRows(Mask& mask, int firstRow, int endRow)
{
    for (int y = std::max(firstRow, 0); y < std::min(endRow, mask.height); ++y)
        std::fill_n(mask.pixels.begin() + static_cast<long>(y) * mask.width, mask.width, 0);
}

// Two passes of the kernel 1, 2, 1 with integer division; the end rows get
// the mean of the two rows at their end.
std::vector<int> smooth(std::vector<int> const& values)
{
    size_t const n = values.size();
    if (n < 2)
        return values;
    auto pass = [n](std::vector<int> const& in) {
        std::vector<int> out(n);
        for (size_t i = 1; i + 1 < n; ++i)
            out[i] = (in[i - 1] + 2 * in[i] + in[i + 1]) / 4;
        out[0] = (in[0] + in[1]) / 2;
        out[n - 1] = (in[n - 2] + in[n - 1]) / 2;
        return out;
    };
    return pass(pass(values));
}

struct Region
{
    int32_t label = 0;
    McVec3i stats; // count, min y, max y
};

void runV2(Mask const& grown, std::vector<float>& out, BorderRegions regions)
{
    int const width = grown.width;
    int const height = grown.height;
    int const margin = width / 25;
    Mask mask = grown;

    // A bright band along the top or bottom edge that does not go on into
    // the picture is a label or a collimator edge, not tissue.
    if (height >= 50) {
        int const strip = height / 50;
        int const n = strip * width;
        int const c1 = countSet(mask, 0, strip);
        if (c1 > n / 4) {
            int const c2 = countSet(mask, strip, 2 * strip);
            if (c2 < (c1 * 2) / 3)
                clearRows(mask, 0, strip);
        }
        int const c3 = countSet(mask, height - strip, height);
        if (c3 > n / 4) {
            int const c4 = countSet(mask, height - 2 * strip, height - strip);
            if (c4 < (c3 * 2) / 3)
                clearRows(mask, height - strip, height);
        }
    }

    if (width > 24 && (regions == BorderLeft || regions == BorderRight))
        for (int y = 0; y < height; ++y) {
            auto row = mask.pixels.begin() + static_cast<long>(y) * width;
            std::fill_n(regions == BorderLeft ? row : row + (width - margin), margin, 0);
        }

    std::vector<int32_t> labels(mask.pixels.size(), 0);
    Data const data = dataOf(mask, labels);
    std::map<int32_t, McVec3i> kept;
    Region best;
    int32_t next = 1;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (data.labelAt(x, y) != 0 || data.maskAt(x, y) != 1)
                continue;
            McVec3i const found = floodFill2D(data, Checker{1}, x, y, next);
            if (found.x == 0)
                continue;
            if (found.x > 10)
                kept[next] = found;
            if (found.x > best.stats.x)
                best = Region{next, found};
            ++next;
        }
    int const quarter = best.stats.x / 4;

    if (best.label != 0) {
        if (regions == BorderEither) {
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x) {
                    int32_t const label = data.labelAt(x, y);
                    auto const region = kept.find(label);
                    if (label != best.label && region != kept.end() && region->second.x > quarter)
                        floodFill2D(data, Checker{1}, x, y, best.label);
                }
        } else {
            int const column = regions == BorderLeft ? margin : width - margin - 1;
            for (int y = 0; y < height; ++y) {
                int32_t const label = data.labelAt(column, y);
                auto const region = kept.find(label);
                if (label == best.label || region == kept.end())
                    continue;
                McVec3i const& stats = region->second;
                bool const inside = stats.y > best.stats.y && stats.z < best.stats.z;
                if (stats.x > quarter || inside)
                    floodFill2D(data, Checker{1}, column, y, best.label);
            }
        }
    }
    keepLabel(mask, labels, best.label);

    McBox2i box;
    McVec2f center;
    auto finish = [&] {
        out.push_back(2.0f);
        out.push_back(center.y);
        pushRelativeBox(out, box, width, height);
    };
    if (regions == BorderEither) {
        doBoundingBoxV1(mask, box, center, BorderEither);
        return finish();
    }

    // How far each row reaches from the chest wall.
    std::vector<int> extent(static_cast<size_t>(height), margin);
    for (int y = 0; y < height; ++y) {
        if (regions == BorderLeft) {
            for (int x = width - 1; x >= 0; --x)
                if (mask.at(x, y)) {
                    extent[y] = x;
                    break;
                }
        } else {
            for (int x = 0; x < width; ++x)
                if (mask.at(x, y)) {
                    extent[y] = width - 1 - x;
                    break;
                }
        }
    }
    int maxRow = 0;
    for (int y = 1; y < height; ++y)
        if (extent[y] > extent[maxRow])
            maxRow = y;
    int const maxExtent = height > 0 ? extent[maxRow] : 0;

    if (width <= 74 || maxExtent < 3 * margin || height <= 7) {
        doBoundingBoxV1(mask, box, center, regions);
        return finish();
    }

    int const last = height - 1;
    std::vector<int> const b = smooth(extent);
    std::vector<int> d(static_cast<size_t>(height));
    d[0] = 2 * (b[1] - b[0]);
    for (int i = 1; i < last; ++i)
        d[i] = b[i + 1] - b[i - 1];
    d[last] = 2 * (b[last] - b[last - 1]);
    int const minSlope = width / 50;
    int const limit = std::max(maxExtent / 5, margin);

    auto firstRowBeyondMargin = [&] {
        for (int y = 0; y < height; ++y)
            if (extent[y] > margin)
                return y;
        return 0;
    };
    auto lastRowBeyondMargin = [&] {
        for (int y = last; y >= 0; --y)
            if (extent[y] > margin)
                return y;
        return last;
    };

    // Upper end: the steepest rise in the upper half, then up to where the
    // rise begins.
    int top = -1;
    bool refineTop = false;
    {
        int steepest = -1;
        for (int i = 1; i <= height / 2 - 1; ++i)
            if (d[i] >= minSlope && d[i] > d[0] && (steepest < 0 || d[i] > d[steepest]))
                steepest = i;
        if (steepest >= 0) {
            int row = steepest;
            while (row >= 0 && d[row] >= 1)
                --row;
            if (row >= 0 && extent[row] <= limit && row * 5 < height * 2 && width < maxExtent * 5)
                top = row;
        }
        if (top < 0) {
            top = firstRowBeyondMargin();
            refineTop = top > 1;
        }
    }
    // Lower end, by the mirror rule.
    int bottom = -1;
    bool refineBottom = false;
    {
        int steepest = -1;
        for (int i = height - 2; i >= height / 2; --i)
            if (d[i] <= -minSlope && d[i] < d[last] && (steepest < 0 || d[i] < d[steepest]))
                steepest = i;
        if (steepest >= 0) {
            int row = steepest;
            while (row <= last && d[row] < 0)
                ++row;
            if (row < last && extent[row] <= limit && height * 3 < row * 5 && width < maxExtent * 5)
                bottom = row;
        }
        if (bottom < 0) {
            bottom = lastRowBeyondMargin();
            refineBottom = bottom < height - 2;
        }
    }

    box = regions == BorderLeft ? McBox2i(0, top, maxExtent, bottom)
                                : McBox2i(width - maxExtent, top, width - 1, bottom);
    long long weighted = 0;
    long long total = 0;
    for (int y = top; y <= bottom; ++y) {
        weighted += static_cast<long long>(extent[y]) * y;
        total += extent[y];
    }
    center.x = 0.5f;
    center.y = total > 0
                   ? static_cast<float>(weighted) / (static_cast<float>(total) * static_cast<float>(last))
                   : 0.5f;

    if (refineTop || refineBottom) {
        // The profile of the chest wall: how far the tissue reaches from the
        // border within the first margin + 3 pixels, from the grown mask.
        int const reach = margin + 3;
        std::vector<int> profile(static_cast<size_t>(height), reach);
        for (int y = 0; y < height; ++y)
            for (int i = 0; i < reach && i < width; ++i) {
                int const x = regions == BorderLeft ? i : width - 1 - i;
                if (!grown.at(x, y)) {
                    profile[y] = i;
                    break;
                }
            }
        std::vector<int> const c = smooth(profile);
        int const maxSteps = std::min(margin, (bottom - top + 1) * margin / ((maxExtent - margin) * 3));
        if (refineTop && top > 0 && top + 2 < height) {
            int y = top;
            for (int i = 0;; ++i) {
                int const v = c[y - 1];
                if (v < 1 || i >= maxSteps)
                    break;
                if (c[y + 2] <= v || c[y + 1] < v || c[y] + 2 <= v) {
                    --y;
                    break;
                }
                if (y <= 1)
                    break;
                --y;
            }
            box.yMin = y;
        }
        if (refineBottom && bottom > 1) {
            int y = bottom;
            for (int i = 0;; ++i) {
                if (y + 1 >= height)
                    break;
                int const v = c[y + 1];
                if (v < 1 || i >= maxSteps)
                    break;
                if (c[y - 2] <= v || c[y - 1] < v || v >= c[y] + 2) {
                    ++y;
                    break;
                }
                ++y;
            }
            box.yMax = y;
        }
    }
    finish();
}

std::atomic<int> sAlgorithms{1};

QByteArray trimmedString(TagMap* map, DcmTagKey const& key)
{
    QByteArray value;
    map->findAndGetString(key, value);
    return value.trimmed();
}

TagSequence* sequenceOf(TagMap const* map, DcmTagKey const& key)
{
    TagSequence* sequence = dynamic_cast<TagSequence*>(map->findElement(key));
    return sequence && !sequence->mItems.isEmpty() ? sequence : nullptr;
}

} // namespace

int32_t labelRegionsV1(Mask const& mask, std::vector<int32_t>& labels, int32_t* bestCount)
{
    labels.assign(mask.pixels.size(), 0);
    Data const data = dataOf(mask, labels);
    int32_t next = 1;
    int32_t best = 0;
    int32_t most = 0;
    for (int y = 0; y < mask.height; ++y)
        for (int x = 0; x < mask.width; ++x) {
            // A fill at a background pixel would find nothing and only use
            // up a label number; numbers are compared, never counted, so
            // skipping those calls changes no result.
            if (data.labelAt(x, y) != 0 || data.maskAt(x, y) != 1)
                continue;
            int32_t const label = next++;
            McVec3i const found = floodFill2D(data, Checker{1}, x, y, label);
            if (found.x > most) {
                most = found.x;
                best = label;
            }
        }
    if (bestCount)
        *bestCount = most;
    return best;
}

} // namespace quadrant

using namespace quadrant;

void QuadrantNavigation::process(QImage const& image, TagMap* map)
{
    if (!map || !isSupported(map))
        return;
    std::vector<float> numbers;
    if (!computeImageBoxAndCenter(image, numbers, checkOrientation(map)))
        return;
    QByteArray bytes(static_cast<int>(numbers.size() * sizeof(float)), '\0');
    std::memcpy(bytes.data(), numbers.data(), static_cast<size_t>(bytes.size()));
    map->putAndInsertValue(DcmTagKey(0x0071, 0x0070), PrivateCreator, VR_FL, bytes);
}

bool QuadrantNavigation::isSupported(TagMap* map)
{
    if (!map)
        return false;
    QByteArray const modality = trimmedString(map, DcmTagKey(0x0008, 0x0060));
    if (modality != "MG") {
        QByteArray const description = trimmedString(map, DcmTagKey(0x0008, 0x1030)).toLower();
        if (modality != "CR" || !(description.contains("mamm") || description.contains("breast")))
            return false;
    }
    if (trimmedString(map, DcmTagKey(0x0020, 0x0062)) == "U")
        return false;
    TagSequence const* views = sequenceOf(map, DcmTagKey(0x0054, 0x0220));
    if (!views)
        return true;
    TagSequence const* modifiers = sequenceOf(views->mItems.first(), DcmTagKey(0x0054, 0x0222));
    if (!modifiers)
        return true;
    // Specimen and magnified-part views show no whole breast.
    for (int i = 0; i < std::min(4, static_cast<int>(modifiers->mItems.size())); ++i) {
        QByteArray const code = trimmedString(modifiers->mItems[i], DcmTagKey(0x0008, 0x0100));
        if (code == "R-102D6" || code == "R-102D7")
            return false;
    }
    return true;
}

namespace {

// The chest wall's border from Patient Orientation, else from the second
// value (the row direction's y) of Image Orientation (Patient).
BorderRegions orientationBorder(QByteArray const& orientation, QByteArray const& cosines)
{
    if (orientation.startsWith('A'))
        return BorderLeft;
    if (orientation.startsWith('P'))
        return BorderRight;
    QList<QByteArray> const values = cosines.split('\\');
    if (values.size() != 6)
        return BorderEither;
    bool ok = false;
    float const v = values[1].trimmed().toFloat(&ok);
    if (!ok)
        return BorderEither;
    if (v > 0.9f)
        return BorderRight;
    if (v < -0.9f)
        return BorderLeft;
    return BorderEither;
}

} // namespace

BorderRegions QuadrantNavigation::checkOrientation(TagMap* map)
{
    if (!map)
        return BorderEither;
    QByteArray const orientation = trimmedString(map, DcmTagKey(0x0020, 0x0020));
    DcmTagKey const imageOrientation(0x0020, 0x0037);
    QByteArray cosines;
    if (!orientation.startsWith('A') && !orientation.startsWith('P') &&
        !map->findAndGetString(imageOrientation, cosines)) {
        if (TagSequence const* groups = sequenceOf(map, DcmTagKey(0x5200, 0x9229)))
            for (TagMap const* item : groups->mItems) {
                TagSequence const* plane = sequenceOf(item, DcmTagKey(0x0020, 0x9116));
                if (plane && plane->mItems.first()->findAndGetString(imageOrientation, cosines))
                    break;
            }
    }
    return orientationBorder(orientation, cosines);
}

BorderRegions QuadrantNavigation::checkOrientation(HxParamBundle const& bundle)
{
    char const* orientation = bundle.findTag(0x0020, 0x0020);
    char const* cosines = bundle.findTag(0x0020, 0x0037);
    return orientationBorder(QByteArray(orientation ? orientation : "").trimmed(),
                             QByteArray(cosines ? cosines : ""));
}

bool QuadrantNavigation::computeImageBoxAndCenter(QImage const& image, std::vector<float>& out,
                                                  BorderRegions regions)
{
    int bytesPerPixel = 0;
    switch (image.format()) {
    case QImage::Format_Indexed8:
        bytesPerPixel = 1;
        break;
    case QImage::Format_RGB888:
        bytesPerPixel = 3;
        break;
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_RGBX8888:
    case QImage::Format_RGBA8888:
        bytesPerPixel = 4;
        break;
    default:
        return false;
    }
    if (image.isNull())
        return false;
    int const width = image.width();
    int const height = image.height();
    Mask const grown =
        tissueMask(image.constBits(), width, height, bytesPerPixel, static_cast<int>(image.bytesPerLine()));
    McBox2i box;
    McVec2f center;
    doBoundingBoxV1(grown, box, center, regions);
    pushRelativeBox(out, box, width, height);
    int const selected = sAlgorithms.load(std::memory_order_relaxed);
    if (selected & 1)
        runV1(grown, out, regions);
    if (selected & 2)
        runV2(grown, out, regions);
    return true;
}

void QuadrantNavigation::setAlgorithm(char const* list)
{
    int selected = 0;
    for (QByteArray const& item : QByteArray(list ? list : "").split(',')) {
        bool ok = false;
        int const number = item.trimmed().toInt(&ok);
        if (ok && number == 1)
            selected |= 1;
        else if (ok && number == 2)
            selected |= 2;
    }
    sAlgorithms.store(selected ? selected : 1, std::memory_order_relaxed);
}

} // namespace Mdx
