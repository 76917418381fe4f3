#include <mdxlib/cloudreader/DownloadStream.h>

#include <mdxlib/cloudreader/DownloadStreambuf.h>
#include <mdxlib/cloudreader/File.h>

namespace Kz {

DownloadStreambuf::DownloadStreambuf(std::shared_ptr<File> file)
    : mFile(std::move(file))
{
}

DownloadStreambuf::int_type DownloadStreambuf::underflow()
{
    if (!mFile || mFile->read(&mByte, 1) != 1)
        return traits_type::eof();
    setg(&mByte, &mByte, &mByte + 1);
    return traits_type::to_int_type(mByte);
}

std::streamsize DownloadStreambuf::xsgetn(char* dest, std::streamsize n)
{
    std::streamsize done = 0;
    if (n > 0 && gptr() < egptr()) {
        *dest = *gptr();
        gbump(1);
        done = 1;
    }
    while (mFile && done < n) {
        long long const got = mFile->read(dest + done, n - done);
        if (got <= 0)
            break;
        done += got;
    }
    return done;
}

long long DownloadStreambuf::length() const
{
    return mFile ? mFile->length() : -1;
}

bool DownloadStreambuf::isOpen() const
{
    return mFile && mFile->state() == File::FILE_OPEN;
}

bool DownloadStreambuf::isBad() const
{
    return !mFile || mFile->state() == File::FILE_BAD;
}

bool DownloadStreambuf::close()
{
    return mFile && mFile->close();
}

DownloadStream::DownloadStream(DownloadStreambuf* buffer)
    : std::istream(buffer)
    , mBuffer(buffer)
{
}

DownloadStream::DownloadStream(DownloadStream&& other) noexcept
    : std::istream(std::move(other))
    , mBuffer(other.mBuffer)
{
    other.mBuffer = nullptr;
    other.set_rdbuf(nullptr);
    set_rdbuf(mBuffer);
}

DownloadStream& DownloadStream::operator=(DownloadStream&& other) noexcept
{
    if (this != &other) {
        if (mBuffer) {
            mBuffer->close();
            delete mBuffer;
        }
        std::istream::operator=(std::move(other));
        mBuffer = other.mBuffer;
        other.mBuffer = nullptr;
        other.set_rdbuf(nullptr);
        set_rdbuf(mBuffer);
    }
    return *this;
}

DownloadStream::~DownloadStream()
{
    if (mBuffer) {
        mBuffer->close();
        delete mBuffer;
    }
}

long long DownloadStream::length() const
{
    return mBuffer ? mBuffer->length() : -1;
}

bool DownloadStream::isOpen() const
{
    return mBuffer && mBuffer->isOpen();
}

bool DownloadStream::isBad() const
{
    return !mBuffer || mBuffer->isBad();
}

bool DownloadStream::close()
{
    return mBuffer && mBuffer->close();
}

} // namespace Kz
