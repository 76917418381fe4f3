// The tag file's previews and reports: previews of real files stored in
// (0006,7105) and kept through the file, bad pixels that leave no trace,
// the table of contents, dumps and the export of previews.
#include "support/PixelSupport.h"
#include "support/TagLayer.h"

#include <mdxlib/pixels/PreviewGenerator.h>
#include <mdxlib/pixels/QuadrantNavigation.h>

#include <QCryptographicHash>
#include <QTextStream>

using namespace Mdx;

namespace {

DcmTagKey const NavigationKey(0x0071, 0x0070);
DcmTagKey const CropBoxKey(0x0071, 0x0074);

QString sample(char const* file)
{
    return mdxtest::samplesDir() + "/" + file;
}

QString listing(TagFile const& file, bool detailed)
{
    QString text;
    QTextStream stream(&text);
    file.listContent(stream, detailed);
    return text;
}

QByteArray jpegOf(QSize size)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(qRgb(90, 90, 90));
    return PreviewGenerator::createPreviewData(image);
}

} // namespace

// Real files, by SOP Instance UID (the file is loaded); the
// previews survive writing and reading the tag file.
TEST(TagFileReports, PreviewsOfRealFiles)
{
    MDX_REQUIRE_SAMPLES();
    // The pictures of every kind of file are PreviewTest's; here the storing.
    for (auto const& [name, cropBox] : std::vector<std::pair<char const*, bool>>{
             {"pydicom/CT_small.dcm", false}, {"pydicom/dicomdirtests/77654033/CR1/6154", true}}) {
        SCOPED_TRACE(name);
        QString const path = sample(name);
        TagFile file;
        ASSERT_TRUE(file.addDicomFile(path.toLocal8Bit().constData(), name, false));
        QByteArray const sop = file.images().firstKey();
        EXPECT_TRUE(file.addPreview(sop, path));
        TagMap const* image = file.findImage(sop);
        TagElement const* preview = image->findElement(Tags::PreviewData);
        ASSERT_TRUE(preview);
        EXPECT_EQ(preview->mVR, VR_OB);
        QImage const decoded = QImage::fromData(preview->mValue, "JPEG");
        ASSERT_FALSE(decoded.isNull());
        EXPECT_TRUE(decoded.width() <= 256 && decoded.height() <= 256);
        EXPECT_EQ(image->findElementPrivate(CropBoxKey, "Lumora") != nullptr, cropBox);
        EXPECT_FALSE(image->findElementPrivate(NavigationKey, "Lumora"));

        TagFile reread;
        ASSERT_TRUE(mdxtest::readTagFile(reread, mdxtest::tagFileBytes(file)));
        EXPECT_EQ(reread.findImage(sop)->findElement(Tags::PreviewData)->mValue, preview->mValue);
    }
}

// A breast image gets its quadrant numbers with the preview; a CR breast
// image its crop box too.
TEST(TagFileReports, PreviewOfAMammogram)
{
    mdxtest::Mammogram mg;
    mg.modality = "CR";
    mg.studyDescription = "Mammography";
    std::unique_ptr<DcmDataset> dataset(mdxtest::makeMammogram(mg, "1.2.826.0.1.3680043.8.498.1.1.9"));
    TagFile file;
    ASSERT_TRUE(file.addDataset(dataset.get(), "mg.dcm", false));
    ASSERT_TRUE(file.addPreview(dataset.get(), "mg.dcm"));
    TagMap const* image = file.findImage("1.2.826.0.1.3680043.8.498.1.1.9");
    EXPECT_TRUE(image->findElement(Tags::PreviewData));
    ASSERT_TRUE(image->findElementPrivate(NavigationKey, "Lumora"));
    EXPECT_EQ(image->findElementPrivate(NavigationKey, "Lumora")->mValue.size(), 40);
    QByteArray box;
    ASSERT_TRUE(image->findAndGetString(CropBoxKey, "Lumora", box));
    std::vector<int> const t = mdxtest::mammogramTissueBox(mg);
    EXPECT_EQ(box, QByteArray::number(t[0]) + "\\" + QByteArray::number(t[1]) + "\\" +
                       QByteArray::number(t[2] - t[0] + 1) + "\\" + QByteArray::number(t[3] - t[1] + 1) +
                       "\\v1");
}

