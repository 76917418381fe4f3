#include <mdxlib/generator/TagFileGenerator.h>

#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcfilefo.h"

#include <QList>

#include <chrono>
#include <map>
#include <memory>
#include <set>

namespace Mdx {

namespace {

char const kDefaultUserName[] = "dw_administrator";

// A dataset of an accepted image, kept until its preview is made, and the
// file it came from.
struct DatasetAndPath
{
    std::unique_ptr<DcmDataset> dataset;
    std::string path;
};

// Paths in messages with forward slashes, however the catalog wrote them.
std::string printable(std::string path)
{
    for (char& c : path) {
        if (c == '\\')
            c = '/';
    }
    return path;
}

// A UID as the tree indexes it: its bytes whatever the VR, so that a file
// that wrote its UIDs as UN is compared by the UID and not by DCMTK's hex
// rendering of UN values.
std::string uidOf(DcmDataset& dataset, DcmTagKey const& key)
{
    DcmElement* element = nullptr;
    if (dataset.findAndGetElement(key, element).bad() || !element)
        return std::string();
    TagMap map;
    map.setElement(element);
    return TagFile::uidOf(&map, key).toStdString();
}

double nowSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

void TagFileGenerator::Timer::run()
{
    mStart = nowSeconds();
}

void TagFileGenerator::Timer::stop()
{
    mSeconds += nowSeconds() - mStart;
}

TagFileGenerator::TagFileGenerator(char const* userName, bool optimize)
{
    setOptions(userName, optimize);
}

TagFileGenerator::~TagFileGenerator() = default;

void TagFileGenerator::setOptions(char const* userName, bool optimize)
{
    mUserName = userName ? userName : kDefaultUserName;
    mOptimize = optimize;
}

void TagFileGenerator::getTimings(int& loadMs, int& volumeMs, int& previewMs) const
{
    loadMs = mLoadTimer.msec();
    volumeMs = mVolumeTimer.msec();
    previewMs = mPreviewTimer.msec();
}

void TagFileGenerator::report(char const* phase, int done, int total) const
{
    if (mProgress)
        mProgress(phase, done, total);
}

bool TagFileGenerator::createTagFile(int studyId)
{
    TagFile tagFile;
    return createTagFile(tagFile, studyId, nullptr);
}

bool TagFileGenerator::createTagFile(TagFile& tagFile, int studyId, char const* studyUID)
{
    McLogFile* log = getTheLogInstance();
    mLoadTimer.reset();
    mVolumeTimer.reset();
    mPreviewTimer.reset();
    mCounts = Counts();
    tagFile.clear();

    std::vector<std::string> dicomFiles;
    std::vector<std::string> volumeFiles;
    std::set<std::string> seriesUIDs;
    if (!GetAllFilesOfStudy(mUserName, studyId, dicomFiles, volumeFiles, seriesUIDs).ok()) {
        log->errorf("Database query GetAllFilesOfStudy() failed.");
        return false;
    }
    mCounts.dicomFiles = static_cast<int>(dicomFiles.size());
    mCounts.volumeFiles = static_cast<int>(volumeFiles.size());

    std::map<QByteArray, DatasetAndPath> datasets;
    int done = 0;
    for (std::string const& path : dicomFiles) {
        report("read", ++done, mCounts.dicomFiles);
        // Values above 4 KB (pixels above all) stay on disk until a preview
        // asks for them, instead of every image of a study being held whole
        // in memory until the previews are made (gigabytes for a large study).
        LmDcmFileLoader loader(LmDcmFileLoader::leaveLargeValuesMode());
        mLoadTimer.run();
        OFCondition const status =
            loader.loadFile(path.c_str(), EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect);
        if (status.good())
            loader.readUntilEnd(); // logs its own failure; the header is there
        mLoadTimer.stop();
        DcmDataset* dataset = loader.fileFormat().getDataset();
        if (status.bad() || !dataset) {
            log->errorf("Could not open %s: %s", printable(path).c_str(), status.text());
            ++mCounts.skipped;
            continue;
        }
        // The first file decides the study of the tree; after that the tree
        // itself refuses images of other studies.
        if (studyUID && tagFile.images().isEmpty() && uidOf(*dataset, DCM_StudyInstanceUID) != studyUID) {
            log->warnf("File %s does not belong to study %s", printable(path).c_str(), studyUID);
            ++mCounts.skipped;
            continue;
        }
        TagMap* image = tagFile.addDataset(dataset, nullptr, false);
        if (!image) {
            std::string sopUID = uidOf(*dataset, DCM_SOPInstanceUID);
            if (sopUID.empty())
                sopUID = printable(path);
            std::string const expected =
                studyUID ? std::string(studyUID)
                         : (tagFile.studies().isEmpty() ? std::string()
                                                        : tagFile.studies().firstKey().toStdString());
            if (uidOf(*dataset, DCM_StudyInstanceUID) == expected)
                log->warnf("Image %s could not be added to tag map", sopUID.c_str());
            else
                log->warnf("Image %s does not belong to study %s", sopUID.c_str(), expected.c_str());
            ++mCounts.skipped;
            continue;
        }
        ++mCounts.images;
        QByteArray const sopUID = TagFile::uidOf(image, DCM_SOPInstanceUID);
        std::unique_ptr<DcmDataset> owned(loader.fileFormat().getAndRemoveDataset());
        // The tree refuses a second image of one UID, so a slot taken here
        // means two datasets that the tree indexed as one. The earlier one
        // stays (it is the image the tree holds) and the later one is freed
        // here instead of being overwritten and lost.
        datasets.emplace(sopUID, DatasetAndPath{std::move(owned), path});
    }

    addVolumeInfo(tagFile, volumeFiles);

    mPreviewTimer.run();
    QList<QByteArray> previewUIDs;
    tagFile.selectPreviewImages2D(previewUIDs);
    done = 0;
    for (QByteArray const& uid : previewUIDs) {
        report("previews", ++done, previewUIDs.size());
        auto const found = datasets.find(uid);
        // By the image itself: the dataset's own UID text may differ from the
        // tree's key (UN values).
        if (found != datasets.end() && tagFile.addPreview(tagFile.findImage(uid), found->second.dataset.get(),
                                                          QString::fromStdString(found->second.path)))
            ++mCounts.previews;
    }
    mPreviewTimer.stop();

    if (mOptimize)
        tagFile.optimizeAll();
    for (std::string const& uid : seriesUIDs) {
        if (TagMap* series = tagFile.findSeries(QByteArray::fromStdString(uid)))
            series->putAndInsertInt(Tags::GeneratorMark, 1);
    }
    bool const written = tagFile.writeCacheFile();
    datasets.clear();
    return written;
}

} // namespace Mdx
