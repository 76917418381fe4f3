#include "LmDcmStagedStream.h"

#include "LmDcmProducerErrors.h"

#include <algorithm>
#include <cstring>

LmDcmStagedProducer::LmDcmStagedProducer(DcmInputStream& inner)
    : mInner(inner)
{
}

OFBool LmDcmStagedProducer::good() const
{
    return !mPutbackFailed && mInner.good();
}

OFCondition LmDcmStagedProducer::status() const
{
    return mPutbackFailed ? LmDcmProducerErrors::ioError() : mInner.status();
}

OFBool LmDcmStagedProducer::eos()
{
    return !mTail.hasUnread() && mInner.eos();
}

offile_off_t LmDcmStagedProducer::avail()
{
    int64_t const inner = mTail.unread() + mInner.avail();
    return std::max<int64_t>(std::min<int64_t>(inner, mGranted - mDelivered), 0);
}

offile_off_t LmDcmStagedProducer::read(void* buf, offile_off_t buflen)
{
    int64_t const want = std::min<int64_t>(buflen, mGranted - mDelivered);
    if (want <= 0)
        return 0;
    char* const dest = static_cast<char*>(buf);
    int64_t const served = mTail.serve(dest, want);
    int64_t total = served;
    while (total < want && mInner.good() && !mInner.eos()) {
        offile_off_t const got = mInner.read(dest + total, want - total);
        if (got <= 0)
            break;
        total += got;
    }
    if (total > served)
        mTail.keep(dest, total, served);
    mDelivered += total;
    return total;
}

offile_off_t LmDcmStagedProducer::skip(offile_off_t skiplen)
{
    return LmDcmProducerErrors::skipByReading(skiplen, [this](char* b, long long n) { return read(b, n); });
}

void LmDcmStagedProducer::putback(offile_off_t num)
{
    if (!mTail.putback(num)) {
        mPutbackFailed = true;
        return;
    }
    mDelivered -= num;
}

int64_t LmDcmStagedProducer::headerBytes()
{
    constexpr int64_t kHead = 144; // preamble, "DICM", the group length element
    constexpr int64_t kWithoutMeta = 1024;
    unsigned char head[kHead] = {};
    mGranted = mDelivered + kHead;
    int64_t const got = read(head, kHead);
    putback(got);
    mGranted = mDelivered;
    bool const magic = got == kHead && std::memcmp(head + 128, "DICM", 4) == 0;
    if (!magic)
        return kWithoutMeta;
    bool const groupLength = head[132] == 2 && head[133] == 0 && head[134] == 0 && head[135] == 0 &&
                             head[136] == 'U' && head[137] == 'L';
    if (!groupLength)
        return 64 * 1024;
    int64_t const length = head[140] | (head[141] << 8) | (head[142] << 16) | (int64_t(head[143]) << 24);
    return kHead + length;
}

LmDcmStagedStream::LmDcmStagedStream(DcmInputStream& inner)
    : DcmInputStream(&mProducer)
    , mProducer(inner)
{
}
