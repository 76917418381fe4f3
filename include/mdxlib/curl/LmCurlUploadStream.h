// The std::ostream a writer of a cloud object gets from LmCurlClient::write.
// It owns its LmCurlUploadStreambuf; a stream without one (the session could
// not be made) starts with badbit set, and every write fails.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlUploadStreambuf.h>

#include <memory>
#include <ostream>

class MDX_EXPORT LmCurlUploadStream : public std::ostream
{
public:
    explicit LmCurlUploadStream(std::unique_ptr<LmCurlUploadStreambuf> buffer);
    LmCurlUploadStream(LmCurlUploadStream&& other) noexcept;
    LmCurlUploadStream& operator=(LmCurlUploadStream&& other) noexcept;
    // An open upload is finished here; see LmCurlUploadStreambuf.
    ~LmCurlUploadStream() override;

    bool isOpen() const;
    // Completes the object; a failure sets badbit.
    void close();
    // Gives up the upload and sets badbit.
    void cancel();
    void setExpectedHashAndSize(char const* hash, long long size);

    LmCurlUploadStreambuf* streambuf() const { return mBuffer.get(); }

private:
    std::unique_ptr<LmCurlUploadStreambuf> mBuffer;
};
