#include <mdxlib/platform/McMultiPartReader.h>

#include <algorithm>
#include <cstring>

namespace {

// Room for the longest line the decoder accepts (a delimiter line or one part
// header), and the size of the raw reads.
constexpr size_t kBufferSize = 64 * 1024;

} // namespace

McMultiPartReader::McMultiPartReader(Source source)
    : mSource(std::move(source))
    , mBuffer(kBufferSize)
{
}

McMultiPartReader::~McMultiPartReader()
{
    skipToEnd();
}

void McMultiPartReader::fail()
{
    mState = State::Failed;
    mBegin = mEnd = 0;
}

bool McMultiPartReader::fill()
{
    if (mSourceEnded || mState == State::Failed)
        return false;
    if (mBegin > 0) {
        std::memmove(mBuffer.data(), mBuffer.data() + mBegin, mEnd - mBegin);
        mEnd -= mBegin;
        mBegin = 0;
    }
    if (mEnd == mBuffer.size())
        return false; // a line longer than the buffer: the caller decides
    long long const n =
        mSource ? mSource(mBuffer.data() + mEnd, static_cast<long long>(mBuffer.size() - mEnd)) : 0;
    if (n < 0) {
        fail();
        return false;
    }
    if (n == 0) {
        mSourceEnded = true;
        return false;
    }
    mEnd += static_cast<size_t>(std::min<long long>(n, static_cast<long long>(mBuffer.size() - mEnd)));
    return true;
}

bool McMultiPartReader::takeLine(std::string& line)
{
    char const* begin = mBuffer.data() + mBegin;
    char const* end = mBuffer.data() + mEnd;
    char const* newline = std::find(begin, end, '\n');
    if (newline == end)
        return false;
    char const* lineEnd = newline > begin && newline[-1] == '\r' ? newline - 1 : newline;
    line.assign(begin, lineEnd);
    mBegin = static_cast<size_t>(newline + 1 - mBuffer.data());
    return true;
}

long long McMultiPartReader::read(char* buffer, long long size)
{
    std::string line;
    while (size > 0) {
        switch (mState) {
        case State::End:
            return 0;
        case State::Failed:
            return -1;
        case State::Preamble:
            if (takeLine(line)) {
                if (line.size() > 2 && line.compare(0, 2, "--") == 0) {
                    size_t last = line.find_last_not_of(" \t");
                    mDelimiter = "\r\n" + line.substr(0, last + 1);
                    mState = State::Headers;
                }
                continue;
            }
            if (mEnd - mBegin == mBuffer.size())
                mBegin = mEnd; // a preamble line longer than any delimiter line: not one
            if (!fill()) {
                fail(); // no delimiter at all
                return -1;
            }
            continue;
        case State::Headers:
            if (takeLine(line)) {
                if (line.empty()) {
                    ++mParts;
                    mState = State::Body;
                }
                continue;
            }
            if (!fill()) {
                fail(); // cut inside the part headers, or a header line beyond any limit
                return -1;
            }
            continue;
        case State::AfterDelimiter:
            if (mEnd - mBegin >= 2 && std::memcmp(mBuffer.data() + mBegin, "--", 2) == 0) {
                mState = State::End;
                mBegin += 2;
                continue;
            }
            if (mEnd - mBegin >= 2 && takeLine(line)) { // transport padding behind the delimiter
                mState = State::Headers;
                continue;
            }
            if (!fill()) {
                fail();
                return -1;
            }
            continue;
        case State::Body: {
            char const* begin = mBuffer.data() + mBegin;
            char const* end = mBuffer.data() + mEnd;
            char const* found = std::search(begin, end, mDelimiter.begin(), mDelimiter.end());
            size_t available = static_cast<size_t>(found - begin);
            if (found == end) {
                // The tail may be the beginning of a delimiter: keep it back.
                size_t const keep = std::min(mEnd - mBegin, mDelimiter.size() - 1);
                available = mEnd - mBegin - keep;
            }
            if (available > 0) {
                size_t const n = std::min(available, static_cast<size_t>(size));
                std::memcpy(buffer, begin, n);
                mBegin += n;
                return static_cast<long long>(n);
            }
            if (found != end) {
                mBegin += mDelimiter.size();
                mState = State::AfterDelimiter;
                continue;
            }
            if (!fill()) {
                fail(); // cut before the closing delimiter
                return -1;
            }
            continue;
        }
        }
    }
    return 0;
}

void McMultiPartReader::skipToEnd()
{
    char scratch[4096];
    while (read(scratch, sizeof scratch) > 0) {
    }
    // The epilogue, so that the source has been read to its end.
    while (mState == State::End && !mSourceEnded) {
        mBegin = mEnd;
        if (!fill())
            break;
    }
}
