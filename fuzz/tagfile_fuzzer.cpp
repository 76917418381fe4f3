// Fuzz target for the tag file reader.
//
// The reader must turn any byte sequence into either a refusal or a tree
// that the rest of the viewer can walk without surprises. A refusal alone
// proves little, so an accepted tree is used the way callers use it (flat
// copies of every image, previews, volumes slice by slice, a text dump,
// its DICOM JSON)
// and then written and read again: what the reader accepts, the writer must
// be able to store and the reader to take back.
//
// The same function runs in the normal test build (fuzz_replay_test) over
// the seed corpus and the damaged files kept with the tests, so the
// guarantees hold in builds without a fuzzing compiler too.
#include <mdxlib/json/DicomJsonWriter.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QByteArray>
#include <QDataStream>
#include <QJsonDocument>
#include <QString>
#include <QTextStream>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using Mdx::Volume;

// Refusals are logged by design; at fuzzing speed that would be all the
// fuzzer does.
void silenceLog()
{
    static bool const silenced = [] {
        getTheLogInstance()->setLogLevel(4);
        return true;
    }();
    (void)silenced;
}

[[noreturn]] void fail(char const* what)
{
    std::fprintf(stderr, "tagfile_fuzzer: %s\n", what);
    std::abort();
}

// A dump costs time in proportion to what a node sees, inherited
// attributes included; a small input of many images under one wide series
// would spend the fuzzer's time there and not in the reader.
constexpr int kMaxDumpedImages = 64;

// The results feed a checksum so that no call can be optimised away.
std::uint64_t mix(std::uint64_t sum, QByteArray const& bytes)
{
    for (char c : bytes)
        sum = sum * 1099511628211ull ^ static_cast<unsigned char>(c);
    return sum * 1099511628211ull ^ static_cast<std::uint64_t>(bytes.size());
}

std::uint64_t walkVolume(Volume const* volume, std::uint64_t sum)
{
    for (std::string const& uid : volume->sopUIDList())
        sum = mix(sum, QByteArray::fromStdString(uid));
    sum = mix(sum, volume->volumeHash());
    // One step outside on either side: the bounds belong to the contract.
    for (int slice = -1; slice <= volume->numSlices(); ++slice) {
        int frame = 0;
        TagMap const* image = volume->imageForSlice(slice, frame);
        if (image) {
            QByteArray uid;
            image->findAndGetString(DCM_SOPInstanceUID, uid);
            sum = mix(sum, uid);
        }
        sum = sum * 31 + static_cast<std::uint64_t>(frame);
    }
    for (int i = 0; i < volume->numImages(); ++i)
        sum = sum * 31 + (volume->image(i) ? 1 : 0);
    sum = sum * 31 + (volume->isMultiFrame() ? 1 : 0);
    sum = mix(sum, volume->previewData());
    // The rescale values are computed from the images' attributes, which
    // here are whatever the input says.
    float const slope = volume->rescaleSlope();
    float const intercept = volume->rescaleIntercept();
    float const loss = volume->precisionBitLoss();
    sum = sum * 31 + (slope == slope ? 1 : 0) + (intercept == intercept ? 2 : 0) + (loss == loss ? 4 : 0);
    return sum;
}

std::uint64_t dumpOf(TagMap const* node, std::uint64_t sum)
{
    QString text;
    QTextStream out(&text);
    node->dump(out, 0);
    out.flush();
    return mix(sum, text.toUtf8());
}

// The DICOM JSON of an image is a valid JSON object, whatever values and
// character sets the file holds.
std::uint64_t jsonOf(TagMap const* image, std::uint64_t sum)
{
    Mdx::DicomJsonWriter writer(nullptr);
    QByteArray text;
    writer.appendDataset(text, image);
    QJsonParseError error{};
    if (!QJsonDocument::fromJson(text, &error).isObject() || error.error != QJsonParseError::NoError)
        fail("the DICOM JSON of an accepted image is no valid JSON object");
    return mix(sum, text);
}

// The indexes name exactly the nodes of the tree, each under its own UID.
void checkIndexes(TagFile const& file)
{
    TagMap const* study = file.study();
    if (!study || study->parent())
        fail("an accepted file has no study at the root");
    int imageNodes = 0;
    for (TagMap const* series : study->children())
        imageNodes += series->children().size();
    if (study->children().size() != file.series().size() || imageNodes != file.images().size())
        fail("the indexes do not match the tree");
    for (auto it = file.series().cbegin(); it != file.series().cend(); ++it) {
        QByteArray uid;
        it.value()->findAndGetString(DCM_SeriesInstanceUID, uid);
        if (it.value()->parent() != study || uid != it.key())
            fail("a series is indexed under another UID or outside the study");
    }
    for (auto it = file.images().cbegin(); it != file.images().cend(); ++it) {
        QByteArray uid;
        it.value()->findAndGetString(DCM_SOPInstanceUID, uid);
        TagMap const* series = it.value()->parent();
        if (!series || series->parent() != study || uid != it.key())
            fail("an image is indexed under another UID or outside the tree");
    }
}

std::uint64_t walk(TagFile const& file)
{
    std::uint64_t sum = 0;
    int dumped = 0;
    for (TagMap const* image : file.images()) {
        std::unique_ptr<TagMap> const flat(image->clone());
        if (flat->parent() || !flat->children().isEmpty())
            fail("a flat copy is still linked into a tree");
        sum = sum * 31 + static_cast<std::uint64_t>(flat->elements().size());

        TagMap* previewImage = nullptr;
        sum = mix(sum, image->findPreviewData(&previewImage));

        if (dumped++ < kMaxDumpedImages) {
            sum = dumpOf(image, sum);
            sum = jsonOf(image, sum);
        }
    }
    TagMap const* study = file.study();
    if (!study)
        return sum;
    // Through the tree, the way a viewer lists a study; checkIndexes has
    // made sure the series index names the same nodes.
    for (TagMap const* series : study->children()) {
        TagMap* previewImage = nullptr;
        sum = mix(sum, series->findPreviewData(&previewImage));
        for (Volume const* volume : series->volumes())
            sum = walkVolume(volume, sum);
        sum = dumpOf(series, sum);
    }
    {
        TagMap* previewImage = nullptr;
        sum = mix(sum, study->findPreviewData(&previewImage));
        sum = dumpOf(study, sum);
    }
    return sum;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    silenceLog();
    if (size > 0x7FFFFFFF)
        return 0;

    QByteArray const bytes =
        QByteArray::fromRawData(reinterpret_cast<char const*>(data), static_cast<int>(size));
    TagFile file;
    {
        QDataStream stream(bytes);
        if (!file.readCacheFile(stream, nullptr))
            return 0;
    }

    checkIndexes(file);
    static volatile std::uint64_t sink = 0;
    sink = sink + walk(file);

    // Uncompressed, so that the second read checks the tree and not a codec.
    int const mode = TagFile::sCompressionMode;
    TagFile::sCompressionMode = 0;
    QByteArray written;
    bool ok = false;
    {
        QDataStream stream(&written, QIODevice::WriteOnly);
        ok = file.writeCacheFile(stream);
    }
    TagFile::sCompressionMode = mode;
    if (!ok)
        fail("an accepted tree could not be written");

    TagFile again;
    {
        QDataStream stream(written);
        if (!again.readCacheFile(stream, nullptr))
            fail("a written tree could not be read back");
    }
    if (again.images().size() != file.images().size())
        fail("the image count changed on the way through the writer");
    return 0;
}
