// The wire block of a volume.
//
// The slice mapping is written in the most compact of six kinds:
//   1  identity (slice i is image i)          no payload
//   2  reversed (slice i is image n-1-i)      no payload
//   3  one image a slice, n == dims.z          n unsigned shorts
//   4  one image a slice, any other            int n, n ints
//   5  frames, n == dims.z, all below 65536    n pairs of unsigned shorts
//      (image -1 as 65535)
//   6  frames, any other                       int n, n pairs of ints
// Kinds without a written count take n from dims.z.
#include <mdxlib/volumes/Volume.h>

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagMapSerializer.h>

#include <cmath>

namespace Mdx {

namespace {

constexpr size_t kBlockCapacity = 32768;
// The 16-bit form of image index -1, the slice whose image is unknown.
constexpr int kUnknownShortIndex = 0xFFFF;
// Kinds 1 and 2 carry no payload: their slice count is dims.z. A count
// above the series' images is kept (images may have been removed from the
// series since), but only up to this surplus, so that a damaged dims.z
// cannot make a table of billions of slices.
constexpr int kMaxMissingImages = 65535;

enum MappingKind : unsigned char
{
    KindIdentity = 1,
    KindReversed = 2,
    KindShortImages = 3,
    KindIntImages = 4,
    KindShortFrames = 5,
    KindIntFrames = 6
};

MappingKind chooseKind(QVector<Volume::MultiFrameInfo> const& slices, int numImages, int dimsZ)
{
    int const n = slices.size();
    if (n == numImages && n >= 1) {
        bool identity = true;
        bool reversed = true;
        for (int i = 0; i < n; ++i) {
            identity = identity && slices[i].imageIndex == i;
            reversed = reversed && slices[i].imageIndex == n - 1 - i;
        }
        if (identity)
            return KindIdentity;
        if (reversed)
            return KindReversed;
        return n <= 65535 && n == dimsZ ? KindShortImages : KindIntImages;
    }
    // In sixteen bits an unknown image (-1) is stored as 65535, which the
    // reader turns back into -1; a real index of 65535 would read back as
    // unknown, and a larger one would lose its high bits, so volumes with
    // such indices take the int form.
    bool fitsShort = n < 65536 && n == dimsZ;
    for (int i = 0; fitsShort && i < n; ++i)
        fitsShort = slices[i].frame >= 0 && slices[i].frame < 65536 && slices[i].imageIndex >= -1 &&
                    slices[i].imageIndex < kUnknownShortIndex;
    return fitsShort ? KindShortFrames : KindIntFrames;
}

// A count read from the wire is believed only as far as the bytes left can
// hold its entries, so corrupt input cannot ask for huge allocations.
int checkedCount(LmMsg& in, int count, size_t bytesPerEntry)
{
    if (count < 0 || static_cast<size_t>(count) > in.bytesAvailable() / bytesPerEntry) {
        in.markFailed();
        return 0;
    }
    return count;
}

} // namespace

void Volume::serialize(LmMsg& out, QList<QByteArray>& previews) const
{
    LmMsg block;
    block.reset(0, kBlockCapacity);
    block << mDims << mBoundingBox << mTransformationMatrix << mVolumeFileName;

    MappingKind const kind = chooseKind(mMultiFrameInfo, mImages.size(), mDims.z);
    block << static_cast<unsigned char>(kind);
    switch (kind) {
    case KindIdentity:
    case KindReversed:
        break;
    case KindShortImages:
        for (MultiFrameInfo const& info : mMultiFrameInfo)
            block << static_cast<unsigned short>(info.imageIndex);
        break;
    case KindIntImages:
        block << static_cast<int>(mMultiFrameInfo.size());
        for (MultiFrameInfo const& info : mMultiFrameInfo)
            block << static_cast<int>(info.imageIndex);
        break;
    case KindShortFrames:
        for (MultiFrameInfo const& info : mMultiFrameInfo)
            block << static_cast<unsigned short>(info.imageIndex) << static_cast<unsigned short>(info.frame);
        break;
    case KindIntFrames:
        block << static_cast<int>(mMultiFrameInfo.size());
        for (MultiFrameInfo const& info : mMultiFrameInfo)
            block << static_cast<int>(info.imageIndex) << static_cast<int>(info.frame);
        break;
    }

    if (mPreviewData.isEmpty()) {
        TagMapSerializer::writeLength(block, 0);
    } else {
        previews.append(mPreviewData);
        TagMapSerializer::writeLength(block, previews.size());
    }
    if (hasExtraData())
        serializeExtraData(block);

    TagMapSerializer::writeLength(out, static_cast<int>(block.size()));
    out.writeRawBytes(block.dataPtr(), block.size());
}

bool Volume::deserialize(LmMsg& in, QList<QByteArray> const& previews, int numImages)
{
    unsigned char kind = 0;
    in >> mDims >> mBoundingBox >> mTransformationMatrix >> mVolumeFileName >> kind;
    int const impliedCount = mDims.x == 0 ? 0 : mDims.z;
    bool fits = true;
    mMultiFrameInfo.clear();
    switch (kind) {
    case KindIdentity:
    case KindReversed: {
        int const n = impliedCount;
        fits = n >= 0 && n <= numImages;
        if (n < 0 || n - numImages > kMaxMissingImages)
            break;
        mMultiFrameInfo.resize(n);
        for (int i = 0; i < n; ++i)
            mMultiFrameInfo[i] = MultiFrameInfo{kind == KindIdentity ? i : n - 1 - i, 0};
        break;
    }
    case KindShortImages:
    case KindShortFrames: {
        size_t const entrySize = kind == KindShortImages ? 2 : 4;
        int const n = checkedCount(in, impliedCount, entrySize);
        mMultiFrameInfo.resize(n);
        for (int i = 0; i < n; ++i) {
            unsigned short image = 0;
            unsigned short frame = 0;
            in >> image;
            if (kind == KindShortFrames)
                in >> frame;
            int const index = image == kUnknownShortIndex ? -1 : image;
            mMultiFrameInfo[i] = MultiFrameInfo{index, kind == KindShortFrames ? frame : 0};
        }
        break;
    }
    case KindIntImages:
    case KindIntFrames: {
        int count = 0;
        in >> count;
        int const n = checkedCount(in, count, kind == KindIntImages ? 4 : 8);
        mMultiFrameInfo.resize(n);
        for (int i = 0; i < n; ++i) {
            int image = 0;
            int frame = 0;
            in >> image;
            if (kind == KindIntFrames)
                in >> frame;
            mMultiFrameInfo[i] = MultiFrameInfo{image, frame};
        }
        break;
    }
    default:
        break; // no mapping; the preview index follows all the same
    }
    if (kind >= KindShortImages && kind <= KindIntFrames) {
        // Deliberately <=: a reader protects itself in imageForSlice.
        for (MultiFrameInfo const& info : qAsConst(mMultiFrameInfo))
            fits = fits && info.imageIndex <= numImages;
    }

    int const preview = TagMap::readLength(in);
    if (preview > 0 && preview <= previews.size())
        mPreviewData = previews[preview - 1];
    if (in.bytesAvailable() > 0)
        deserializeExtraData(in);
    return fits;
}

bool Volume::hasExtraData() const
{
    return !mFileNameSuffix.isEmpty() && mHistogram.numBins() <= 65535 &&
           mHistogram.numValues() <= 0xFFFFFFFFull;
}

void Volume::serializeExtraData(LmMsg& out) const
{
    auto histogramBound = [](float v) {
        return static_cast<unsigned short>(static_cast<int>(std::rintf(v)) & 0xFFFF);
    };
    out << static_cast<unsigned char>(0) << mFileNameSuffix << mRescaleSlope << mRescaleIntercept
        << mPrecisionBitLoss << static_cast<unsigned short>(mNumLossyCompressedImages)
        << static_cast<unsigned char>(mHasPaddingValue ? 1 : 0);
    if (mHasPaddingValue)
        out << static_cast<unsigned short>(mPaddingValue);
    out << static_cast<unsigned char>(mHasPaddingRangeMax ? 1 : 0);
    if (mHasPaddingRangeMax)
        out << static_cast<unsigned short>(mPaddingRangeMax);
    out << histogramBound(mHistogram.minValue()) << histogramBound(mHistogram.maxValue())
        << static_cast<unsigned short>(mHistogram.numBins());
    for (uint64_t count : mHistogram.bins())
        out << static_cast<unsigned int>(count);
    out << static_cast<unsigned char>(mNumOverlayPlanes);
    bool const suvValid = mSuvBox.isValid();
    out << static_cast<unsigned char>(suvValid ? 1 : 0);
    if (suvValid)
        out << mSuvBox;
    out << static_cast<unsigned char>(mDataLevels);
}

void Volume::deserializeExtraData(LmMsg& in)
{
    unsigned char version = 0;
    in >> version;
    if (version != 0)
        return; // a later form: what follows is not ours to read
    unsigned short lossy = 0;
    unsigned char flag = 0;
    in >> mFileNameSuffix >> mRescaleSlope >> mRescaleIntercept >> mPrecisionBitLoss >> lossy >> flag;
    mNumLossyCompressedImages = lossy;
    mHasPaddingValue = flag != 0;
    if (mHasPaddingValue) {
        unsigned short value = 0;
        in >> value;
        mPaddingValue = value;
    }
    in >> flag;
    mHasPaddingRangeMax = flag != 0;
    if (mHasPaddingRangeMax) {
        unsigned short value = 0;
        in >> value;
        mPaddingRangeMax = value;
    }
    unsigned short minimum = 0;
    unsigned short maximum = 0;
    unsigned short numBins = 0;
    in >> minimum >> maximum >> numBins;
    int const bins = checkedCount(in, numBins, 4);
    std::vector<uint64_t> counts(static_cast<size_t>(bins));
    for (uint64_t& count : counts) {
        unsigned int value = 0;
        in >> value;
        count = value;
    }
    mHistogram = LmHistogram(std::move(counts), minimum, maximum);
    unsigned char overlays = 0;
    in >> overlays;
    mNumOverlayPlanes = overlays;

    if (in.bytesAvailable() == 0)
        return;
    unsigned char suvValid = 0;
    in >> suvValid;
    if (suvValid)
        in >> mSuvBox;
    if (in.bytesAvailable() == 0)
        return;
    in >> mDataLevels;
}

} // namespace Mdx
