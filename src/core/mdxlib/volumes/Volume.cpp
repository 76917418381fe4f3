#include <mdxlib/volumes/Volume.h>

#include <mdxlib/pixels/Rescale.h>
#include <mdxlib/platform/McCreateUIDs.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QCryptographicHash>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace Mdx {

namespace {

struct SortInfo
{
    TagMap* map;
    QByteArray sopUID;
    int32_t instanceNumber;
    int oldIndex;
};

QByteArray sopUIDOf(TagMap const* map)
{
    QByteArray uid;
    if (map)
        map->findAndGetString(DCM_SOPInstanceUID, uid);
    return uid;
}

} // namespace

Volume::Volume() = default;

Volume::Volume(int index)
    : mIndex(index)
{
}

Volume::~Volume() = default;

TagMap* Volume::image(int i) const
{
    return i >= 0 && i < mImages.size() ? mImages[i] : nullptr;
}

TagMap* Volume::imageForSlice(int slice, int& frame) const
{
    frame = -1;
    if (slice < 0)
        return nullptr;
    if (slice < mMultiFrameInfo.size()) {
        MultiFrameInfo const& info = mMultiFrameInfo[slice];
        frame = info.frame;
        return image(info.imageIndex);
    }
    return image(slice);
}

void Volume::sortImages(std::vector<int>* oldPositions)
{
    std::vector<SortInfo> infos;
    infos.reserve(static_cast<size_t>(mImages.size()));
    for (int i = 0; i < mImages.size(); ++i) {
        int number = 0;
        if (mImages[i])
            mImages[i]->findAndGetInt(DCM_InstanceNumber, number);
        infos.push_back(SortInfo{mImages[i], sopUIDOf(mImages[i]), number, i});
    }
    std::sort(infos.begin(), infos.end(), [](SortInfo const& a, SortInfo const& b) {
        if (a.instanceNumber != b.instanceNumber)
            return a.instanceNumber < b.instanceNumber;
        return qstrcmp(a.sopUID, b.sopUID) < 0;
    });
    for (size_t p = 0; p < infos.size(); ++p) {
        mImages[static_cast<int>(p)] = infos[p].map;
        if (oldPositions)
            oldPositions->push_back(infos[p].oldIndex);
    }
}

void Volume::setImages(QVector<TagMap*> const& images, TagMap* series)
{
    if (images.isEmpty()) {
        mImages.append(series);
        return;
    }
    mImages = images;
    sortImages(nullptr);
}

void Volume::setMultiFrameInfo(std::vector<std::string> const& frames)
{
    std::vector<int> oldPositions;
    sortImages(&oldPositions);
    if (frames.empty()) {
        // Slices keep the order in which the images were given.
        mMultiFrameInfo.resize(mImages.size());
        for (size_t p = 0; p < oldPositions.size(); ++p)
            mMultiFrameInfo[oldPositions[p]] = MultiFrameInfo{static_cast<int32_t>(p), 0};
        return;
    }
    std::vector<QByteArray> uids;
    for (TagMap const* map : qAsConst(mImages))
        uids.push_back(sopUIDOf(map));
    mMultiFrameInfo.resize(static_cast<int>(frames.size()));
    for (size_t j = 0; j < frames.size(); ++j) {
        std::string const& entry = frames[j];
        size_t const dot = entry.rfind('.');
        std::string const uid = dot == std::string::npos ? entry : entry.substr(0, dot);
        int32_t const frame = dot == std::string::npos ? 0 : std::atoi(entry.c_str() + dot + 1);
        int32_t index = -1;
        for (size_t i = 0; i < uids.size(); ++i) {
            if (uids[i] == uid.c_str())
                index = static_cast<int32_t>(i); // the last match stands
        }
        mMultiFrameInfo[static_cast<int>(j)] = MultiFrameInfo{index, frame};
    }
}

std::vector<std::string> Volume::sopUIDList() const
{
    std::vector<std::string> list;
    bool const withFrames = mMultiFrameInfo.size() > mImages.size();
    for (MultiFrameInfo const& info : mMultiFrameInfo) {
        if (info.imageIndex < 0 || info.imageIndex >= mImages.size())
            continue;
        std::string text = sopUIDOf(mImages[info.imageIndex]).toStdString();
        if (withFrames)
            text += "." + std::to_string(info.frame);
        list.push_back(std::move(text));
    }
    return list;
}

QByteArray Volume::volumeHash() const
{
    if (!mHash.isEmpty())
        return mHash;
    QCryptographicHash md5(QCryptographicHash::Md5);
    for (std::string const& text : sopUIDList())
        md5.addData(text.data(), static_cast<int>(text.size()));
    mHash.append(md5.result().toHex().toUpper());
    return mHash;
}

