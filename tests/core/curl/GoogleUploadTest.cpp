// Google Cloud Storage uploads against gcs_peer.py and google_token_peer.py
// (run_with_peers.py --with google). The storage peer follows the XML API's documented resumable
// protocol and keeps what it stores, so every upload is read back by a plain GET and compared
// with the bytes written; the MD5 the peer reports is its own hashlib's. Faults are queued on
// the peer; the session's retries run without waiting.
#include "PeerBody.h"
#include "support/PeerRequests.h"
#include "support/TestSupport.h"

#include <mdxlib/cloudauth/LmGoogleAuth.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlUploadSessionGS.h>
#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QJsonArray>

#include <tuple>

namespace {

using mdxtest::peerJson;
using mdxtest::peerPort;
using mdxtest::peerRequest;
using Strings = std::vector<std::string>;

constexpr size_t kChunk = 512 * 1024; // a multiple of the protocol's 256 KiB
char const kToken[] = "ya29.storage-test";

std::string body(size_t size, uint64_t offset = 0)
{
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>(mdxpeer::byteAt(offset + i));
    return data;
}

std::string md5Hex(std::string const& data)
{
    return QCryptographicHash::hash(QByteArray::fromStdString(data), QCryptographicHash::Md5)
        .toHex()
        .toStdString();
}

class GoogleUpload : public ::testing::Test
{
protected:
    void SetUp() override
    {
        port = peerPort("MDX_GCS_PORT");
        if (port.empty())
            GTEST_SKIP() << "gcs_peer.py not running (run_with_peers.py --with google)";
        peer = "http://127.0.0.1:" + port;
        vars.unset("MDX_CONFIG").set("MDX_GCS_UPLOAD_ENDPOINT", peer + "/");
        mode(std::string("token=") + kToken);
    }
    void mode(std::string const& query) { peerRequest("POST", peer + "/__mode?" + query); }
    void fail(std::string const& kind, int count = 1)
    {
        peerRequest("POST", peer + "/__fail?kind=" + kind + "&count=" + std::to_string(count));
    }
    QJsonObject stats() { return peerJson(peer + "/__stats"); }
    std::unique_ptr<LmCurlUploadSessionGS> session(std::string const& key, char const* auth = nullptr)
    {
        std::string const url = "gs://bucket/" + key;
        auto raw = std::make_unique<LmCurlRawClient>(std::make_shared<LmCurlHandleFactory>(1), nullptr);
        auto result = std::make_unique<LmCurlUploadSessionGS>(
            std::move(raw), auth ? auth : std::string("Authorization: Bearer ") + kToken,
            LmCurlHelper::convertGoogleUrl(url, true, true), url, "");
        result->setRetrySleeper([this](long long) { ++sleeps; });
        return result;
    }
    // Chunks of kChunk and a last one of lastSize; what went up.
    std::string write(LmCurlUploadSessionGS& s, int chunks, size_t lastSize)
    {
        std::string all;
        for (int i = 0; i <= chunks; ++i) {
            std::string const part = body(i < chunks ? kChunk : lastSize, all.size());
            all += part;
            s.uploadChunk(part, i == chunks);
        }
        return all;
    }
    std::string stored(std::string const& key)
    {
        return peerRequest("GET", peer + "/bucket/" + key).getPayload();
    }
    // "kind range" of each request to the peer, auth marked by "+".
    Strings requests()
    {
        Strings out;
        for (QJsonValue const& r : stats()["requests"].toArray()) {
            QJsonObject const o = r.toObject();
            out.push_back(o["verb"].toString().toStdString() + " " + o["kind"].toString().toStdString() +
                          (o["auth"].toBool() ? "+" : "") +
                          (o["range"].isString() ? " " + o["range"].toString().toStdString() : ""));
        }
        return out;
    }