// Missing, short, undecodable or unsupported pixels: false, one warning,
// and neither preview, quadrant numbers nor crop box.
TEST(TagFileReports, BadPixelsLeaveNoTrace)
{
    std::pair<char const*, std::function<void(DcmDataset&)>> const cases[] = {
        {"no pixel data", [](DcmDataset& d) { d.findAndDeleteElement(DCM_PixelData); }},
        {"half the pixel data",
         [](DcmDataset& d) {
             std::vector<Uint16> const half(200 * 128, 1000);
             d.putAndInsertUint16Array(DCM_PixelData, half.data(), static_cast<unsigned long>(half.size()));
         }},
        {"float pixel data",
         [](DcmDataset& d) {
             d.findAndDeleteElement(DCM_PixelData);
             std::vector<Float32> const values(200 * 256, 1.0f);
             d.putAndInsertFloat32Array(DCM_FloatPixelData, values.data(),
                                        static_cast<unsigned long>(values.size()));
             d.putAndInsertUint16(DCM_BitsAllocated, 32);
         }},
        {"no rows", [](DcmDataset& d) { d.findAndDeleteElement(DCM_Rows); }},
        {"bits allocated 0", [](DcmDataset& d) { d.putAndInsertUint16(DCM_BitsAllocated, 0); }}};
    for (auto const& [name, spoil] : cases) {
        SCOPED_TRACE(name);
        mdxtest::Mammogram mg;
        mg.modality = "CR";
        mg.studyDescription = "breast";
        std::unique_ptr<DcmDataset> dataset(mdxtest::makeMammogram(mg, "1.2.826.0.1.3680043.8.498.1.1.7"));
        TagFile file;
        TagMap* image = file.addDataset(dataset.get(), "bad.dcm", false);
        ASSERT_TRUE(image);
        spoil(*dataset);
        mdxtest::LogCapture log;
        EXPECT_FALSE(file.addPreview(image, dataset.get(), "bad.dcm"));
        EXPECT_EQ(log.count(McLogFile::LevelWarning), 1);
        EXPECT_EQ(
            log.count(McLogFile::LevelWarning, "Could not create preview image for DICOM file: bad.dcm"), 1);
        EXPECT_FALSE(image->findElement(Tags::PreviewData));
        EXPECT_FALSE(image->findElementPrivate(NavigationKey, "Lumora"));
        EXPECT_FALSE(image->findElementPrivate(CropBoxKey, "Lumora"));
        EXPECT_FALSE(image->findElement(DcmTagKey(0x0071, 0x0010))) << "no private block either";
    }

    // An unknown SOP Instance UID: false, and the index stays as it was.
    TagFile file;
    std::unique_ptr<DcmDataset> other(
        mdxtest::makeMammogram(mdxtest::Mammogram(), "1.2.826.0.1.3680043.8.498.1.1.8"));
    EXPECT_FALSE(file.addPreview(other.get(), "other.dcm"));
    EXPECT_FALSE(file.addPreview(QByteArray("1.2.826.0.1.3680043.8.498.1.1.8"), "other.dcm"));
    EXPECT_TRUE(file.images().isEmpty());
}

TEST(TagFileReports, UndecodableAndDamagedFiles)
{
    MDX_REQUIRE_SAMPLES();
    // JPEG 2000 has no decoder in DCMTK: a warning.
    for (char const* name : {"pydicom/MR_small_jp2klossless.dcm", "pydicom/JPEG2000.dcm"}) {
        SCOPED_TRACE(name);
        QString const path = sample(name);
        TagFile file;
        ASSERT_TRUE(file.addDicomFile(path.toLocal8Bit().constData(), name, false));
        QByteArray const sop = file.images().firstKey();
        mdxtest::LogCapture log;
        EXPECT_FALSE(file.addPreview(sop, path));
        EXPECT_EQ(log.count(McLogFile::LevelWarning, "Could not create preview image for DICOM file"), 1);
        EXPECT_FALSE(file.findImage(sop)->findElement(Tags::PreviewData));
    }
    // A truncated file does not load: an error naming the file and why.
    TagFile file;
    TagMap* image = mdxtest::addImage(file, "1.2.3", "1.2.3.1", "1.2.3.1.1");
    mdxtest::LogCapture log;
    QString const truncated = sample("pydicom/MR_truncated.dcm");
    EXPECT_FALSE(file.addPreview(QByteArray("1.2.3.1.1"), truncated));
    EXPECT_EQ(log.count(McLogFile::LevelError,
                        "Could not load " + truncated.toStdString() + " to create preview image: "),
              1);
    EXPECT_FALSE(image->findElement(Tags::PreviewData));
}

namespace {

// Study 1.2.3: series 7 (two images, one with path and preview) and
// series 9 (one image) with a volume of suffix "abc".
std::unique_ptr<TagFile> reportFile()
{
    auto file = std::make_unique<TagFile>();
    TagMap* first = mdxtest::addImage(*file, "1.2.3", "1.2.3.7", "1.2.3.7.1",
                                      {{DCM_SeriesNumber, "7"}, {DCM_InstanceNumber, "1"}});
    mdxtest::addImage(*file, "1.2.3", "1.2.3.7", "1.2.3.7.2",
                      {{DCM_SeriesNumber, "7"}, {DCM_InstanceNumber, "2"}});
    TagMap* third = mdxtest::addImage(*file, "1.2.3", "1.2.3.9", "1.2.3.9.1",
                                      {{DCM_SeriesNumber, "9"}, {DCM_InstanceNumber, "1"}});
    first->putAndInsertValue(Tags::DicomFilePath, VR_LO, "/data/a.dcm");
    first->putAndInsertValue(Tags::PreviewData, VR_OB, jpegOf(QSize(8, 8)));
    auto* volume = new Volume(0);
    TagMap* series = third->parent();
    series->addBareVolume(volume);
    volume->mDims = McVec3i(512, 512, 1);
    volume->setImages({third}, series);
    volume->mFileNameSuffix = "abc";
    volume->mPreviewData = jpegOf(QSize(4, 4));
    volume->mHasPaddingValue = true;
    volume->mPaddingValue = -2000;
    volume->mHistogram = LmHistogram({5, 1, 22, 333, 4444, 55555, 666666, 7}, -10.0f, 90.5f);
    return file;
}

} // namespace

