#include <mdxlib/streamapi/LmStreamCopy.h>

#include "CopySource.h"
#include "CopyTarget.h"

#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/McLogFile.h>

#include <QCryptographicHash>

#include <exception>
#include <memory>
#include <optional>

namespace {

// The copy moves this much at a time and never holds more of an object.
constexpr std::streamsize kPumpBlock = 0x100000;

} // namespace

LmStreamCopy::LmStreamCopy(std::string source, std::string target)
    : mSource(std::move(source))
    , mTarget(std::move(target))
{
}

void LmStreamCopy::setExpectedHashAndSize(char const* hash, long long size)
{
    mHash = hash ? hash : "";
    mSize = size;
}

LmStreamCopy::Outcome LmStreamCopy::run()
{
    mReason.clear();
    mBytes = 0;
    Outcome outcome = TargetFailed;
    try {
        outcome = copy();
    } catch (std::exception const& e) {
        mReason = e.what();
    } catch (...) {
        mReason = "unknown exception";
    }
    if (outcome != Copied) {
        try {
            getTheLogInstance()->errorf("Could not copy %s to %s", lmRedactSecrets(mSource).c_str(),
                                        lmRedactSecrets(mTarget).c_str());
        } catch (...) {
        }
    }
    return outcome;
}

LmStreamCopy::Outcome LmStreamCopy::copy()
{
    McLogFile* log = getTheLogInstance();
    CopySource source(mSource);
    std::string fault = source.openFault();
    if (!fault.empty()) {
        // No target is made for a source that can't be read.
        log->errorf("Error reading %s", lmRedactSecrets(mSource).c_str());
        mReason = "cannot read " + lmRedactSecrets(mSource) + ": " + fault;
        return SourceFailed;
    }
    CopyTarget target(mTarget, mHash.c_str(), mSize);
    if (!target.stream()) {
        mReason = "cannot write " + lmRedactSecrets(mTarget) + ": " + target.openFault();
        return TargetFailed;
    }

    // Pump: full blocks until the source stops; then the last part when the
    // source ended rather than broke. Stops early when the target fails.
    std::istream& in = *source.stream();
    std::ostream& out = *target.stream();
    std::optional<QCryptographicHash> md5;
    if (!mHash.empty())
        md5.emplace(QCryptographicHash::Md5);
    long long const total = mSize > 0 ? mSize : std::max(source.length(), 0LL);
    std::unique_ptr<char[]> block(new char[kPumpBlock]);
    auto const pass = [&](std::streamsize n) {
        if (n <= 0)
            return;
        out.write(block.get(), n);
        if (md5)
            md5->addData(block.get(), static_cast<int>(n));
        mBytes += n;
        if (mProgress)
            mProgress(mBytes, total);
    };
    for (;;) {
        in.read(block.get(), kPumpBlock);
        if (!in || !out)
            break;
        pass(in.gcount());
    }
    if (out && in.eof() && !in.bad()) {
        pass(in.gcount());
        in.clear();
    }

    // The stream reads a broken transfer as an end: the source's own status
    // decides, before anything is completed.
    fault = in ? source.fault(mBytes) : std::string("read error after ") + std::to_string(mBytes) + " bytes";
    Outcome outcome = Copied;
    if (!fault.empty()) {
        log->errorf("Error reading %s", lmRedactSecrets(mSource).c_str());
        log->warnf("%s: %s", lmRedactSecrets(mSource).c_str(), fault.c_str());
        mReason = "cannot read " + lmRedactSecrets(mSource) + ": " + fault;
        outcome = SourceFailed;
    } else if (!out) {
        // The pump stopped at the target's failure: the sizes can't match.
        mReason = "cannot write " + lmRedactSecrets(mTarget);
        outcome = TargetFailed;
    } else if (mSize > 0 && mBytes != mSize) {
        mReason = "size " + std::to_string(mBytes) + " differs from the expected " + std::to_string(mSize);
        outcome = CheckFailed;
    } else if (md5 && md5->result().toHex().toStdString() != mHash) {
        mReason = "MD5 " + md5->result().toHex().toStdString() + " differs from the expected " + mHash;
        outcome = CheckFailed;
    }
    std::string targetFault;
    if (!target.finish(outcome == Copied, targetFault) && outcome == Copied) {
        mReason = "cannot write " + lmRedactSecrets(mTarget) + ": " + targetFault;
        outcome = TargetFailed;
    }
    source.close();
    if (outcome == CheckFailed)
        log->errorf("%s: %s", lmRedactSecrets(mSource).c_str(), mReason.c_str());
    return outcome;
}
