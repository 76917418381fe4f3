#include <mdxlib/platform/McTypedData2D.h>

#include <climits>

McTypedData2D::McTypedData2D(DataType type, int width, int height, int components, int pixelStride,
                             int lineStride, unsigned char* data)
    : mType(type)
    , mWidth(width)
    , mHeight(height)
    , mComponents(components)
    , mPixelStride(pixelStride)
    , mLineStride(lineStride)
    , mData(data)
{
}

McTypedData2D McTypedData2D::allocate(DataType type, int width, int height, int components)
{
    int const bytes = bytesOf(type);
    if (width <= 0 || height <= 0 || components <= 0 || bytes == 0)
        return {};
    long long const pixelStride = static_cast<long long>(bytes) * components;
    long long const lineStride = pixelStride * width;
    // Strides are ints: a line must stay addressable by one.
    if (lineStride > INT_MAX || lineStride * height > static_cast<long long>(INT_MAX) * 16)
        return {};
    McTypedData2D result;
    result.mOwned = std::make_shared<std::vector<unsigned char>>(static_cast<size_t>(lineStride * height));
    result.mType = type;
    result.mWidth = width;
    result.mHeight = height;
    result.mComponents = components;
    result.mPixelStride = static_cast<int>(pixelStride);
    result.mLineStride = static_cast<int>(lineStride);
    result.mData = result.mOwned->data();
    return result;
}

int McTypedData2D::bytesOf(int type)
{
    switch (type) {
    case UInt8:
        return 1;
    case Int16:
    case UInt16:
        return 2;
    case Int32:
    case Float32:
        return 4;
    case Float64:
        return 8;
    default:
        return 0;
    }
}