TEST(TagFileReports, TableOfContents)
{
    std::unique_ptr<TagFile> file = reportFile();
    QString const text = listing(*file, false);
    QString const rule = "----------------------------------------------------\n";
    EXPECT_EQ(text, rule +
                        "Study 1.2.3\n"
                        "  Series <7>\t1.2.3.7\n"
                        "    Image <1>\t1.2.3.7.1 /data/a.dcm, preview\n"
                        "    Image <2>\t1.2.3.7.2\n"
                        "  Series <9>\t1.2.3.9\n"
                        "    Image <1>\t1.2.3.9.1\n"
                        "    Volume <1>  512 x 512 x 1, 1 image, preview, suffix abc\n" +
                        rule);

    QString const detailed = listing(*file, true);
    QString const hash = QString::fromLatin1(file->series()["1.2.3.9"]->volumes()[0]->volumeHash());
    for (QString const& line : {
             QString("        RescaleSlope      1                                    # 4\n"),
             QString("        RescaleIntercept  0                                    # 4\n"),
             QString("        PaddingValue      -2000                                # 3\n"),
             QString("        VolumeHash        %1 # 32\n").arg(hash, -36),
             QString("        DataRange         -10 .. 90.5                          # 4\n"),
             QString("        Histogram         %1# 32\n").arg("1 22 333 4444 55555 666666 ..", -37),
         })
        EXPECT_TRUE(detailed.contains(line)) << line.toStdString() << "\nin\n" << detailed.toStdString();
    EXPECT_FALSE(detailed.contains("PrecisionBitLoss"));
    EXPECT_FALSE(detailed.contains("SUVCropBox"));
    EXPECT_TRUE(detailed.contains("Study 1.2.3\n"));
    EXPECT_GT(detailed.size(), text.size() + 400); // what the nodes store

    // dump: an empty UID is the detailed listing, an unknown one nothing.
    QString dumped;
    QTextStream stream(&dumped);
    file->dump(stream, QByteArray());
    EXPECT_EQ(dumped, detailed);
    dumped.clear();
    file->dump(stream, "9.9.9");
    EXPECT_TRUE(dumped.isEmpty());
    file->dump(stream, "1.2.3.7.2");
    EXPECT_TRUE(dumped.contains("1.2.3.7.2"));
    EXPECT_TRUE(dumped.contains("Doe^Jane")); // inherited from the study
}

TEST(TagFileReports, ExportNamesAreUnique)
{
    QTemporaryDir dir;
    TagFile file;
    // Two series numbered 3, two images numbered 1 in the first.
    // clang-format off
    for (auto const& [series, sop, instance] : std::vector<std::tuple<char const*, char const*, char const*>>{
             {"1.2.3.1", "1.2.3.1.1", "1"}, {"1.2.3.1", "1.2.3.1.2", "1"}, {"1.2.3.1", "1.2.3.1.3", "2"},
             {"1.2.3.2", "1.2.3.2.1", "1"}}) {
        // clang-format on
        TagMap* image = mdxtest::addImage(file, "1.2.3", series, sop,
                                          {{DCM_SeriesNumber, "3"}, {DCM_InstanceNumber, instance}});
        image->putAndInsertValue(Tags::PreviewData, VR_OB, jpegOf(QSize(6, 6)));
    }
    {
        mdxtest::LogCapture log;
        TagFile empty;
        mdxtest::addImage(empty, "1.2.3", "1.2.3.1", "1.2.3.1.1");
        empty.exportPreviews(dir.path());
        EXPECT_EQ(log.count(McLogFile::LevelInfo, "No preview image written"), 1);
    }
    mdxtest::LogCapture log;
    file.exportPreviews(dir.path());
    EXPECT_EQ(
        log.count(McLogFile::LevelInfo, "4 preview image(s) written to " + dir.path().toStdString() + "/"),
        1);

    // The prefix is the start of the tag file's name: its first 8 digits.
    QString const digits = TagFile::cacheFilePathForStudy("1.2.3").section('/', -3).remove('/').left(8);
    QStringList names = QDir(dir.path()).entryList(QDir::Files);
    names.sort();
    EXPECT_EQ(names, (QStringList{digits + "_Series_3_1_Image_1_1.jpg", digits + "_Series_3_1_Image_1_2.jpg",
                                  digits + "_Series_3_1_Image_2.jpg", digits + "_Series_3_2_Image_1.jpg"}));
    EXPECT_EQ(QImage(dir.filePath(names[0])).size(), QSize(6, 6));
}
