// Azure credentials: the credentials file offline, tokens from azure_token_peer.py
// (run_with_peers.py --with azure) as the instance metadata service and as the login endpoint,
// with the peer's failure modes, renewal and the one-per-process decision. The form body is read
// back by the peer with Python's parse_qs.
#include "support/PeerRequests.h"
#include "support/TestSupport.h"

#include <mdxlib/cloudauth/LmAzureAuth.h>
#include <mdxlib/curl/LmCurlClient.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QTemporaryDir>

#include <thread>
#include <tuple>

namespace {

using mdxtest::peerJson;
using mdxtest::peerPort;
using mdxtest::peerRequest;

char const kClientId[] = "00000000-mdx0-test-0000-client000id"; // as azure_token_peer.py knows them
char const kSecret[] = "s3cr&t=/+ value";

class Azure : public ::testing::Test
{
protected:
    void SetUp() override
    {
        LmCurlClient::instance()->setRetrySleeper([](long long) {});
        vars.unset("MDX_CONFIG").unset("MDX_AZURE_STORAGE_RESOURCE");
        vars.set("MDX_AZURE_METADATA_ADDRESS", "127.0.0.1:9").unset("AZURE_APPLICATION_CREDENTIALS");
        LmAzureAuth::resetMetadataDecision();
        port = peerPort("MDX_AZURE_TOKEN_PORT");
        if (!port.empty()) {
            peers = "http://127.0.0.1:" + port;
            vars.set("MDX_AZURE_LOGIN_ENDPOINT", peers + "/");
            mode("normal");
        }
    }
    void TearDown() override
    {
        LmCurlClient::instance()->setRetrySleeper(nullptr);
        LmAzureAuth::resetMetadataDecision();
    }
    void mode(std::string const& name) { peerRequest("POST", peers + "/__mode?name=" + name); }
    void useMetadata() { vars.set("MDX_AZURE_METADATA_ADDRESS", "127.0.0.1:" + port); }
    std::string file(QByteArray const& text)
    {
        QString const path = QDir(dir.path()).filePath("credentials-" + QString::number(++files));
        EXPECT_TRUE(mdxtest::writeFile(path, text));
        return path.toStdString();
    }
    void useFile(QByteArray const& text) { vars.set("AZURE_APPLICATION_CREDENTIALS", file(text)); }
    QByteArray header(LmAzureAuth& auth) { return auth.authorizationHeader(*LmCurlClient::instance()); }
    int requests(char const* key) { return peerJson(peers + "/__stats")["requests"].toObject()[key].toInt(); }

