// Reading a set of files and folders into one study tree per study: the
// first half of both `mdx scan` and `mdx build`.
#pragma once

#include <mdxlib/tagfile/TagFile.h>

#include <QByteArray>
#include <QStringList>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace mdxtool {

class Progress;

struct StudyScan
{
    Mdx::TagFile tagFile;
    int64_t flatAttributes = 0;   // every image on its own
    int64_t mergedAttributes = 0; // after merging, before optimising
    int64_t optimizedAttributes = 0;
    int64_t optimizeMsec = 0;
};

// Files that did not become images, by why.
struct SkipCounts
{
    int64_t unreadable = 0;
    int64_t damaged = 0;
    int64_t notDicom = 0;
    int64_t withoutUIDs = 0;
    int64_t duplicates = 0;

    void count(Mdx::TagFile::AddResult why);
};

struct ScanResult
{
    std::map<QByteArray, std::unique_ptr<StudyScan>> studies;
    std::vector<std::string> missing; // named paths that do not exist
    int64_t files = 0;
    int64_t images = 0;
    SkipCounts skipped;
    double seconds = 0;
};

struct ScanOptions
{
    bool verbose = false;
    bool storeFilePaths = false;
    int jobs = 1; // threads that parse files
};

// Reads every file under paths (folders recursively, in name order), merges
// each DICOM image into the tree of its study and optimises every tree.
// Paths that do not exist are reported on standard error and skipped.
ScanResult scanPaths(std::vector<std::string> const& paths, ScanOptions const& options, Progress& progress);

// The files under paths (folders recursively), each folder's in name order;
// paths that do not exist are reported and go to missing. The walk may be
// long on a network share, hence the progress.
QStringList collectFiles(std::vector<std::string> const& paths, std::vector<std::string>& missing,
                         Progress& progress);

// Files that are not DICOM are expected among the inputs, and the tool says
// itself why it skips a file: DCMTK's own log stays quiet.
void quietDicomLog();

// Attributes stored in a node and its subtree, sequence items included.
int64_t countStored(Mdx::TagMap const* node);

// Why a file was skipped, in a few words.
char const* skipText(Mdx::TagFile::AddResult why);

} // namespace mdxtool
