// A volume as the SUV code sees it: its parameters (an HxParamBundle with
// the DICOM attributes of its images), the rescale that turns stored values
// into shown ones, its data levels, and a notification when that rescale
// changes, so that views can redraw without the volume knowing them.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/LmVolumeData.h>
#include <mdxlib/platform/McBox3f.h>

#include <functional>
#include <map>
#include <memory>

class MDX_EXPORT LmVolume
{
public:
    // What changed, for update(): the rescale slope or intercept.
    static constexpr int kRescaleChanged = 64;

    using Observer = std::function<void(LmVolume&, int what)>;

    LmVolume() = default;
    explicit LmVolume(HxParamBundle parameters);
    virtual ~LmVolume() = default;
    LmVolume(LmVolume const&) = delete;
    LmVolume& operator=(LmVolume const&) = delete;

    HxParamBundle& parameters() { return mParameters; }
    HxParamBundle const& parameters() const { return mParameters; }

    float rescaleSlope() const { return mRescaleSlope; }
    float rescaleIntercept() const { return mRescaleIntercept; }
    void setRescaleSlope(float slope) { mRescaleSlope = slope; }
    void setRescaleIntercept(float intercept) { mRescaleIntercept = intercept; }
    // A shown value back to the stored one: (x - intercept) / slope; 0 with
    // a slope of 0, which maps every stored value to one shown value.
    float scale(float x) const;

    // The least and greatest stored value, kept as "DataMinMax" in the
    // parameters. False when they were never set.
    bool dataLevels(float& min, float& max) const;
    void setDataLevels(float min, float max);

    // The voxels of resolution level 0 (full) or 1 (coarser), null when not
    // loaded; the volume owns them.
    LmVolumeData* data(int level) const;
    void setData(int level, std::unique_ptr<LmVolumeData> data);
    // World-space box of the voxel centres of level 0.
    McBox3f const& boundingBox() const { return mBoundingBox; }
    void setBoundingBox(McBox3f const& box) { mBoundingBox = box; }

    // Tells the observers that what (kRescaleChanged, ...) changed.
    virtual void update(int what);
    // Returns an id for removeObserver.
    int addObserver(Observer observer);
    void removeObserver(int id);

private:
    HxParamBundle mParameters;
    float mRescaleSlope = 1.0f;
    float mRescaleIntercept = 0.0f;
    std::map<int, Observer> mObservers;
    std::unique_ptr<LmVolumeData> mData[2];
    McBox3f mBoundingBox;
    int mNextObserver = 1;
};
