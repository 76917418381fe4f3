#include <mdxlib/cloudreader/File.h>
#include <mdxlib/dcmio/DcmInputCloudStream.h>

#include "LmDcmProducerErrors.h"

#include <algorithm>

DcmCloudProducer::DcmCloudProducer(std::shared_ptr<Kz::File> file)
    : mFile(std::move(file))
{
}

DcmCloudProducer::DcmCloudProducer(DcmCloudProducer&& other) noexcept
    : mFile(std::move(other.mFile))
    , mTail(std::move(other.mTail))
    , mPosition(other.mPosition)
    , mPutbackFailed(other.mPutbackFailed)
{
    other.mTail = LmDcmPutbackTail();
}

OFBool DcmCloudProducer::good() const
{
    return mFile && mFile->state() != Kz::File::FILE_BAD && !mPutbackFailed;
}

OFCondition DcmCloudProducer::status() const
{
    if (!mFile)
        return LmDcmProducerErrors::noFile();
    if (mFile->state() == Kz::File::FILE_BAD || mPutbackFailed)
        return LmDcmProducerErrors::ioError();
    if (mEndOfFile)
        return LmDcmProducerErrors::endOfFile();
    return EC_Normal;
}

OFBool DcmCloudProducer::eos()
{
    if (mTail.hasUnread())
        return OFFalse;
    if (mFile && mFile->length() > 0)
        return mFile->state() != Kz::File::FILE_OPEN;
    char byte;
    if (read(&byte, 1) < 1)
        return OFTrue;
    putback(1);
    return OFFalse;
}

offile_off_t DcmCloudProducer::avail()
{
    if (!mFile || mFile->state() != Kz::File::FILE_OPEN)
        return mTail.unread();
    long long const length = mFile->length();
    if (length < 1)
        return LmDcmPutbackTail::kSize;
    return std::max<int64_t>(length - mPosition, 0);
}

offile_off_t DcmCloudProducer::read(void* buf, offile_off_t buflen)
{
    char* const dest = static_cast<char*>(buf);
    int64_t const served = mTail.serve(dest, buflen);
    if (served == buflen || !mFile) {
        mPosition += served;
        return served;
    }
    int64_t total = served;
    while (total < buflen) {
        long long const got = mFile->read(dest + total, buflen - total);
        if (got < 1) {
            if (got == 0)
                mEndOfFile = true;
            break;
        }
        total += got;
    }
    mTail.keep(dest, total, served);
    mPosition += total;
    return total;
}

offile_off_t DcmCloudProducer::skip(offile_off_t skiplen)
{
    return LmDcmProducerErrors::skipByReading(skiplen, [this](char* b, long long n) { return read(b, n); });
}

void DcmCloudProducer::putback(offile_off_t num)
{
    // Putting back more than the tail holds would serve bytes that are gone:
    // the stream turns bad rather than handing the parser wrong data.
    if (!mTail.putback(num)) {
        mPutbackFailed = true;
        return;
    }
    mPosition -= num;
}

DcmInputCloudStream::DcmInputCloudStream(std::shared_ptr<Kz::File> const& file, bool allowSuspend)
    : DcmInputStream(&mProducer)
    , mProducer(file)
    , mAllowSuspend(allowSuspend)
{
}

DcmInputCloudStream::DcmInputCloudStream(DcmInputCloudStream&& other) noexcept
    : DcmInputStream(&mProducer)
    , mProducer(std::move(other.mProducer))
    , mAllowSuspend(true)
    , mBase(other.tell())
{
}

DcmInputStreamFactory* DcmInputCloudStream::newFactory() const
{
    return nullptr;
}

offile_off_t DcmInputCloudStream::tell() const
{
    return mBase + DcmInputStream::tell();
}

DcmInputStream* DcmInputCloudStream::suspend()
{
    if (!mAllowSuspend)
        return nullptr;
    return new DcmInputCloudStream(std::move(*this));
}

long long DcmInputCloudStream::length() const
{
    return mProducer.file() ? mProducer.file()->length() : -1;
}
