#include <mdxlib/dcmio/LmDcmPutbackTail.h>

#include <algorithm>
#include <cstring>

int64_t LmDcmPutbackTail::serve(char* dest, int64_t want)
{
    int64_t const n = std::min<int64_t>(want, unread());
    if (n > 0) {
        std::memcpy(dest, mData.constData() + mIndex, static_cast<size_t>(n));
        mIndex += n;
    }
    return n > 0 ? n : 0;
}

void LmDcmPutbackTail::keep(char const* data, int64_t n, int64_t servedThisCall)
{
    if (n <= 0)
        return;
    if (n >= mCapacity) {
        mData = QByteArray(data + n - mCapacity, mCapacity);
    } else {
        // What came before this call, then this call's bytes.
        QByteArray combined = mData.left(static_cast<int>(mIndex - servedThisCall));
        combined.append(data, static_cast<int>(n));
        mData = combined.right(mCapacity);
    }
    mIndex = mData.size();
}

bool LmDcmPutbackTail::putback(int64_t n)
{
    if (n < 0 || n > mIndex)
        return false;
    mIndex -= n;
    return true;
}
