#include <mdxlib/curl/LmCurlUploadStream.h>

#include <mdxlib/platform/McLogFile.h>

#include <algorithm>
#include <cstring>
#include <string>

// ---------------------------------------------------------------- streambuf

LmCurlUploadStreambuf::LmCurlUploadStreambuf(std::unique_ptr<LmCurlUploadSessionBase> session)
    : mBuffer(kBufferSize, Qt::Uninitialized)
    , mSession(std::move(session))
{
    setp(mBuffer.data(), mBuffer.data() + mBuffer.size());
}

LmCurlUploadStreambuf::~LmCurlUploadStreambuf()
{
    // Neither closed nor cancelled: what was written is the object. After a
    // failure or a cancel both calls do nothing.
    flush();
    finalFlush();
}

bool LmCurlUploadStreambuf::isOpen() const
{
    return mOpen && mSession && !mSession->done();
}

void LmCurlUploadStreambuf::cancel()
{
    mGood = false;
    if (mSession)
        mSession->cancel();
}

void LmCurlUploadStreambuf::setExpectedHashAndSize(char const* hash, long long size)
{
    if (mSession)
        mSession->setExpectedHashAndSize(hash, size);
}

bool LmCurlUploadStreambuf::bufferIsFull() const
{
    return pptr() >= epptr();
}

bool LmCurlUploadStreambuf::flush()
{
    if (!isOpen())
        return mGood;
    if (!mGood)
        return false;
    auto const filled = static_cast<size_t>(pptr() - pbase());
    // A partial buffer stays: the stream's own flush pushes nothing out, so
    // that every chunk but the last is whole.
    if (filled < static_cast<size_t>(kBufferSize))
        return true;
    size_t const cut = filled / kChunkGranularity * kChunkGranularity;
    try {
        std::string const chunk(pbase(), cut);
        mSession->uploadChunk(chunk, false);
    } catch (std::exception const& e) {
        getTheLogInstance()->warnf("Exception while uploading chunk. File: %s. Error: %s",
                                   mSession->loggingUrl().c_str(), e.what());
        mGood = false;
        return false;
    }
    size_t const rest = filled - cut;
    std::memmove(pbase(), pbase() + cut, rest);
    setp(mBuffer.data(), mBuffer.data() + mBuffer.size());
    pbump(static_cast<int>(rest));
    return true;
}

bool LmCurlUploadStreambuf::finalFlush()
{
    if (!isOpen())
        return mGood;
    if (!mGood)
        return false;
    try {
        std::string const chunk(pbase(), static_cast<size_t>(pptr() - pbase()));
        mSession->uploadChunk(chunk, true);
        // The 8 MiB go back at once, before the session ends.
        mBuffer.resize(1);
        mBuffer.squeeze();
        setp(mBuffer.data(), mBuffer.data());
        mOpen = false;
        return mSession->done();
    } catch (std::exception const& e) {
        getTheLogInstance()->warnf("Exception while uploading final chunk. File: %s. Error: %s",
                                   mSession->loggingUrl().c_str(), e.what());
        mGood = false;
        return false;
    }
}

bool LmCurlUploadStreambuf::close()
{
    sync();
    return finalFlush();
}

int LmCurlUploadStreambuf::sync()
{
    return flush() ? 0 : -1;
}

std::streamsize LmCurlUploadStreambuf::xsputn(char const* s, std::streamsize n)
{
    if (!isOpen())
        return -1;
    std::streamsize left = n;
    while (left > 0) {
        std::streamsize const room = epptr() - pptr();
        std::streamsize const step = std::min(left, room);
        std::memcpy(pptr(), s, static_cast<size_t>(step));
        pbump(static_cast<int>(step));
        s += step;
        left -= step;
        if (!flush())
            return -1;
    }
    return n;
}

LmCurlUploadStreambuf::int_type LmCurlUploadStreambuf::overflow(int_type c)
{
    if (!isOpen())
        return traits_type::eof();
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return 0;
    if (bufferIsFull() && !flush())
        return traits_type::eof();
    if (bufferIsFull())
        return traits_type::eof();
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
}

// ------------------------------------------------------------------- stream

LmCurlUploadStream::LmCurlUploadStream(std::unique_ptr<LmCurlUploadStreambuf> buffer)
    : std::ostream(buffer.get())
    , mBuffer(std::move(buffer))
{
    // std::ostream's constructor sets badbit for a null buffer itself; said
    // here too, as it is the promise of this class.
    if (!mBuffer)
        setstate(std::ios_base::badbit);
}

LmCurlUploadStream::LmCurlUploadStream(LmCurlUploadStream&& other) noexcept
    : std::ostream(std::move(other))
    , mBuffer(std::move(other.mBuffer))
{
    set_rdbuf(mBuffer.get());
    other.set_rdbuf(nullptr);
    other.exceptions(std::ios_base::goodbit);
    other.clear(std::ios_base::badbit);
}

LmCurlUploadStream& LmCurlUploadStream::operator=(LmCurlUploadStream&& other) noexcept
{
    if (this == &other)
        return *this;
    if (isOpen()) {
        exceptions(std::ios_base::goodbit);
        close();
    }
    std::ostream::operator=(std::move(other));
    mBuffer = std::move(other.mBuffer);
    set_rdbuf(mBuffer.get());
    other.set_rdbuf(nullptr);
    other.exceptions(std::ios_base::goodbit);
    other.clear(std::ios_base::badbit);
    return *this;
}

LmCurlUploadStream::~LmCurlUploadStream()
{
    if (isOpen()) {
        exceptions(std::ios_base::goodbit);
        close();
    }
}

bool LmCurlUploadStream::isOpen() const
{
    return mBuffer && mBuffer->isOpen();
}

void LmCurlUploadStream::close()
{
    if (mBuffer && !mBuffer->close())
        setstate(std::ios_base::badbit);
}

void LmCurlUploadStream::cancel()
{
    if (mBuffer)
        mBuffer->cancel();
    setstate(std::ios_base::badbit);
}

void LmCurlUploadStream::setExpectedHashAndSize(char const* hash, long long size)
{
    if (mBuffer)
        mBuffer->setExpectedHashAndSize(hash, size);
}
