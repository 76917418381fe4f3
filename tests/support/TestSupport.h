// Helpers shared by the tests: where the sample data lies, and small
// builders of DICOM datasets.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class DcmDataset;
namespace Mdx {
class TagFile;
class TagMap;
class TagSequence;
} // namespace Mdx

namespace mdxtest {

// The installed real-world samples (scripts/fetch-samples.sh), or empty when
// they are not installed.
QString samplesDir();
// All files under a folder of the samples, sorted; empty when absent.
QStringList sampleFiles(QString const& subFolder);
// The files of the samples that DCMTK reads as DICOM with a SOP Instance UID,
// grouped by Study Instance UID.
std::map<std::string, QStringList> sampleStudies();

// Folder of the data committed with the tests.
QString testDataDir();

// A dataset with the UIDs of one image and a few common attributes.
DcmDataset* makeImageDataset(char const* studyUID, char const* seriesUID, char const* sopUID);

// A tag map node from "Name=value|gggg,eeee=value|Name:VR=value" (VR LO
// unless given); the value "~" makes a missing marker, "!" an omitted one.
Mdx::TagMap* makeNode(QByteArray const& attributes);
// child, linked below parent.
Mdx::TagMap* link(Mdx::TagMap* parent, Mdx::TagMap* child);
// Replaces key by a sequence of count items, item i holding Referenced SOP
// Instance UID i when numbered.
Mdx::TagSequence* putSequence(Mdx::TagMap& node, DcmTagKey const& key, int count, bool numbered = false);

// Attributes to set on a dataset; a null value deletes the attribute.
using Attributes = std::vector<std::pair<DcmTagKey, char const*>>;

// Adds an image of makeImageDataset with the attributes and, when above 0,
// numPixels 16-bit pixel values (over 1 KB they are left on disk).
Mdx::TagMap* addImage(Mdx::TagFile& file, std::string const& study, std::string const& series,
                      std::string const& sop, Attributes const& attributes = {}, int numPixels = 0,
                      char const* fileName = nullptr, bool replace = false);

// The bytes of a file, empty when it cannot be read.
QByteArray fileContents(QString const& path);
// Writes the bytes to a file, making its folder first; false on any failure.
bool writeFile(QString const& path, QByteArray const& bytes);
// Writes each (file name, contents) pair as a file in dir; the paths in the
// same order, or none when a file could not be written.
std::vector<QString> writeFiles(QString const& dir, std::vector<std::pair<QString, QByteArray>> const& files);
// A tag file as written in the current compression mode, and read back from
// such bytes (the named study, or the first).
QByteArray tagFileBytes(Mdx::TagFile const& file);
bool readTagFile(Mdx::TagFile& file, QByteArray const& bytes, char const* study = nullptr);

// Each node of actual stores what the same node of expected stores: the same
// keys, VRs, plain values and number of volumes, and no difference that
// compare() sees.
void expectSameStoredTree(Mdx::TagMap const* expected, Mdx::TagMap const* actual);

// Runs a program and waits for it: its exit status, or -1 when it could not
// start, crashed or ran longer than timeoutMsec. Its standard output and
// error go where the pointers say.
int runProgram(QString const& program, QStringList const& arguments, QByteArray* output = nullptr,
               QByteArray* error = nullptr, int timeoutMsec = 120000);
// Whether a program is on the PATH.
bool haveProgram(QString const& program);
// Python's zipfile on ZIP archives (support/zip_oracle.py, which documents
// the commands): the JSON it prints, or null when it failed to run.
QJsonObject zipOracle(QStringList const& arguments);
// One block of a QA history: the step's id and its changes as (key, old,
// new), key in the form "0010-0010".
struct HistoryBlock
{
    std::string id;
    std::vector<std::vector<std::string>> changes;
};
// Decodes a history value (base64) by the format of its lines: an id line,
// then three lines per change (key, old, new), then an empty line in place
// of a key.
std::vector<HistoryBlock> decodeHistory(QByteArray const& base64);

// Sets or unsets environment variables (rereading the configuration), and
// puts them back when it goes.
struct ScopedEnv
{
    ~ScopedEnv();
    ScopedEnv& set(std::string const& name, std::optional<std::string> const& value);
    ScopedEnv& unset(std::string const& name) { return set(name, std::nullopt); }
    static void put(std::string const& name, std::optional<std::string> const& value);
    std::vector<std::pair<std::string, std::optional<std::string>>> saved;
};

// The log messages written while it lives, from any thread.
struct LogCapture
{
    LogCapture();
    ~LogCapture();
    int count(int level, std::string const& part = "");
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> messages;
};

} // namespace mdxtest

// Skips the current test when the sample data is not installed.
#define MDX_REQUIRE_SAMPLES()                                                                                \
    do {                                                                                                     \
        if (mdxtest::samplesDir().isEmpty())                                                                 \
            GTEST_SKIP() << "sample data not installed; run scripts/fetch-samples.sh";                       \
    } while (0)
