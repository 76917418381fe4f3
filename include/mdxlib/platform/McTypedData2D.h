// A 2D view of typed pixel data: width, height, values per pixel, the byte
// strides from pixel to pixel and from line to line, and the first byte.
//
// A view either looks at memory that someone else keeps alive, or owns its
// buffer (shared between copies, so that a decoded picture can be passed on
// by value). The data type numbers are the ones previews use for their
// element types.
#pragma once

#include <mdxlib/Export.h>

#include <memory>
#include <vector>

class MDX_EXPORT McTypedData2D
{
public:
    enum DataType
    {
        UInt8 = 0,
        Int16 = 1,
        Int32 = 2,
        Float32 = 3,
        Float64 = 4,
        UInt16 = 7
    };

    // Empty: no pixels.
    McTypedData2D() = default;
    // A view of memory owned elsewhere.
    McTypedData2D(DataType type, int width, int height, int components, int pixelStride, int lineStride,
                  unsigned char* data);
    // Owned, zero-filled and tightly packed; empty when a size is not
    // positive or the buffer would not be addressable.
    static McTypedData2D allocate(DataType type, int width, int height, int components);
    // Bytes of one value of type; 0 for a number that names no type.
    static int bytesOf(int type);

    bool isEmpty() const { return !mData || mWidth <= 0 || mHeight <= 0; }
    DataType dataType() const { return mType; }
    int width() const { return mWidth; }
    int height() const { return mHeight; }
    int components() const { return mComponents; }
    int pixelStride() const { return mPixelStride; }
    int lineStride() const { return mLineStride; }
    unsigned char* data() const { return mData; }
    unsigned char* pixel(int x, int y) const
    {
        return mData + static_cast<long>(y) * mLineStride + static_cast<long>(x) * mPixelStride;
    }

private:
    DataType mType = UInt8;
    int mWidth = 0;
    int mHeight = 0;
    int mComponents = 0;
    int mPixelStride = 0;
    int mLineStride = 0;
    unsigned char* mData = nullptr;
    std::shared_ptr<std::vector<unsigned char>> mOwned;
};
