// The tag file of every sample study, built as `mdx build` builds it (headers
// loaded on two threads, merged in file order, optimised) and written without
// compression, is byte for byte the one this table knows. Changes to how the
// tree is held in memory must never show in the files it writes; a change of
// the format itself renews the table (MDX_PRINT_DIGESTS=1 prints it).
#include <support/TestSupport.h>

#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDataStream>
#include <QFile>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

namespace {

using Mdx::TagFile;

// SHA-256 of the mode 0 file of each study, by Study Instance UID.
std::map<QByteArray, QByteArray> const kDigests = {
    {"0.0.0.0.2.8811.20010413115754.12432",
     "748428ab99788800a05eae3d7881127eb9dab07069192338bf4c9a391a9fe132"},
    {"1.2.276.0.7230010.3.1.2.0.35989.1606514566.150780",
     "6d563c1c89e4ebf14067d9e970b054d809781a1bbe001f9f7c5e9556e6dee172"},
    {"1.2.276.0.7230010.3.1.2.1787205428.166.1117461927.5",
     "8f7dece77be17d9e5d948e241eb344e27efbc2e644f4f36afb4eb785d54e438d"},
    {"1.2.276.0.7230010.3.1.2.296485376.1.1521713414.1800996",
     "295da3b54c55acff99b6d33e10553b8f0124a2dec8694dc9eead923366a6418d"},
    {"1.2.276.0.7230010.3.1.4.2139363186.7819.982086466.2",
     "d11561d74112ac1f8819a10941de4ed3c00fb3a9dcd8d5a7eedc2a1fd57c4aea"},
    {"1.2.333.4444.5.6.7.8.9", "f7a1b95f0b88839859837bdce14aeb36f7fdda35dbd2242c6925e6e27b9a17a0"},
    {"1.2.392.200036.9123.100.11.15002200303521616157144527203339851",
     "bf22d954c8943c91e5fb6f7dbba0652516ef1cfeb781b823843457cac3d27b6f"},
    {"1.2.392.200103.20080913.113635.0.2009.6.22.21.43.10.22941.1",
     "d4dd974cc9d44b7ad12abc452a916deee8a2ce930a296b94c367219f0c372b3d"},
    {"1.2.826.0.1.3680043.8.498.12406831542731051035295345080039845114",
     "074440384d44bd9a5401b45e83b5e3c0302d9f8796338fd642129c82cb9c643a"},
    {"1.2.826.0.1.3680043.8.498.13331179108403236084039838123417806584",
     "1d0f155a690792482d168cabf6614bcd2a8454b127c93855886fd3a516e56154"},
    {"1.2.826.0.1.3680043.8.498.2010020400001.1",
     "077ec2b75ebfc3c14fd465562a6257448d6eef7a41eedbad41e51d3318a50ba5"},
    {"1.2.826.0.1.3680043.8.498.32735210998394320925122197129876886444",
     "3abb9d9196157a3396908e33b7a9be69679978fca14e50428043455c3decaa7a"},
    {"1.2.826.0.1.3680043.8.498.64108189007039777171766333999874882472",
     "8a416cf39ea485dd6aa12b55891294ea506ef09012233f49a102178272271161"},
    {"1.2.840.113619.2.1.3352.2053053415.834484316",
     "9320d6c946638ecf0cdd6164da552f70a5e1cc19c747f81187b580c36d9d1ca7"},
    {"1.2.840.113619.2.21.848.246800003.0.1952805748.3",
     "f4bf345fbabe62e1e762b4c80bae382af845ffb6875a1ce8fef25e3014b4e8f0"},
    {"1.2.840.113619.2.22.287.1.19990524.214221",
     "c92fb32c3c34fc5dae60f7faf2364d47869397d0ffdcde48f90b71ff8c981152"},
    {"1.2.999.999.99.9.9999.8888", "55deff74fd48e065ededf5b9280a6c8121623d7592ac1d7dcd9f7fcc6f21dc1e"},
    {"1.22.333.4.555555.6.7777777777777777777777777777",
     "3f2a7f4e4c6654c869d171c98176a164df93f73f9806dc3f487f0c4e9b7fe553"},
    {"1.3.12.2.1107.5.4.3.123456789012345.19950922.121803.6",
     "cc5b1acc2d0198ab9533e511fc2a7182d7027445c17c91d49735e650387b0b86"},
    {"1.3.6.1.4.1.5962.1.1.0.0.0.1194734704.16302.0.1",
     "893bbeb2a587a5036324c7e41316e553f29081f3d39467f4ee2ab8896098da8e"},
    {"1.3.6.1.4.1.5962.1.1.0.0.0.1196527414.5534.0.1",
     "35796003bc12d6ff6bc462c3fcaaabc8c1e237ee3260b05b89af69877f4b4feb"},
    {"1.3.6.1.4.1.5962.1.1.0.0.0.1196530851.28319.0.1",
     "b1ae28b3c1a4c9d9c9e9fe207e57a10280fced9165a95d9f0de49830a52b6820"},
    {"1.3.6.1.4.1.5962.1.1.0.0.0.1196533885.18148.0.1",
     "7a92d5ae3d3d9bdb203bf491afe0cdcc800ece3784344a4429c62fc04d88a316"},
    {"1.3.6.1.4.1.5962.1.1.0.0.0.1196533885.18148.0.133",
     "7706ea7439e0d2bd1dae30240a897d1f3efb211dae3009a122a3068c89b36928"},
    {"1.3.6.1.4.1.5962.1.1.0.0.0.1196533885.18148.0.427",
     "b5e1620dab6b255cf1f4e5ffd06d92f9de27c1ee541fcec7e73a25476f2e9c80"},
    {"1.3.6.1.4.1.5962.1.2.0.977067310.6001.0",
     "d998869e84164a7d105cd1390c227950dda098165c0c0ffb6eb6a71870842b87"},
    {"1.3.6.1.4.1.5962.1.2.1.20031208063649.855",
     "992f06a2c132f4015865b857673984d0265459273f864d7d771279805e00634a"},
    {"1.3.6.1.4.1.5962.1.2.1.20040119072730.12322",
     "c9f04643dc5093583af43187d87c58747d653dc7ef6483f0384b6cf0d2cf8e4a"},
    {"1.3.6.1.4.1.5962.1.2.1.20040826185059.5457",
     "f89b9cceb270834ba0c2246b14366c242736c0294feeadb09ec39a16bc77e705"},
    {"1.3.6.1.4.1.5962.1.2.4.20040826185059.5457",
     "b194068789284a606cdfe793c9511aa2b06a08f6a782eb7034132a4a3aa9a15b"},
    {"1.3.6.1.4.1.5962.1.2.5.20040826185059.5457",
     "dd0987ec9196397655dcf5747a37a1730e725905060d1a3349858f94ba599e72"},
    {"1.3.6.1.4.1.5962.1.2.8.20040826185059.5457",
     "839d014931e553f33fa5ade4567e7b5f998c1eba73973ff78c414e46d0286743"},
    {"1.3.6.1.4.35045.178713654550621507378357964392981662901",
     "be8b486866c1b79e150c306219849fd61544ac0684411500de3925121bf25fb2"},
    {"1.3.76.13.65829.2.20130125082826.1072139.2",
     "d986e4f907f24402d8df3c5764f0e817338c0e5a513365d2cbe701bc29043f58"},
    {"999.999.2.19960619.163000", "e6c0b85c29f97b7e90102b73e360b2bff32a6daf10876566e696190bc81e2414"},
};

TEST(TagFileDigest, sampleStudiesWriteTheKnownBytes)
{
    MDX_REQUIRE_SAMPLES();
    QString const root = mdxtest::samplesDir() + "/";
    std::vector<QByteArray> paths;
    for (QString const& file : mdxtest::sampleFiles(QString()))
        paths.push_back(QFile::encodeName(file));
    std::map<QByteArray, std::unique_ptr<TagFile>> studies;
    Mdx::loadImagesInOrder(paths, 2, [&](int index, std::unique_ptr<Mdx::TagMap> image, TagFile::AddResult) {
        if (image) {
            auto& study = studies[TagFile::uidOf(image.get(), DCM_StudyInstanceUID)];
            if (!study)
                study = std::make_unique<TagFile>();
            // The name below the samples folder, so that the bytes do not
            // depend on where the samples are installed.
            QByteArray const name = paths[static_cast<size_t>(index)].mid(QFile::encodeName(root).size());
            study->addTagMap(image.release(), name.constData(), false);
        }
        return true;
    });
    int const mode = TagFile::sCompressionMode;
    TagFile::sCompressionMode = 0;
    std::map<QByteArray, QByteArray> digests;
    for (auto& [uid, study] : studies) {
        study->optimizeAll();
        digests[uid] =
            QCryptographicHash::hash(mdxtest::tagFileBytes(*study), QCryptographicHash::Sha256).toHex();
    }
    TagFile::sCompressionMode = mode;
    if (std::getenv("MDX_PRINT_DIGESTS"))
        for (auto const& [uid, digest] : digests)
            std::printf("    {\"%s\", \"%s\"},\n", uid.constData(), digest.constData());
    EXPECT_GT(digests.size(), 20u);
    EXPECT_TRUE(digests == kDigests) << "the tag files of the sample studies changed";
}

} // namespace