void Volume::volumeHash(std::string& hash) const
{
    hash = volumeHash().toStdString();
}

void Volume::initRescaleSlopeIntercept() const
{
    RescaleSlopeCalculator calculator(2);
    for (TagMap const* map : mImages) {
        if (!map)
            continue;
        QByteArray text;
        float const slope = map->findAndGetString(DCM_RescaleSlope, text) ? text.trimmed().toFloat() : 1.0f;
        float const intercept =
            map->findAndGetString(DCM_RescaleIntercept, text) ? text.trimmed().toFloat() : 0.0f;
        int bitsStored = 8;
        if (!map->findAndGetInt(DCM_BitsStored, bitsStored))
            bitsStored = 8;
        int representation = 0;
        bool const isSigned =
            map->findAndGetInt(DCM_PixelRepresentation, representation) && representation == 1;
        calculator.add(slope, intercept, bitsStored, isSigned);
    }
    mRescaleSlope = calculator.rescaleSlope();
    mRescaleIntercept = calculator.rescaleIntercept();
    mPrecisionBitLoss = calculator.precisionBitLoss();
}

float Volume::rescaleSlope() const
{
    if (mRescaleSlope == 0.0f)
        initRescaleSlopeIntercept();
    return mRescaleSlope;
}

float Volume::rescaleIntercept() const
{
    if (mRescaleSlope == 0.0f)
        initRescaleSlopeIntercept();
    return mRescaleIntercept;
}

float Volume::precisionBitLoss() const
{
    if (mRescaleSlope == 0.0f)
        initRescaleSlopeIntercept();
    return mPrecisionBitLoss;
}

std::optional<bool> Volume::hasDataLevel(int level) const
{
    if (!(mDataLevels & 0x80))
        return std::nullopt;
    return (mDataLevels >> (level & 1) & 1) != 0;
}

QByteArray Volume::fileNameSuffix(char const* path)
{
    if (!path)
        return QByteArray();
    char const* base = path;
    for (char const* p = path; *p; ++p) {
        if (*p == '/' || *p == '\\')
            base = p + 1;
    }
    char const* dash = std::strchr(base, '-');
    if (!dash)
        return QByteArray();
    char const* rest = dash + 1;
    if (char const* part = std::strstr(rest, "_part")) {
        QByteArray suffix(rest, static_cast<int>(part - rest));
        suffix.append('_');
        char const* digits = part + 5;
        while (*digits == '0')
            ++digits;
        while (*digits >= '0' && *digits <= '9')
            suffix.append(*digits++);
        return suffix;
    }
    char const* dot = std::strchr(rest, '.');
    return dot ? QByteArray(rest, static_cast<int>(dot - rest)) : QByteArray(rest);
}

Volume* Volume::duplicate(TagFile& tagFile, TagMap& series)
{
    auto* copy = new Volume;
    series.addBareVolume(copy);
    copy->mImages.clear();
    copy->mIndex = series.volumes().size();

    copy->mMultiFrameInfo = mMultiFrameInfo;
    copy->mDims = mDims;
    copy->mBoundingBox = mBoundingBox;
    copy->mTransformationMatrix = mTransformationMatrix;
    copy->mRescaleSlope = mRescaleSlope;
    copy->mRescaleIntercept = mRescaleIntercept;
    copy->mHasPaddingValue = mHasPaddingValue;
    copy->mPaddingValue = mPaddingValue;
    copy->mHasPaddingRangeMax = mHasPaddingRangeMax;
    copy->mPaddingRangeMax = mPaddingRangeMax;
    copy->mSuvBox = mSuvBox;

    DcmTagKey const seriesKeys[] = {DCM_StudyInstanceUID,  DCM_SeriesInstanceUID, DCM_SeriesNumber,
                                    DCM_SeriesDescription, DCM_SeriesDate,        DCM_SeriesTime};
    QByteArray seriesTexts[6];
    for (int i = 0; i < 6; ++i)
        series.findAndGetString(seriesKeys[i], seriesTexts[i]);

    for (TagMap const* original : qAsConst(mImages)) {
        if (!original)
            continue;
        TagMap* clone = original->clone();
        for (int i = 0; i < 6; ++i)
            clone->putAndInsertString(seriesKeys[i], seriesTexts[i]);
        clone->putAndInsertString(DCM_SOPInstanceUID, QByteArray::fromStdString(McCreateUIDs::createUID()));
        clone->putAndInsertInt(Tags::VolumeIndices, copy->mIndex);
        // addTagMap deletes what it refuses; only images that entered the
        // tree belong to the volume.
        if (tagFile.addTagMap(clone, nullptr, true))
            copy->mImages.append(clone);
    }

    series.optimizeAll();
    if (series.parent())
        series.parent()->optimizeAll();
    return copy;
}

} // namespace Mdx