    std::string port;
    std::string peer;
    int sleeps = 0;
    mdxtest::ScopedEnv vars;
    mdxtest::LogCapture log;
};

TEST_F(GoogleUpload, ChunksCarryTheirRangesAndNoToken)
{
    // Full chunks, the size of the last, the requests.
    std::vector<std::tuple<int, size_t, Strings>> const cases{
        {0, 1000, {"PUT simple+"}},
        {2,
         1000,
         {"POST start+", "PUT session bytes 0-524287/*", "PUT session bytes 524288-1048575/*",
          "PUT session bytes 1048576-1049575/1049576"}},
        {1, 0, {"POST start+", "PUT session bytes 0-524287/*", "PUT session bytes */524288"}},
    };
    for (auto const& [chunks, last, expected] : cases) {
        mode(std::string("token=") + kToken);
        auto s = session("dir/obj-" + std::to_string(chunks));
        std::string const all = write(*s, chunks, last);
        EXPECT_TRUE(s->done());
        EXPECT_TRUE(s->sessionUrl().empty());
        EXPECT_EQ(requests(), expected);
        EXPECT_EQ(stored("dir/obj-" + std::to_string(chunks)), all);
        EXPECT_EQ(stats()["chunk_auth"].toInt(), 0);
    }
}

TEST_F(GoogleUpload, RecoverableFaultsEndInTheWholeObject)
{
    // The fault and how often, the peer's hash mode, the retry waits, a warning logged.
    std::tuple<char const*, int, char const*, int, char const*> const cases[] = {
        {"short", 1, "combined", 0, "Short write to Google Cloud Storage"},
        {"norange", 1, "combined", 0, "Short write"}, // first chunk: byte 0 is next, resent at once
        // The same answer twice makes no progress: that costs a try, not an endless loop.
        {"norange", 2, "combined", 1, "Short write"},
        {"503", 2, "split", 2, ""},
        {"drop", 1, "twice", 1, ""},
    };
    for (auto const& [fault, count, hashMode, waits, warning] : cases) {
        SCOPED_TRACE(fault);
        mode(std::string("token=") + kToken + "&hash=" + hashMode);
        mdxtest::LogCapture seen;
        sleeps = 0;
        auto s = session("f");
        fail(fault, count); // on the first chunk (503: on the session start)
        std::string const all = write(*s, 2, 1000);
        EXPECT_TRUE(s->done());
        EXPECT_EQ(stored("f"), all);
        EXPECT_EQ(sleeps, waits);
        if (*warning) {
            EXPECT_GE(seen.count(McLogFile::LevelWarning, warning), 1);
        }
    }
}

TEST_F(GoogleUpload, ALostAnswerToTheLastChunkIsFoundByTheStatusQuery)
{
    auto s = session("lost");
    s->uploadChunk(body(kChunk), false);
    fail("drop");
    s->uploadChunk(body(1000, kChunk), true);
    EXPECT_TRUE(s->done());
    EXPECT_EQ(log.count(McLogFile::LevelWarning, "server indicates that the file upload is finished"), 1);
    EXPECT_EQ(requests().back(), "PUT session bytes */*");
}

TEST_F(GoogleUpload, FailuresEndTheStreamAndOnlyAnOpenSessionIsDeleted)
{
    // The fault on the second chunk and how often, the exception's text, the session DELETEs.
    std::tuple<char const*, int, char const*, int> const cases[] = {
        {"404", 1, "unrecoverable error. Code: NoSuchUpload", 0},
        {"badmd5", 1, "MD5 mismatch, cannot validate", 0},
        {"norange", 1, "Server response contains invalid range header.", 1},
        {"503", 10, "Retry policy exhausted", 1},
    };
    for (auto const& [fault, count, expected, deletes] : cases) {
        SCOPED_TRACE(fault);
        mode(std::string("token=") + kToken);
        std::string what;
        {
            auto s = session("bad");
            s->uploadChunk(body(kChunk), false);
            fail(fault, count);
            try {
                s->uploadChunk(body(kChunk, kChunk), false);
                s->uploadChunk(body(1000, 2 * kChunk), true);
            } catch (std::exception const& e) {
                what = e.what();
            }
            EXPECT_FALSE(s->done());
        }
        EXPECT_NE(what.find(expected), std::string::npos) << what;
        EXPECT_EQ(stats()["deleted"].toInt(), deletes);
        EXPECT_EQ(stats()["objects"].toObject().contains("bad"), false);
    }
}

TEST_F(GoogleUpload, ExpectedHashAndSizeAreCheckedBeforeTheLastChunk)
{
    std::string const all = body(kChunk + 1000);
    // The expected hash and size, the exception's text (empty: the upload succeeds).
    std::vector<std::tuple<std::string, long long, char const*>> const cases{
        {md5Hex(all), static_cast<long long>(all.size()), ""},
        {md5Hex("other"), 0, "Payload has incorrect hash sum"},
        {"", static_cast<long long>(all.size()) + 1, "Payload has incorrect size"},
    };
    for (auto const& [hash, size, expected] : cases) {
        mode(std::string("token=") + kToken);
        std::string what;
        {
            auto s = session("checked");
            s->setExpectedHashAndSize(hash.c_str(), size);
            try {
                s->uploadChunk(std::string_view(all).substr(0, kChunk), false);
                s->uploadChunk(std::string_view(all).substr(kChunk), true);
            } catch (std::exception const& e) {
                what = e.what();
            }
        }
        EXPECT_EQ(what, expected);
        Strings const seen = requests();
        EXPECT_EQ(seen.size(), 3u); // start, first chunk, then the last chunk or the DELETE
        EXPECT_EQ(seen.back(), *expected ? "DELETE session+" : "PUT session bytes 524288-525287/525288");
    }
}

TEST_F(GoogleUpload, AWrongTokenIsRefusedAtTheStart)
{
    auto s = session("denied", "Authorization: Bearer wrong");
    EXPECT_THROW(s->uploadChunk(body(kChunk), false), UnrecoverableResponseError);
}

// The client's stream takes its line from the helper's credentials, here the metadata server's token.
TEST_F(GoogleUpload, TheClientStreamUsesTheHelpersToken)
{
    std::string const tokenPort = peerPort("MDX_GOOGLE_TOKEN_PORT");
    ASSERT_FALSE(tokenPort.empty());
    vars.unset("GOOGLE_APPLICATION_CREDENTIALS").set("MDX_GCE_METADATA_HOST", "127.0.0.1:" + tokenPort);
    LmGoogleAuth::resetMetadataDecision();
    QByteArray const line =
        LmCurlClient::instance()->helper()->googleAuth().authorizationHeader(*LmCurlClient::instance());
    ASSERT_TRUE(line.startsWith("Authorization: Bearer ")) << line.toStdString();
    mode("token=" + line.mid(22).toStdString());
    std::string const all = body(LmCurlUploadStreambuf::kBufferSize + 5000);
    LmCurlUploadStream stream = LmCurlClient::instance()->write("gs://bucket/via/stream");
    stream.write(all.data(), static_cast<std::streamsize>(all.size()));
    stream.close();
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(stored("via/stream"), all);
    EXPECT_EQ(requests().front(), "POST start+");
}

} // namespace
