#include <mdxlib/platform/LmVolume.h>

#include <utility>
#include <vector>

LmVolume::LmVolume(HxParamBundle parameters)
    : mParameters(std::move(parameters))
{
}

float LmVolume::scale(float x) const
{
    return mRescaleSlope == 0.0f ? 0.0f : (x - mRescaleIntercept) / mRescaleSlope;
}

bool LmVolume::dataLevels(float& min, float& max) const
{
    float levels[2] = {0.0f, 0.0f};
    if (!mParameters.findReal("DataMinMax", 2, levels))
        return false;
    min = levels[0];
    max = levels[1];
    return true;
}

void LmVolume::setDataLevels(float min, float max)
{
    mParameters.set("DataMinMax", std::vector<double>{min, max});
}

void LmVolume::update(int what)
{
    // A copy, so that an observer may remove itself.
    std::map<int, Observer> const observers = mObservers;
    for (auto const& entry : observers)
        entry.second(*this, what);
}

int LmVolume::addObserver(Observer observer)
{
    int const id = mNextObserver++;
    mObservers.emplace(id, std::move(observer));
    return id;
}

void LmVolume::removeObserver(int id)
{
    mObservers.erase(id);
}

LmVolumeData* LmVolume::data(int level) const
{
    return level == 0 || level == 1 ? mData[level].get() : nullptr;
}

void LmVolume::setData(int level, std::unique_ptr<LmVolumeData> data)
{
    if (level == 0 || level == 1)
        mData[level] = std::move(data);
}
