// The central property of the study tree and its file, checked on every real
// study of the installed samples: whatever merging, optimising, replacing and
// a trip through a tag file in any compression mode did to the tree, each
// image still shows exactly the attributes of its own file, with equal values
// and VRs (values over 1 KB as omitted markers, sequences item by item), and
// nothing its file lacks apart from the system's own group 0006. The tree
// read back stores what was written, node by node, and writes the same bytes.
#include "support/TagLayer.h"

namespace {

struct LoadedImage
{
    QString path;
    QByteArray name; // the path in local 8 bits
    std::unique_ptr<DcmFileFormat> file;
    QByteArray sopUID, seriesUID;
};

// Compares what node shows with the DCMTK item it was made from; returns the
// number of differences, each reported once.
int compareWithItem(DcmItem* item, Mdx::TagMap const* node, std::string const& where)
{
    int differences = 0;
    auto report = [&](DcmTagKey const& key, std::string const& what) {
        ++differences;
        ADD_FAILURE() << where << ": " << key.toString().c_str() << " " << what;
    };
    std::set<DcmTagKey> present;
    for (DcmObject* object = item->nextInContainer(nullptr); object; object = item->nextInContainer(object)) {
        DcmTagKey const key = object->getTag().getXTag();
        if (key.getGroup() == 0 || key.getElement() == 0)
            continue;
        present.insert(key);
        Mdx::TagElement const* element = node->findElement(key);
        Uint32 const length = object->getLength(EXS_LittleEndianImplicit, EET_UndefinedLength);
        auto* sequence = dynamic_cast<DcmSequenceOfItems*>(object);
        auto const* tagSequence = dynamic_cast<Mdx::TagSequence const*>(element);
        if (!element) {
            report(key, "is not found");
        } else if (element->isOmittedMarker()) {
            if (length <= 1024)
                report(key, "is omitted although only " + std::to_string(length) + " bytes long");
        } else if (sequence && (!tagSequence || tagSequence->mItems.size() != int(sequence->card()))) {
            report(key, "is no sequence of " + std::to_string(sequence->card()) + " items");
        } else if (sequence) {
            for (unsigned long i = 0; i < sequence->card(); ++i)
                differences +=
                    compareWithItem(sequence->getItem(i), tagSequence->mItems[int(i)],
                                    where + " " + key.toString().c_str() + "[" + std::to_string(i) + "]");
        } else {
            auto* dcmElement = static_cast<DcmElement*>(object);
            QByteArray value(static_cast<int>(dcmElement->getLength()), '\0');
            if (auto* text = dynamic_cast<DcmByteString*>(dcmElement)) {
                char* chars = nullptr;
                Uint32 size = 0;
                text->getString(chars, size);
                value = chars ? QByteArray(chars, static_cast<int>(size)) : QByteArray();
            } else if (!value.isEmpty()) {
                dcmElement->getPartialValue(value.data(), 0, dcmElement->getLength(), nullptr,
                                            gLocalByteOrder);
            }
            Mdx::VR vr = Mdx::fromDcmEVR(dcmElement->getTag().getEVR());
            // UIDs that a file stores as UN enter the tree as the UI text they are.
            if (vr == Mdx::VR_UN &&
                (key == DCM_StudyInstanceUID || key == DCM_SeriesInstanceUID || key == DCM_SOPInstanceUID)) {
                vr = Mdx::VR_UI;
                while (value.endsWith('\0'))
                    value.chop(1);
            }
            if (element->mVR != vr)
                report(key, std::string("has VR ") + Mdx::vrName(element->mVR));
            if (element->mValue != value)
                report(key, "has another value");
        }
    }
    for (Mdx::TagMap::iterator it = node->begin(), end = node->end(); it != end; ++it) {
        if (it.key().getGroup() != 0x0006 && !present.count(it.key()))
            report(it.key(), "is shown but not in the file");
    }
    return differences;
}

void expectImagesMatchFiles(Mdx::TagFile const& tagFile, std::vector<LoadedImage> const& images,
                            std::string const& stage)
{
    int differences = 0;
    for (LoadedImage const& image : images) {
        Mdx::TagMap const* node = tagFile.findImage(image.sopUID);
        if (!node)
            ADD_FAILURE() << stage << ": image " << image.sopUID.constData() << " not found";
        else
            differences +=
                compareWithItem(image.file->getDataset(), node, stage + " " + image.path.toStdString());
        if (differences > 20)
            FAIL() << "too many differences, stopping";
    }
}

// The files of each study that enter a tree, one per SOP Instance UID (as
// the tree reads it: as text, also where a data set stores it as UN).
std::map<std::string, std::vector<LoadedImage>> const& studies()
{
    static std::map<std::string, std::vector<LoadedImage>> const loaded = [] {
        std::map<std::string, std::vector<LoadedImage>> result;
        for (auto const& [studyUID, files] : mdxtest::sampleStudies()) {
            std::set<QByteArray> seen;
            for (QString const& path : files) {
                LoadedImage image{path, path.toLocal8Bit(), std::make_unique<DcmFileFormat>(), {}, {}};
                EXPECT_TRUE(image.file
                                ->loadFile(OFFilename(path.toLocal8Bit().constData()), EXS_Unknown,
                                           EGL_noChange, 4096, ERM_autoDetect)
                                .good());
                std::unique_ptr<Mdx::TagMap> map(Mdx::TagMap::createTagMap(image.file->getDataset(), 1024));
                image.sopUID = Mdx::TagFile::uidOf(map.get(), DCM_SOPInstanceUID);
                image.seriesUID = Mdx::TagFile::uidOf(map.get(), DCM_SeriesInstanceUID);
                if (seen.insert(image.sopUID).second)
                    result[studyUID].push_back(std::move(image));
            }
        }
        return result;
    }();
    return loaded;
}

TEST(SampleStudies, everyImageShowsItsFileAfterMergingOptimisingAndTheDiskInEveryMode)
{
    MDX_REQUIRE_SAMPLES();
    ASSERT_GT(studies().size(), 10u) << "the samples hold dozens of studies";
    int totalImages = 0;
    int const mode = Mdx::TagFile::sCompressionMode;
    for (auto const& [studyUID, images] : studies()) {
        SCOPED_TRACE("study " + studyUID);
        Mdx::TagFile tagFile;
        for (LoadedImage const& image : images)
            ASSERT_NE(
                tagFile.addDataset(image.file->getDataset(), image.path.toLocal8Bit().constData(), false),
                nullptr);
        ASSERT_EQ(tagFile.images().size(), static_cast<int>(images.size()));
        ASSERT_EQ(tagFile.studies().size(), 1);
        expectImagesMatchFiles(tagFile, images, "merged");
        tagFile.optimizeAll();
        expectImagesMatchFiles(tagFile, images, "optimised");
        totalImages += static_cast<int>(images.size());
        // Every image and series keeps its own UID in its own node.
        for (Mdx::TagMap const* image : tagFile.images())
            EXPECT_NE(image->ownElement(DCM_SOPInstanceUID), nullptr);
        for (Mdx::TagMap const* series : tagFile.series())
            EXPECT_NE(series->ownElement(DCM_SeriesInstanceUID), nullptr);

        for (int m : {0, 1, 2}) {
            Mdx::TagFile::sCompressionMode = m;
            QByteArray const bytes = mdxtest::tagFileBytes(tagFile);
            Mdx::TagFile read;
            ASSERT_TRUE(mdxtest::readTagFile(read, bytes)) << "mode " << m;
            mdxtest::expectSameStoredTree(tagFile.study(), read.study());
            EXPECT_EQ(read.images().keys(), tagFile.images().keys());
            expectImagesMatchFiles(read, images, "read back in mode " + std::to_string(m));
            EXPECT_EQ(mdxtest::tagFileBytes(read), bytes) << "mode " << m;
        }
        Mdx::TagFile::sCompressionMode = mode;

        for (auto it = images.rbegin(); it != images.rend(); ++it)
            ASSERT_NE(tagFile.addDataset(it->file->getDataset(), nullptr, true), nullptr);
        EXPECT_EQ(tagFile.images().size(), static_cast<int>(images.size()));
        expectImagesMatchFiles(tagFile, images, "replaced in reverse order");
        tagFile.optimizeAll();
        expectImagesMatchFiles(tagFile, images, "replaced and optimised");

        // Whole series at once.
        std::map<QByteArray, std::pair<std::vector<DcmDataset*>, std::vector<char const*>>> bySeries;
        for (LoadedImage const& image : images) {
            bySeries[image.seriesUID].first.push_back(image.file->getDataset());
            bySeries[image.seriesUID].second.push_back(image.name.constData());
        }
        Mdx::TagFile bySeriesFile;
        for (auto& [seriesUID, datasets] : bySeries)
            ASSERT_TRUE(bySeriesFile.addSeries(int(datasets.first.size()), datasets.first.data(),
                                               datasets.second.data()));
        expectImagesMatchFiles(bySeriesFile, images, "series");
        bySeriesFile.optimizeAll();
        expectImagesMatchFiles(bySeriesFile, images, "series optimised");
    }
    EXPECT_GT(totalImages, 100);
}

} // namespace
