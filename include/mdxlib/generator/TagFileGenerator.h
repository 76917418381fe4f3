// Building a study's tag file from scratch, from the files the catalog lists.
//
// Every DICOM file of the study is read through the file loader (so a path
// may be local, on a file server, a URL or a container member) and added to
// the tree; every volume file is read for its header and becomes a volume of
// its series; the images chosen for 2D previews get them from the datasets
// still in memory, so no file is read twice. Files that cannot be read are
// skipped and the tag file is written with the rest. One instance serves one
// job at a time, on the caller's thread.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McBox3f.h>

#include <QByteArray>
#include <QSet>

#include <functional>
#include <string>
#include <vector>

class LmVolume;

namespace Mdx {

class TagFile;
struct VolumeInfo;

class MDX_EXPORT TagFileGenerator
{
public:
    // What a run did, for reports.
    struct Counts
    {
        int dicomFiles = 0;  // listed by the catalog
        int images = 0;      // added to the tree
        int skipped = 0;     // unreadable, of another study, or refused
        int volumeFiles = 0; // listed by the catalog
        int volumes = 0;     // volume files that gave a record
        int previews = 0;    // 2D previews made
    };
    // Called after each file of a phase ("read" DICOM files, "volumes",
    // "previews") with the files done and the phase's total.
    using ProgressCallback = std::function<void(char const* phase, int done, int total)>;

    // A null userName means "dw_administrator".
    explicit TagFileGenerator(char const* userName = nullptr, bool optimize = true);
    ~TagFileGenerator();
    TagFileGenerator(TagFileGenerator const&) = delete;
    TagFileGenerator& operator=(TagFileGenerator const&) = delete;

    // The same rule; replaces both.
    void setOptions(char const* userName, bool optimize);
    void setProgressCallback(ProgressCallback callback) { mProgress = std::move(callback); }

    // Builds and writes the tag file of the catalog's study studyId.
    bool createTagFile(int studyId);
    // The same into tagFile; with studyUID, files are checked to be of that
    // study up to the first one accepted. The result of writeCacheFile, or
    // false when the catalog could not list the files (nothing is written).
    bool createTagFile(TagFile& tagFile, int studyId, char const* studyUID);
    // Milliseconds spent reading DICOM files, volume files and making
    // previews in the last run.
    void getTimings(int& loadMs, int& volumeMs, int& previewMs) const;
    Counts const& counts() const { return mCounts; }

    // One volume file's header as a record, with seriesUID set to the
    // series it names (left as it is when it names none). Null when the
    // file cannot be read or lists no SOP instances. The caller owns it.
    VolumeInfo* createVolumeInfo(char const* path, QByteArray& seriesUID);
    // Reads all volume files and attaches their volumes to their series:
    // numbered within a series in the order given, series in UID order.
    void addVolumeInfo(TagFile& tagFile, std::vector<std::string> const& volumeFiles);
    // The SUV crop box from the voxels of a loaded PET volume (level 1 when
    // it has one, else level 0; unsigned 16-bit values); the empty box when
    // the volume has no SUV or no such voxels.
    static void recomputeSUVBox(LmVolume* volume, McBox3i& box);

private:
    // Time summed over the spans between run() and stop().
    class Timer
    {
    public:
        void reset() { mSeconds = 0.0; }
        void run();
        void stop();
        int msec() const { return static_cast<int>(mSeconds * 1000.0 + 0.5); }

    private:
        double mSeconds = 0.0;
        double mStart = 0.0;
    };

    void report(char const* phase, int done, int total) const;

    // SOP UIDs of multi-frame images that gave a volume preview in this run.
    QSet<QByteArray> mSeenMultiFrameImages;
    std::string mUserName;
    bool mOptimize = true;
    Timer mLoadTimer;
    Timer mVolumeTimer;
    Timer mPreviewTimer;
    Counts mCounts;
    ProgressCallback mProgress;
};

} // namespace Mdx
