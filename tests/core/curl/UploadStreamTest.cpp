// The upload stream's buffer rules, offline, over a session that records what it is given: how
// writes are cut into chunks, when the final chunk goes, and what a failure or a cancel stops.
#include "support/TestSupport.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlUploadStream.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr long long kFull = LmCurlUploadStreambuf::kBufferSize;

struct Record
{
    std::vector<std::pair<size_t, bool>> chunks; // size, last
    bool cancelled = false;
    bool destroyed = false;
    std::string bytes;
};

class RecordingSession : public LmCurlUploadSessionBase
{
public:
    RecordingSession(Record& record, int failAt)
        : mRecord(record)
        , mFailAt(failAt)
    {
    }
    ~RecordingSession() override { mRecord.destroyed = true; }
    void uploadChunk(std::string_view data, bool last) override
    {
        if (static_cast<int>(mRecord.chunks.size()) == mFailAt)
            throw std::runtime_error("injected chunk failure");
        mRecord.chunks.emplace_back(data.size(), last);
        mRecord.bytes.append(data);
        mDone = last;
    }
    void cancel() override { mRecord.cancelled = true; }
    bool done() const override { return mDone; }
    void setExpectedHashAndSize(char const*, long long) override {}
    std::string const& loggingUrl() const override { return mUrl; }

private:
    Record& mRecord;
    int mFailAt;
    bool mDone = false;
    std::string mUrl = "test://recording";
};

LmCurlUploadStream makeStream(Record& record, int failAt = -1)
{
    return LmCurlUploadStream(
        std::make_unique<LmCurlUploadStreambuf>(std::make_unique<RecordingSession>(record, failAt)));
}

std::string pattern(long long size)
{
    std::string text(static_cast<size_t>(size), '\0');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>(i * 7 + i / 251);
    return text;
}

using Chunks = std::vector<std::pair<size_t, bool>>;

struct CutCase
{
    char const* name;
    std::vector<long long> writes; // sizes of the successive write() calls
    Chunks expected;
};

TEST(UploadStream, WritesAreCutIntoWholeBuffersAndOneLastChunk)
{
    std::vector<CutCase> const cases{
        {"nothing: one empty last chunk", {}, {{0, true}}},
        {"one byte short of the buffer: single upload", {kFull - 1}, {{kFull - 1, true}}},
        {"exactly one buffer: a full chunk, then an empty last one", {kFull}, {{kFull, false}, {0, true}}},
        {"one buffer and a byte in small writes", {kFull / 2, kFull / 2, 1}, {{kFull, false}, {1, true}}},
        {"two and a half buffers in one write",
         {kFull * 5 / 2},
         {{kFull, false}, {kFull, false}, {kFull / 2, true}}},
        {"1 MiB writes", std::vector<long long>(9, 1 << 20), {{kFull, false}, {1 << 20, true}}},
    };
    for (CutCase const& c : cases) {
        SCOPED_TRACE(c.name);
        Record record;
        std::string written;
        {
            LmCurlUploadStream stream = makeStream(record);
            for (long long size : c.writes) {
                std::string const data = pattern(size);
                stream.write(data.data(), static_cast<std::streamsize>(data.size()));
                written += data;
            }
            stream.close();
            EXPECT_TRUE(stream.good());
            EXPECT_FALSE(stream.isOpen());
            stream.close(); // a second close finds nothing to do and stays good
            EXPECT_TRUE(stream.good());
        }
        EXPECT_EQ(record.chunks, c.expected);
        EXPECT_EQ(record.bytes, written);
        EXPECT_TRUE(record.destroyed);
    }
}

TEST(UploadStream, FlushNeverSendsAPartialBuffer)
{
    Record record;
    LmCurlUploadStream stream = makeStream(record);
    stream << std::string(100, 'x') << std::flush;
    stream.put('y').flush();
    EXPECT_TRUE(stream.good());
    EXPECT_TRUE(record.chunks.empty());
    stream.close();
    EXPECT_EQ(record.chunks, (Chunks{{101, true}}));
}

TEST(UploadStream, AfterAFailedChunkNothingMoreIsSent)
{
    Record record;
    LmCurlUploadStream stream = makeStream(record, 1); // the second chunk fails
    std::string const data = pattern(kFull * 3);
    stream.write(data.data(), static_cast<std::streamsize>(data.size()));
    EXPECT_TRUE(stream.bad());
    EXPECT_TRUE(stream.isOpen()); // failed, not finished
    auto* buffer = stream.streambuf();
    EXPECT_EQ(buffer->sputn("more", 4), -1);
    EXPECT_FALSE(buffer->close());
    EXPECT_EQ(record.chunks, (Chunks{{kFull, false}}));
}

TEST(UploadStream, CancelThenDestructionSendsNoLastChunk)
{
    Record record;
    {
        LmCurlUploadStream stream = makeStream(record);
        stream << "partial object";
        stream.cancel();
        EXPECT_TRUE(stream.bad());
    }
    EXPECT_TRUE(record.cancelled);
    EXPECT_TRUE(record.chunks.empty());
    EXPECT_TRUE(record.destroyed);
}

// A writer that unwinds on an exception without cancelling commits what it wrote: the
// destructor cannot tell an abandoned stream from a finished one. Callers cancel, or state the
// size, which the sessions check before the last chunk.
TEST(UploadStream, AnAbandonedStreamCommitsWhatWasWritten)
{
    Record record;
    try {
        LmCurlUploadStream stream = makeStream(record);
        stream << "first half";
        throw std::runtime_error("writer failed");
    } catch (std::runtime_error const&) {
    }
    EXPECT_EQ(record.chunks, (Chunks{{10, true}}));
    EXPECT_EQ(record.bytes, "first half");
}

// A stream without a buffer (moved from, or a session that could not be made) fails every call.
TEST(UploadStream, MovedStreamKeepsItsUploadAndTheSourceFails)
{
    EXPECT_TRUE(LmCurlUploadStream(nullptr).bad());
    Record record;
    {
        LmCurlUploadStream first = makeStream(record);
        first << "abc";
        LmCurlUploadStream second(std::move(first));
        first << "lost"; // NOLINT: a moved-from stream is still usable
        first.setExpectedHashAndSize("", 0);
        first.close();
        EXPECT_TRUE(first.bad());
        EXPECT_FALSE(first.isOpen());
        second << "def";
        LmCurlUploadStream third = makeStream(record);
        third = std::move(second); // third's own (empty) upload completes first
        third << "g";
    }
    EXPECT_EQ(record.chunks, (Chunks{{0, true}, {7, true}}));
    EXPECT_EQ(record.bytes, "abcdefg");
}

TEST(UploadStream, ClientGivesGoogleUrlsASession)
{
    // Nobody listens on the upload endpoint nor on the metadata host, and there is no key: the
    // session is made with an empty line all the same, and the close reports the failure.
    mdxtest::ScopedEnv vars;
    vars.set("MDX_GCS_UPLOAD_ENDPOINT", "http://127.0.0.1:9/").set("MDX_GCE_METADATA_HOST", "127.0.0.1:9");
    vars.unset("GOOGLE_APPLICATION_CREDENTIALS").unset("MDX_CONFIG");
    LmCurlClient::instance()->setRetrySleeper([](long long) {});
    LmCurlUploadStream stream = LmCurlClient::instance()->write("gs://bucket/key");
    EXPECT_TRUE(stream.isOpen());
    stream.write("0123456789", 10);
    stream.close();
    EXPECT_FALSE(stream.good());
    LmCurlClient::instance()->setRetrySleeper(nullptr);
}

} // namespace
