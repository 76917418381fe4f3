// Uploads against real peers (run_with_peers.py --with aws --with s3 --with azure): what is
// stored is read back from s3rver and azurite; what is signed and sent, the parts named in the
// completion and the aborts are seen by sigv4_peer.py, which checks every signature and
// Content-MD5 with botocore and hashlib; retries and broken answers come from fault_peer.py.
// The MD5 of what was written is computed here by Qt, independently of the peers' hashlib.
#include "PeerBody.h"
#include "support/PeerRequests.h"
#include "support/TestSupport.h"

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/cloudauth/LmAzureAuth.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlUploadSessionAzure.h>
#include <mdxlib/curl/LmCurlUploadSessionS3.h>

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QJsonArray>
#include <QRegularExpression>

#include <functional>
#include <tuple>

namespace {

using mdxtest::peerJson;
using mdxtest::peerPort;
using mdxtest::peerRequest;
using Strings = std::vector<std::string>;

constexpr long long kFull = LmCurlUploadStreambuf::kBufferSize;

std::string body(long long size, uint64_t offset = 0)
{
    std::string data(static_cast<size_t>(size), '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(mdxpeer::byteAt(offset + i));
    return data;
}

std::string md5Hex(std::string const& data)
{
    return QCryptographicHash::hash(QByteArray::fromStdString(data), QCryptographicHash::Md5)
        .toHex()
        .toStdString();
}

// Writes data through LmCurlClient::write in 1 MiB writes; true when the stream stays good.
bool upload(std::string const& url, std::string const& data, char const* hash = "", long long size = 0,
            std::function<void(LmCurlUploadStream&)> const& beforeClose = nullptr)
{
    LmCurlUploadStream stream = LmCurlClient::instance()->write(url);
    stream.setExpectedHashAndSize(hash, size);
    for (size_t at = 0; at < data.size(); at += 1 << 20)
        stream.write(data.data() + at,
                     static_cast<std::streamsize>(std::min<size_t>(1 << 20, data.size() - at)));
    if (beforeClose)
        beforeClose(stream);
    stream.close();
    return stream.good();
}

std::shared_ptr<LmAwsAuth::Credentials> credentials(QByteArray key, QByteArray secret)
{
    auto result = std::make_shared<LmAwsAuth::Credentials>(LmAwsAuth::Credentials{
        key, secret, "us-east-1", "", QDateTime(), QDate(), QByteArray(), QByteArray()});
    LmAwsAuth::computeSecreteSigV4(result, QDateTime::currentDateTimeUtc().date());
    return result;
}

class Upload : public ::testing::Test
{
protected:
    void SetUp() override
    {
        LmCurlClient::instance()->setRetrySleeper([this](long long) { ++sleeps; });
        vars.unset("MDX_CONFIG");
    }
    void TearDown() override
    {
        LmCurlClient::instance()->setRetrySleeper(nullptr);
        LmCurlClient::instance()->helper()->awsAuth()->setCredentials(nullptr);
    }
    // S3 requests go to the peer on port, signed with key and secret.
    bool useS3(char const* portVariable, QByteArray key, QByteArray secret)
    {
        std::string const port = peerPort(portVariable);
        if (port.empty())
            return false;
        vars.set("MDX_S3_DOMAIN", "localhost:" + port);
        LmCurlClient::instance()->helper()->awsAuth()->setCredentials(credentials(key, secret));
        return true;
    }

    int sleeps = 0;
    mdxtest::ScopedEnv vars;
    mdxtest::LogCapture log;
};

// ============================================================ S3, signature peer

class S3Signed : public Upload
{
protected:
    void SetUp() override
    {
        Upload::SetUp();
        if (!useS3("MDX_SIGV4_PORT", "AKIDSIGV4PLAIN", "sigv4/plain/SECRETKEY"))
            GTEST_SKIP() << "no signature peer (python3-botocore)";
        control = "https://127.0.0.1:" + peerPort("MDX_SIGV4_PORT");
        peerRequest("POST", control + "/__reset");
    }
    QJsonObject stats() { return peerJson(control + "/__stats"); }
    // "VERB query" of every request the peer saw, the upload ID cut off.
    Strings requests()
    {
        Strings result;
        for (QJsonValue const& r : stats()["requests"].toArray()) {
            QString query = r["query"].toString();
            query.replace(QRegularExpression("uploadId=[^&]*"), "uploadId");
            result.push_back((r["method"].toString() + " " + query).toStdString());
        }
        return result;
    }
    void failNext(int count, int status, char const* verb = "")
    {
        peerRequest("POST", control + "/__fail?count=" + std::to_string(count) +
                                "&status=" + std::to_string(status) + "&on=" + verb);
    }
    void expectNothingLeft(char const* name)
    {
        QJsonObject const s = stats();
        EXPECT_TRUE(s["open_uploads"].toArray().isEmpty());
        EXPECT_FALSE(s["objects"].toObject().contains(name));
    }

    std::string control;
};

TEST_F(S3Signed, ObjectsGoUpAsOnePutOrAsSignedPartsWithTheirDigests)
{
    Strings const two{"POST uploads=", "PUT partNumber=1&uploadId", "PUT partNumber=2&uploadId",
                      "POST uploadId"};
    // Size, the requests, the sizes of the parts named in the completion.
    std::vector<std::tuple<long long, Strings, std::vector<long long>>> const cases{
        {1000, {"PUT "}, {}},
        {0, {"PUT "}, {}},
        {kFull + 1000, two, {kFull, 1000}},
        {kFull, two, {kFull, 0}}}; // the empty last part goes all the same
    for (auto const& [size, expected, parts] : cases) {
        SCOPED_TRACE(size);
        peerRequest("POST", control + "/__reset");
        std::string const data = body(size, 77);
        ASSERT_TRUE(upload("s3://mybucket/dir/object.dcm", data));
        EXPECT_EQ(requests(), expected);
        QJsonObject const s = stats();
        QJsonObject const stored = s["objects"].toObject()["mybucket/dir/object.dcm"].toObject();
        EXPECT_EQ(stored["md5"].toString().toStdString(), md5Hex(data));
        EXPECT_EQ(stored["size"].toInt(), size);
        QJsonArray const all = s["requests"].toArray();
        for (QJsonValue const& r : all) {
            EXPECT_EQ(r["status"].toInt() / 100, 2);
            if (r["method"] == "PUT") {
                EXPECT_TRUE(r["signed_headers"].toArray().contains("content-md5"));
            }
        }
        if (parts.empty())
            continue;
        QJsonArray const named = all.last()["parts"].toArray();
        ASSERT_EQ(named.size(), static_cast<int>(parts.size()));
        long long offset = 0;
        for (int i = 0; i < named.size(); ++i) { // unquoted ETags that the peer recognised
            EXPECT_EQ(named[i].toArray()[0].toInt(), i + 1);
            EXPECT_EQ(named[i].toArray()[1].toString().toStdString(), md5Hex(data.substr(offset, parts[i])));
            offset += parts[i];
        }
        EXPECT_TRUE(s["open_uploads"].toArray().isEmpty());
    }
}

TEST_F(S3Signed, AFailedPartAbortsTheUploadAndOnly403And400EndAtOnce)
{
    // The status that the second part gets, how often, the tries of that part, whether it is stored.
    for (auto const& [status, count, partTries, stored] :
         {std::tuple{403, 1, 1, false}, std::tuple{500, 5, 5, false}, std::tuple{503, 4, 5, true}}) {
        SCOPED_TRACE(status);
        peerRequest("POST", control + "/__reset");
        std::string const data = body(2 * kFull);
        {
            auto session = LmCurlClient::instance()->createResumableUploadSession("s3://mybucket/f.bin", "");
            session->uploadChunk(std::string_view(data).substr(0, kFull), false);
            failNext(count, status, "PUT");
            if (stored) {
                session->uploadChunk(std::string_view(data).substr(kFull), true);
                EXPECT_TRUE(session->done());
            } else {
                EXPECT_THROW(session->uploadChunk(std::string_view(data).substr(kFull), true),
                             std::runtime_error);
            }
        }
        Strings const seen = requests();
        EXPECT_EQ(std::count(seen.begin(), seen.end(), "PUT partNumber=2&uploadId"), partTries);
        if (stored) {
            EXPECT_EQ(seen.back(), "POST uploadId");
        } else {
            EXPECT_EQ(seen.back(), "DELETE uploadId");
            EXPECT_TRUE(stats()["requests"].toArray().last()["aborted"].toBool());
            expectNothingLeft("mybucket/f.bin");
        }
    }
}

TEST_F(S3Signed, TheExpectedSizeAndHashAreCheckedBeforeTheLastChunkGoes)
{
    std::string const small = body(1000), large = body(kFull + 10);
    std::string const hash = md5Hex(small);
    std::string const upper = QByteArray::fromStdString(hash).toUpper().toStdString();
    Strings const multipart{"POST uploads=", "PUT partNumber=1&uploadId", "DELETE uploadId"};
    // What is wrong, the data, the expected hash and size, the requests.
    std::tuple<char const*, std::string const*, std::string, long long, Strings> const cases[] = {
        {"right hash", &small, hash, 1000, {"PUT "}},
        {"hash in upper case", &small, upper, 0, {}},
        {"wrong size, single", &small, "", 999, {}},
        {"wrong size, multipart", &large, "", kFull + 11, multipart},
    };
    for (auto const& [name, data, expectedHash, size, expected] : cases) {
        SCOPED_TRACE(name);
        peerRequest("POST", control + "/__reset");
        EXPECT_EQ(upload("s3://mybucket/checked", *data, expectedHash.c_str(), size),
                  expected == Strings{"PUT "});
        EXPECT_EQ(requests(), expected);
        if (expected != Strings{"PUT "})
            expectNothingLeft("mybucket/checked");
    }
    EXPECT_EQ(log.count(2, "Payload has incorrect hash sum"), 1);
    EXPECT_EQ(log.count(2, "Payload has incorrect size"), 2);
}

// ============================================================== S3 and Azure, fault peer

class Faults : public Upload
{
protected:
    void SetUp() override
    {
        Upload::SetUp();
        if (!useS3("MDX_FAULT_TLS_PORT", "AKIDFAULT", "fault/secret"))
            GTEST_SKIP() << "no fault peer";
        base = "https://127.0.0.1:" + peerPort("MDX_FAULT_TLS_PORT");
    }
    QJsonObject stats(std::string const& id) { return peerJson(base + "/__stats?id=" + id); }
    int count(std::string const& id, char const* method, char const* inQuery)
    {
        QJsonObject const s = stats(id);
        int n = 0;
        for (int i = 0; i < s["methods"].toArray().size(); ++i)
            n +=
                s["methods"].toArray()[i] == method && s["queries"].toArray()[i].toString().contains(inQuery);
        return n;
    }
    std::string base;
};

TEST_F(Faults, S3RetriesBusyAndBrokenPartsAndNeverRetriesAnErrorDocument)
{
    // The peer's id and options, success, then the part PUTs, completions and aborts it saw. A 503
    // that passes is S3Signed's.
    std::tuple<char const*, char const*, bool, int, int, int> const cases[] = {
        {"s3-reset", "reset_after=65536&times=1&on=PUT:partNumber", true, 3, 1, 0},
        {"s3-error200", "error200=1&on=POST:uploadId", false, 2, 1, 1},
    };
    std::string const data = body(kFull + 100);
    for (auto const& [id, options, ok, partPuts, completes, aborts] : cases) {
        SCOPED_TRACE(id);
        EXPECT_EQ(upload("s3://bucket/q/id=" + std::string(id) + "&" + options + "/key", data), ok);
        EXPECT_EQ(count(id, "PUT", "partNumber"), partPuts);
        EXPECT_EQ(count(id, "POST", "uploadId"), completes);
        EXPECT_EQ(count(id, "DELETE", "uploadId"), aborts);
    }
    EXPECT_EQ(log.count(2, "Unexpected response from CompleteMultiPartUpload"), 1);
}

TEST_F(Faults, AzureRetriesOnly500And503)
{
    // The peer's id and options, success, the block PUTs it saw.
    std::tuple<char const*, char const*, bool, int> const cases[] = {
        {"az-503", "status=503&times=2&on=PUT:blockid=", true, 4},
        {"az-500-exhausted", "status=500&on=PUT:blockid=", false, 5},
        {"az-404", "status=404&on=PUT:blockid=", false, 1},
        {"az-reset", "reset_after=65536&times=1&on=PUT:blockid=", true, 3},
    };
    std::string const data = body(kFull + 100);
    for (auto const& [id, options, ok, blockPuts] : cases) {
        SCOPED_TRACE(id);
        std::string const url = base + "/q/id=" + id + "&" + options + "/cont/blob";
        {
            auto raw = std::make_unique<LmCurlRawClient>(std::make_shared<LmCurlHandleFactory>(1), nullptr);
            auto session = std::make_unique<LmCurlUploadSessionAzure>(std::move(raw), "", url);
            session->setRetrySleeper([](long long) {});
            LmCurlUploadStream stream(std::make_unique<LmCurlUploadStreambuf>(std::move(session)));
            stream.write(data.data(), static_cast<std::streamsize>(data.size()));
            stream.close();
            EXPECT_EQ(stream.good(), ok);
        }
        // After a failed block nothing more goes up; the clean-up reads the list and deletes.
        EXPECT_EQ(count(id, "PUT", "blockid="), blockPuts);
        EXPECT_EQ(count(id, "PUT", "comp=blocklist"), ok ? 1 : 0);
        EXPECT_EQ(count(id, "DELETE", ""), ok ? 0 : 1);
    }
}

// A blob still at this session's ETag whose committed list is not empty gets its blocks back. The
// service refuses committed blocks named as uncommitted, so they go back as <Committed>.
TEST_F(Faults, AzureRestoresCommittedBlocksAsCommitted)
{
    std::string const id = "az-restore";
    std::string const url = base + "/q/id=" + id + "&blocks=QUJD,REVGRw==/cont/blob";
    {
        auto raw = std::make_unique<LmCurlRawClient>(std::make_shared<LmCurlHandleFactory>(1), nullptr);
        LmCurlUploadSessionAzure session(std::move(raw), "", url);
        std::string const data = body(1000);
        session.uploadChunk(data, false);
        session.cancel();
        EXPECT_TRUE(session.etag().empty());
    }
    QJsonObject const s = stats(id);
    QJsonArray const methods = s["methods"].toArray(), queries = s["queries"].toArray();
    ASSERT_EQ(methods.size(), 4);
    EXPECT_EQ(queries[2].toString(), "comp=blocklist&blocklisttype=committed");
    EXPECT_EQ(queries[3].toString(), "comp=blocklist");
    EXPECT_EQ(s["bodies"].toArray()[3].toString().toStdString(),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><BlockList>"
              "<Committed>QUJD</Committed><Committed>REVGRw==</Committed>"
              "</BlockList>");
    EXPECT_EQ(count(id, "DELETE", ""), 0);
}

// ================================================================ stored content

TEST_F(Upload, S3rverStoresWhatWasWritten)
{
    if (!useS3("MDX_S3RVER_PORT", "S3RVER", "S3RVER"))
        GTEST_SKIP() << "s3rver not installed (scripts/install-npm-peers.sh)";
    for (long long size : {1000LL, 2 * kFull + 12345}) {
        std::string const data = body(size, 3);
        std::string const key = "stored-" + std::to_string(size);
        ASSERT_TRUE(upload("s3://mybucket/" + key, data));
        LmCurlResponse const back = peerRequest(
            "GET", "https://mybucket.s3.us-east-1.localhost:" + peerPort("MDX_S3RVER_PORT") + "/" + key);
        EXPECT_EQ(back.getResponseCode(), 200);
        EXPECT_EQ(md5Hex(back.getPayload()), md5Hex(data));
    }
}

class Azure : public Upload
{
protected:
    void SetUp() override
    {
        Upload::SetUp();
        std::string const port = peerPort("MDX_AZURITE_PORT"), tokens = peerPort("MDX_AZURE_TOKEN_PORT");
        if (port.empty() || tokens.empty())
            GTEST_SKIP() << "azurite not installed (scripts/install-npm-peers.sh)";
        vars.set("MDX_AZURE_BLOB_SUFFIX", ".blob.localhost:" + port)
            .set("MDX_AZURE_METADATA_ADDRESS", "127.0.0.1:" + tokens)
            .unset("AZURE_APPLICATION_CREDENTIALS");
        LmAzureAuth::resetMetadataDecision();
        peerRequest("POST", "http://127.0.0.1:" + tokens + "/__mode?name=normal");
        token =
            LmCurlClient::instance()->helper()->azureAuth().authorizationHeader(*LmCurlClient::instance());
        ASSERT_FALSE(token.isEmpty());
        blobs = "https://myaccount.blob.localhost:" + port + "/cont/";
        peerRequest("PUT", blobs.substr(0, blobs.size() - 1) + "?restype=container", headers());
    }
    Strings headers() const { return {token.toStdString(), "x-ms-version: 2020-04-08"}; }
    LmCurlResponse get(std::string const& name, std::string const& query = "")
    {
        return peerRequest("GET", blobs + name + query, headers());
    }

    QByteArray token;
    std::string blobs;
};

TEST_F(Azure, BlobsHoldWhatWasWrittenInBlocksOfOneChunk)
{
    // Size and committed blocks; a single Put Blob has none to list.
    for (auto const& [size, committed] :
         std::vector<std::pair<long long, int>>{{0, 0}, {1000, 0}, {kFull, 1}, {2 * kFull + 5, 3}}) {
        SCOPED_TRACE(size);
        std::string const name = "blob-" + std::to_string(size);
        std::string const data = body(size, 11);
        ASSERT_TRUE(upload("az://myaccount/cont/" + name, data, md5Hex(data).c_str(), size));
        LmCurlResponse const back = get(name);
        EXPECT_EQ(back.getResponseCode(), 200);
        EXPECT_EQ(md5Hex(back.getPayload()), md5Hex(data));
        std::string const list = get(name, "?comp=blocklist&blocklisttype=committed").getPayload();
        QRegularExpression const names("<Name>([^<]*)</Name>");
        int blocks = 0;
        for (auto it = names.globalMatch(QString::fromStdString(list)); it.hasNext(); ++blocks)
            EXPECT_EQ(it.next().captured(1).size(), 24);
        if (committed > 0) {
            EXPECT_EQ(blocks, committed);
        }
    }
}

TEST_F(Azure, AnEmptyTokenFailsTheFirstChunkAndLeavesNoBlob)
{
    auto raw = std::make_unique<LmCurlRawClient>(std::make_shared<LmCurlHandleFactory>(1), nullptr);
    LmCurlUploadStream stream(std::make_unique<LmCurlUploadStreambuf>(
        std::make_unique<LmCurlUploadSessionAzure>(std::move(raw), "", blobs + "no-token")));
    stream << "never stored";
    stream.close();
    EXPECT_TRUE(stream.bad());
    EXPECT_EQ(log.count(2, "Got HTTP status code 403"), 1);
    EXPECT_EQ(get("no-token").getResponseCode(), 404);
}

TEST_F(Azure, ACommitAfterAnotherWriterFailsAndLeavesItsContent)
{
    std::string const data = body(kFull + 10);
    bool const ok = upload("az://myaccount/cont/contested", data, "", 0, [&](LmCurlUploadStream&) {
        // The blob of this session exists, one block is up; now somebody else writes it.
        EXPECT_EQ(peerRequest("PUT", blobs + "contested",
                              {token.toStdString(), "x-ms-version: 2020-04-08", "x-ms-blob-type: BlockBlob"},
                              "the other writer")
                      .getResponseCode(),
                  201);
    });
    EXPECT_FALSE(ok);
    EXPECT_EQ(log.count(2, "Got HTTP status code 412"), 1);
    EXPECT_EQ(get("contested").getPayload(), "the other writer");
}

} // namespace
