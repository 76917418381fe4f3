#include <mdxlib/Volume.h>

namespace Mdx {

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

} // namespace Mdx
