// The DICOM JSON written from a tag file against DCMTK's dcm2json of the
// original files, for every image of every real sample study. The tag file
// goes through its on-disk form first, so that what is compared is what a
// server reading the file would send. The comparison runs in Python
// (compare_with_dcm2json.py, which lists the difference classes it allows)
// on both texts parsed by its json module.
#include "support/TagLayer.h"

#include <mdxlib/json/DicomJsonWriter.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

TEST(DicomJsonOracle, everySampleImageMatchesDcm2jsonOfItsFile)
{
    MDX_REQUIRE_SAMPLES();
    if (!mdxtest::haveProgram("dcm2json"))
        GTEST_SKIP() << "dcm2json is not installed (Debian package dcmtk)";
    QTemporaryDir work;
    ASSERT_TRUE(work.isValid());
    QJsonArray studies;
    int images = 0;
    for (auto const& [studyUID, files] : mdxtest::sampleStudies()) {
        Mdx::TagFile built;
        built.setStoreFilePaths(true);
        QJsonObject paths;
        for (QString const& path : files) {
            QByteArray const name = QFileInfo(path).absoluteFilePath().toLocal8Bit();
            // The first file of a SOP Instance UID enters the tree, as in a build.
            if (Mdx::TagMap* image = built.addDicomFile(name.constData(), name.constData(), false))
                paths[QString::fromLatin1(Mdx::TagFile::uidOf(image, DCM_SOPInstanceUID))] = QString(name);
        }
        built.optimizeAll();
        Mdx::TagFile file;
        ASSERT_TRUE(mdxtest::readTagFile(file, mdxtest::tagFileBytes(built)));

        QString const jsonPath = work.filePath(QString("study%1.json").arg(studies.size()));
        QFile out(jsonPath);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        Mdx::DicomJsonWriter writer(&out);
        ASSERT_TRUE(writer.writeStudy(file));
        out.close();
        studies.append(QJsonObject{{"json", jsonPath}, {"images", paths}});
        images += paths.size();
    }
    ASSERT_GT(images, 100);
    QString const manifest = work.filePath("manifest.json");
    ASSERT_TRUE(mdxtest::writeFile(manifest, QJsonDocument(QJsonObject{{"studies", studies}}).toJson()));

    QByteArray report, error;
    int const status = mdxtest::runProgram(MDX_TEST_PYTHON3, {MDX_TEST_JSON_ORACLE, manifest, work.path()},
                                           &report, &error, 600000);
    std::printf("%s", report.constData());
    EXPECT_EQ(status, 0) << error.constData();
}

} // namespace
