#include <mdxlib/dcmio/DcmInputCurlStream.h>

#include "LmDcmProducerErrors.h"

#include <algorithm>

DcmCurlProducer::DcmCurlProducer(LmCurlDownloadStream&& stream)
    : mStream(std::move(stream))
{
}

DcmCurlProducer::DcmCurlProducer(DcmCurlProducer&& other) noexcept
    : mStream(std::move(other.mStream))
    , mTail(std::move(other.mTail))
    , mPosition(other.mPosition)
    , mPutbackFailed(other.mPutbackFailed)
{
    other.mTail = LmDcmPutbackTail();
}

OFBool DcmCurlProducer::good() const
{
    return mStream.rdstate() == std::ios::goodbit && !mPutbackFailed;
}

OFCondition DcmCurlProducer::status() const
{
    std::ios::iostate const state = mStream.rdstate();
    if (state & std::ios::eofbit)
        return LmDcmProducerErrors::endOfFile();
    if ((state & std::ios::badbit) || mPutbackFailed)
        return LmDcmProducerErrors::ioError();
    if (state & std::ios::failbit)
        return LmDcmProducerErrors::logicalError();
    return EC_Normal;
}

OFBool DcmCurlProducer::eos()
{
    if (mTail.hasUnread())
        return OFFalse;
    return mStream.peek() == std::char_traits<char>::eof();
}

offile_off_t DcmCurlProducer::avail()
{
    if (mStream.rdstate() & std::ios::eofbit)
        return mTail.unread();
    int64_t const length = mStream.contentLength();
    if (length > 0)
        return std::max<int64_t>(length - mPosition, 0);
    std::streambuf* const buffer = mStream.rdbuf();
    std::streamsize const now = buffer ? buffer->in_avail() : 0;
    return now > LmDcmPutbackTail::kSize - 1 ? now : LmDcmPutbackTail::kSize;
}

offile_off_t DcmCurlProducer::read(void* buf, offile_off_t buflen)
{
    char* const dest = static_cast<char*>(buf);
    int64_t const served = mTail.serve(dest, buflen);
    if (served == buflen) {
        mPosition += served;
        return served;
    }
    int64_t total = served;
    if (mStream.good()) {
        mStream.read(dest + total, buflen - total);
        total += mStream.gcount();
    }
    mTail.keep(dest, total, served);
    mPosition += total;
    return total;
}

offile_off_t DcmCurlProducer::skip(offile_off_t skiplen)
{
    return LmDcmProducerErrors::skipByReading(skiplen, [this](char* b, long long n) { return read(b, n); });
}

void DcmCurlProducer::putback(offile_off_t num)
{
    // See DcmCloudProducer::putback: more than the tail holds turns the stream bad.
    if (!mTail.putback(num)) {
        mPutbackFailed = true;
        return;
    }
    mPosition -= num;
}

DcmInputCurlStream::DcmInputCurlStream(LmCurlDownloadStream&& stream, bool allowSuspend)
    : DcmInputStream(&mProducer)
    , mProducer(std::move(stream))
    , mAllowSuspend(allowSuspend)
{
}

DcmInputCurlStream::DcmInputCurlStream(DcmInputCurlStream&& other) noexcept
    : DcmInputStream(&mProducer)
    , mProducer(std::move(other.mProducer))
    , mAllowSuspend(true)
    , mBase(other.tell())
{
}

DcmInputStreamFactory* DcmInputCurlStream::newFactory() const
{
    return nullptr;
}

offile_off_t DcmInputCurlStream::tell() const
{
    return mBase + DcmInputStream::tell();
}

DcmInputStream* DcmInputCurlStream::suspend()
{
    if (!mAllowSuspend)
        return nullptr;
    return new DcmInputCurlStream(std::move(*this));
}
