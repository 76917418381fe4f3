#include <mdxlib/dcmio/DcmInputHttpStream.h>

#include "LmDcmProducerErrors.h"

#include <algorithm>
#include <cstring>

DcmHttpProducer::DcmHttpProducer() = default;

DcmHttpProducer::DcmHttpProducer(DcmHttpProducer&& other) noexcept
    : mGet(std::move(other.mGet))
    , mBuffer(std::move(other.mBuffer))
    , mIndex(other.mIndex)
    , mFill(other.mFill)
{
    other.mIndex = other.mFill = 0;
}

bool DcmHttpProducer::request(char const* url)
{
    if (!mBuffer)
        mBuffer.reset(new char[kBlock + kTail]);
    mIndex = mFill = 0;
    return mGet.request(url);
}

OFBool DcmHttpProducer::good() const
{
    return mBuffer && mGet.state() != McHttpGet::STATE_FAILED && mGet.httpStatus() < 300;
}

OFCondition DcmHttpProducer::status() const
{
    if (good())
        return EC_Normal;
    return LmDcmProducerErrors::make(mBuffer ? mGet.errorText() : "No request");
}

OFBool DcmHttpProducer::eos()
{
    return avail() == 0;
}

offile_off_t DcmHttpProducer::avail()
{
    if (mGet.state() == McHttpGet::STATE_RESPONSE_PENDING)
        mGet.readResponse();
    if (!good())
        return 0;
    if (mGet.contentLength() < 0) {
        // Unknown length: what the buffer holds, or one more block unless the body ended.
        int64_t const held = mFill - mIndex;
        return held > 0 ? held : (mGet.state() == McHttpGet::STATE_DONE ? 0 : kBlock);
    }
    return std::max<int64_t>(mGet.contentLength() + mFill - (mGet.bytesRead() + mIndex), 0);
}

offile_off_t DcmHttpProducer::read(void* buf, offile_off_t buflen)
{
    if (!good())
        return -1;
    char* const dest = static_cast<char*>(buf);
    int64_t done = std::min<int64_t>(buflen, mFill - mIndex);
    std::memcpy(dest, mBuffer.get() + mIndex, static_cast<size_t>(done));
    mIndex += done;
    int64_t rest = buflen - done;
    if (rest == 0)
        return done;
    if (rest <= kBlock) {
        if (mFill > kTail) {
            std::memmove(mBuffer.get(), mBuffer.get() + mFill - kTail, kTail);
            mIndex = mFill = kTail;
        }
        long long const got = mGet.read(mBuffer.get() + mIndex, kBlock);
        if (got > 0) {
            mFill += got;
            int64_t const n = std::min<int64_t>(rest, got);
            std::memcpy(dest + done, mBuffer.get() + mIndex, static_cast<size_t>(n));
            mIndex += n;
            done += n;
        }
        return done;
    }
    long long const got = mGet.read(dest + done, rest);
    if (got > 0) {
        int64_t const keep = std::min<int64_t>(got, kTail);
        std::memcpy(mBuffer.get(), dest + done + got - keep, static_cast<size_t>(keep));
        mIndex = mFill = keep;
        done += got;
    }
    return done;
}

offile_off_t DcmHttpProducer::skip(offile_off_t skiplen)
{
    return LmDcmProducerErrors::skipByReading(skiplen, [this](char* b, long long n) { return read(b, n); });
}

void DcmHttpProducer::putback(offile_off_t num)
{
    if (num <= mIndex)
        mIndex -= num;
    else
        mGet.setError("putback failed");
}

DcmInputHttpStream::DcmInputHttpStream()
    : DcmInputStream(&mProducer)
{
}

DcmInputHttpStream::DcmInputHttpStream(DcmInputHttpStream&& other) noexcept
    : DcmInputStream(&mProducer)
    , mProducer(std::move(other.mProducer))
    , mBase(other.tell())
{
}

DcmInputStreamFactory* DcmInputHttpStream::newFactory() const
{
    return nullptr;
}

offile_off_t DcmInputHttpStream::tell() const
{
    return mBase + DcmInputStream::tell();
}

DcmInputStream* DcmInputHttpStream::suspend()
{
    return new DcmInputHttpStream(std::move(*this));
}
