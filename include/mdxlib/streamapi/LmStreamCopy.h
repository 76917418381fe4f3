// One copy of an object from wherever the library reads (a local file, a
// file-server path, a plain, S3, Google, Azure or WADO URL, a member of a
// ".kz" container) to a local file or to an s3://, az:// or gs:// object,
// 1 MiB at a time: what CopyWithHashAndSize does, with progress and the
// outcome told apart for callers that want more than 0 or 1.
//
// A copy succeeds only when the source delivered the whole object: a
// transfer that broke off counts as a failure even where the stream reads
// it as an end. A failed copy leaves no target behind: an upload is
// cancelled, a local target is written under a temporary name beside it and
// renamed only when complete, so that an existing file stays as it was.
#pragma once

#include <mdxlib/Export.h>

#include <functional>
#include <string>

class MDX_EXPORT LmStreamCopy
{
public:
    enum Outcome
    {
        Copied = 0,
        SourceFailed = 1, // the source could not be opened or broke off
        TargetFailed = 2, // the target could not be written or completed
        CheckFailed = 3   // hash or size differ from what was expected
    };

    // done bytes of total (0 while unknown); called after every step.
    using Progress = std::function<void(long long done, long long total)>;

    LmStreamCopy(std::string source, std::string target);

    // hash: lower-case hexadecimal MD5 of the whole, null or empty for no
    // check; size: bytes of the whole, below 1 for no check.
    void setExpectedHashAndSize(char const* hash, long long size);
    void setProgress(Progress progress) { mProgress = std::move(progress); }

    // Runs the copy; never throws.
    Outcome run();
    // Why the copy failed, in a few words; empty after success.
    std::string const& reason() const { return mReason; }
    long long bytesCopied() const { return mBytes; }

private:
    Outcome copy();

    std::string mSource;
    std::string mTarget;
    std::string mHash;
    long long mSize = 0;
    Progress mProgress;
    std::string mReason;
    long long mBytes = 0;
};