    std::string port;
    std::string peers;
    QTemporaryDir dir;
    int files = 0;
    mdxtest::ScopedEnv vars;
    mdxtest::LogCapture log;
};

QByteArray fileText(char const* tenant = "mdx-tenant")
{
    return QByteArray("# a comment line without equals sign\n TENANT_ID = ") + tenant +
           "\nClient_Id=" + kClientId + "\nclient_secret = " + kSecret + "  \nother=ignored\n";
}

TEST_F(Azure, TheCredentialsFileIsReadWithAnyCaseAndBlanks)
{
    // The file, whether it is accepted, the error logged. The token URL and form it makes are checked
    // by the token peer, which refuses any other tenant, client, secret or grant.
    std::tuple<QByteArray, bool, char const*> const cases[] = {
        {fileText(), true, nullptr},
        {"tenant_id=t\nclient_id=c\n", false, "client_secret missing"},
        {"client_secret=s\n", false, "tenant_id missing"},
        {"tenant_id=t\nclient_secret=s\n", false, "client_id missing"},
    };
    for (auto const& [text, ok, message] : cases) {
        SCOPED_TRACE(text.constData());
        LmAzureAuth auth;
        useFile(text);
        mdxtest::LogCapture messages;
        EXPECT_EQ(auth.loadCredentials(), ok);
        if (message) {
            EXPECT_EQ(messages.count(3, std::string("[Azure credentials] ") + message), 1);
        }
    }
}

TEST_F(Azure, MissingFilesSayWhatIsMissing)
{
    LmAzureAuth auth;
    EXPECT_TRUE(header(auth).isEmpty());
    EXPECT_EQ(log.count(3, "Environment variable AZURE_APPLICATION_CREDENTIALS not defined"), 1);
    // An empty variable counts as unset for the metadata decision, and names an empty file here.
    vars.set("AZURE_APPLICATION_CREDENTIALS", "");
    LmAzureAuth::resetMetadataDecision();
    EXPECT_TRUE(header(auth).isEmpty());
    EXPECT_EQ(log.count(3, "Credentials file  does not exist"), 1);
}

TEST_F(Azure, ExpiresInIsAStringOrANumber)
{
    for (auto const& [value, seconds] : std::vector<std::pair<QJsonValue, int>>{
             {"3599", 3599}, {3599, 3599}, {3599.5, 3600}, {"x", 0}, {QJsonValue(), 0}})
        EXPECT_EQ(LmBearerToken::expiresInSeconds(QJsonObject{{"expires_in", value}}), seconds)
            << value.toVariant().toString().toStdString();
}

TEST_F(Azure, TokensComeFromTheMetadataServiceOrTheLoginEndpoint)
{
    if (port.empty())
        GTEST_SKIP() << "no token peer";
    LmAzureAuth fromMetadata;
    useMetadata();
    QByteArray const line = header(fromMetadata);
    EXPECT_TRUE(line.startsWith("Authorization: Bearer ey"));
    EXPECT_EQ(requests("GET /metadata/identity/oauth2/token"), 1);
    EXPECT_EQ(peerJson(peers + "/__stats")["metadata_headers"].toArray()[0], "true");

    LmAzureAuth fromLogin;
    vars.set("MDX_AZURE_METADATA_ADDRESS", "127.0.0.1:9");
    LmAzureAuth::resetMetadataDecision();
    useFile(fileText());
    EXPECT_TRUE(header(fromLogin).startsWith("Authorization: Bearer ey"));
    QJsonObject const form = peerJson(peers + "/__stats")["forms"].toArray()[0].toObject();
    EXPECT_EQ(form["client_secret"], kSecret);
    EXPECT_EQ(form["resource"], "https://storage.azure.com/");
}

TEST_F(Azure, FailuresLogAndGiveAnEmptyLine)
{
    if (port.empty())
        GTEST_SKIP() << "no token peer";
    // The peer's mode, asked as the metadata service or as the login endpoint, the error logged.
    std::tuple<char const*, bool, std::string> const cases[] = {
        {"error500", true, "Could not obtain access token from meta-data (500)"},
        {"hangup", true, "Could not obtain access token from meta-data (0)"},
        {"not_json", true, "Invalid meta-data response. <html>"},
        {"no_token_type", true, "Invalid meta-data response"},
        {"error500", false, "Could not get authorization header from " + peers + "/mdx-tenant/oauth2/token"},
        {"no_token_type", false, "Invalid authorization response. {"},
        {"empty_token", false, "Invalid authorization response"},
    };
    for (auto const& [name, metadata, message] : cases) {
        SCOPED_TRACE(std::string(name) + (metadata ? " metadata" : " login"));
        mode(name);
        vars.set("MDX_AZURE_METADATA_ADDRESS", metadata ? "127.0.0.1:" + port : "127.0.0.1:9");
        if (metadata)
            vars.unset("AZURE_APPLICATION_CREDENTIALS");
        else
            useFile(fileText());
        LmAzureAuth::resetMetadataDecision();
        mdxtest::LogCapture messages;
        LmAzureAuth auth;
        EXPECT_TRUE(header(auth).isEmpty());
        EXPECT_EQ(messages.count(3, message), 1);
        EXPECT_EQ(messages.count(3, "access_token\":\"ey"), 0); // no token in the log
    }
}

TEST_F(Azure, TheLineIsRenewedOnlyWithinFiveHundredSecondsOfItsEnd)
{
    if (port.empty())
        GTEST_SKIP() << "no token peer";
    useMetadata();
    for (int lifetime : {3599, 501, 499}) {
        SCOPED_TRACE(lifetime);
        peerRequest("POST", peers + "/__mode?name=normal&expires_in=" + std::to_string(lifetime));
        LmAzureAuth auth;
        QByteArray const first = header(auth);
        EXPECT_FALSE(first.isEmpty());
        header(auth);
        EXPECT_EQ(requests("GET /metadata/identity/oauth2/token"), lifetime > 500 ? 1 : 2);
    }
}

TEST_F(Azure, OneThreadRenewsWhileTheOthersWait)
{
    if (port.empty())
        GTEST_SKIP() << "no token peer";
    useMetadata();
    LmAzureAuth auth;
    std::vector<QByteArray> lines(8);
    std::vector<std::thread> threads;
    for (QByteArray& line : lines)
        threads.emplace_back([&] { line = header(auth); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(requests("GET /metadata/identity/oauth2/token"), 1);
    for (QByteArray const& line : lines)
        EXPECT_EQ(line, lines.front());
}

TEST_F(Azure, WhetherToAskTheMetadataServiceIsDecidedOnce)
{
    if (port.empty())
        GTEST_SKIP() << "no token peer";
    LmAzureAuth auth;
    EXPECT_TRUE(header(auth).isEmpty()); // nothing listens on port 9: not an Azure instance
    useMetadata();
    LmAzureAuth later;
    EXPECT_TRUE(header(later).isEmpty()); // still decided
    EXPECT_EQ(requests("GET /metadata/identity/oauth2/token"), 0);
    LmAzureAuth::resetMetadataDecision();
    EXPECT_FALSE(header(later).isEmpty());
    // With the credentials variable set the service is never asked.
    LmAzureAuth::resetMetadataDecision();
    useFile(fileText());
    LmAzureAuth withFile;
    EXPECT_FALSE(header(withFile).isEmpty());
    EXPECT_EQ(requests("GET /metadata/identity/oauth2/token"), 1);
    EXPECT_EQ(requests("POST /mdx-tenant/oauth2/token"), 1);
}

} // namespace
