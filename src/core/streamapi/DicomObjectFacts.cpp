// What callers learn of a DICOM object without handling DICOM themselves:
// the facts of a video object, and the document of an encapsulated PDF.
#include <mdxlib/streamapi/StreamFunctions.h>

#include "Guarded.h"
#include "ObjectRange.h"

#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McLogFile.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcmetinf.h"

#include <QByteArray>

#include <cstdint>
#include <cstring>

namespace {

constexpr char kCategory[] = "GetPDF";
constexpr char kEncapsulatedPdf[] = "1.2.840.10008.5.1.4.1.1.104.1";
constexpr unsigned int kMaxUidLength = 64;
// The pixel data header lies at the length of what comes before it, or a
// little later: delimiters of sequences of undefined length add bytes that
// the length computation doesn't count. This much is searched from there.
constexpr int kSearchWindow = 8192;
constexpr int kSlack = 16;

// Set by the read callback when the parse stopped at the pixel data.
thread_local bool tStoppedAtPixelData = false;

LmDcmFileLoader::ReadResult stopAtPixelData(DcmTag const& tag, unsigned int const&)
{
    if (tag.getXTag() != DCM_PixelData)
        return LmDcmFileLoader::READ_CONTINUE;
    tStoppedAtPixelData = true;
    return LmDcmFileLoader::READ_STOP;
}

uint32_t littleEndian32(QByteArray const& bytes, int at)
{
    auto const* p = reinterpret_cast<unsigned char const*>(bytes.constData() + at);
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool isItemTag(QByteArray const& bytes, int at)
{
    return bytes.size() >= at + 8 && littleEndian32(bytes, at) == 0xE000FFFEu;
}

// Offset of the first byte behind the first header of an encapsulated
// (7FE0,0010) in bytes (explicit VR, OB or OW, undefined length, an item
// next); -1 if none.
int behindPixelDataHeader(QByteArray const& bytes)
{
    static char const tag[4] = {'\xE0', '\x7F', '\x10', '\x00'};
    for (int at = bytes.indexOf(QByteArray(tag, 4)); at >= 0;
         at = bytes.indexOf(QByteArray(tag, 4), at + 1)) {
        QByteArray const vr = bytes.mid(at + 4, 2);
        if ((vr == "OB" || vr == "OW") && bytes.size() >= at + 12 &&
            littleEndian32(bytes, at + 8) == 0xFFFFFFFFu && isItemTag(bytes, at + 12))
            return at + 12;
    }
    return -1;
}

// The first fragment of encapsulated pixel data whose header lies at or a
// little behind estimate: the item behind the basic offset table, which is
// the first item.
bool findFirstFragment(std::string const& path, long long estimate, unsigned long long& offset,
                       unsigned int& length)
{
    long long const from = std::max(0LL, estimate - kSlack);
    QByteArray head;
    if (!readObjectRange(path, from, kSearchWindow, head))
        return false;
    int const behind = behindPixelDataHeader(head);
    if (behind < 0)
        return false;
    long long const fragment = from + behind + 8 + littleEndian32(head, behind + 4);
    QByteArray item;
    if (!readObjectRange(path, fragment, 8, item) || !isItemTag(item, 0))
        return false;
    offset = static_cast<unsigned long long>(fragment + 8);
    length = littleEndian32(item, 4);
    return true;
}

// Where (7FE0,0010) starts when nothing but what the parse kept comes
// before it: preamble, magic, meta header, the elements before it.
long long pixelDataEstimate(DcmMetaInfo* meta, DcmDataset& dataset)
{
    long long const metaLength =
        meta && !meta->isEmpty() ? 132 + meta->getLength(EXS_LittleEndianExplicit, EET_ExplicitLength) : 0;
    return metaLength + dataset.getLength(dataset.getOriginalXfer(), EET_ExplicitLength);
}

int videoMetaInfo(char const* path, char* sopInstanceUid, unsigned long long* numberOfFrames,
                  unsigned long long* cineRate, unsigned long long* dataOffset, unsigned int* dataLength)
{
    // The parse stops at the pixel data: of the video only the headers of
    // its first two items are read, and what the parser took in one go.
    LmDcmFileLoader loader(LmDcmFileLoader::MODE_DEFAULT);
    tStoppedAtPixelData = false;
    OFCondition const status =
        loader.loadFile(OFFilename(path), EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect, stopAtPixelData);
    DcmDataset* dataset = loader.getDataset();
    if (status.bad() || !dataset)
        return 1;
    OFString uid;
    if (dataset->findAndGetOFString(DCM_SOPInstanceUID, uid).good() && uid.length() <= kMaxUidLength)
        std::memcpy(sopInstanceUid, uid.c_str(), uid.length() + 1);
    Sint32 value = 0;
    dataset->findAndGetSint32(DCM_NumberOfFrames, value);
    *numberOfFrames = static_cast<unsigned long long>(value);
    value = 0;
    dataset->findAndGetSint32(DCM_CineRate, value);
    *cineRate = static_cast<unsigned long long>(value);
    if (!tStoppedAtPixelData)
        return 1;
    return findFirstFragment(path, pixelDataEstimate(loader.getMetaInfo(), *dataset), *dataOffset,
                             *dataLength)
               ? 0
               : 1;
}

QByteArray* encapsulatedPdf(char const* path)
{
    McLogFile* log = getTheLogInstance();
    LmDcmFileLoader loader(LmDcmFileLoader::MODE_DEFAULT);
    OFCondition const status =
        loader.loadFile(OFFilename(path), EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect, nullptr);
    if (status.bad()) {
        log->tracef(3, kCategory, "Cannot open %s: %s", path, status.text());
        return nullptr;
    }
    DcmDataset* dataset = loader.getDataset();
    OFString sopClass;
    if (!dataset || dataset->findAndGetOFString(DCM_SOPClassUID, sopClass).bad() ||
        sopClass != kEncapsulatedPdf) {
        log->tracef(3, kCategory, "File is not an DICOM Encapsulated PDF: %s", path);
        return nullptr;
    }
    DcmElement* document = nullptr;
    if (dataset->findAndGetElement(DCM_EncapsulatedDocument, document).bad() || !document) {
        log->tracef(3, kCategory, "Cannot find DICOM tag EncapsulatedDocument: %s", path);
        return nullptr;
    }
    auto length = static_cast<unsigned int>(document->getLength(EXS_LittleEndianExplicit));
    Uint8* data = nullptr;
    if (document->getUint8Array(data).bad() || !data || length == 0) {
        log->tracef(3, kCategory, "Cannot access PDF data, len %u: %s", length, path);
        return nullptr;
    }
    // DICOM pads a value to even length with one NUL. Only that byte goes:
    // a document of even length may well end in any other byte ("%%EOF"),
    // and dropping that would cut the document.
    if (data[length - 1] == 0)
        --length;
    auto* bytes = new QByteArray(reinterpret_cast<char const*>(data), static_cast<int>(length));
    log->tracef(0, kCategory, "Successullfy read PDF data, len %u: %s", length, path);
    return bytes;
}

} // namespace

int GetVideoMetaInfo(char const* path, char* sopInstanceUid, unsigned long long* numberOfFrames,
                     unsigned long long* cineRate, unsigned long long* dataOffset, unsigned int* dataLength)
{
    if (!sopInstanceUid || !numberOfFrames || !cineRate || !dataOffset || !dataLength)
        return 1;
    sopInstanceUid[0] = '\0';
    *numberOfFrames = 0;
    *cineRate = 0;
    *dataOffset = static_cast<unsigned long long>(-1);
    *dataLength = 0;
    if (!path)
        return 1;
    return guarded("GetVideoMetaInfo", 1, [&] {
        return videoMetaInfo(path, sopInstanceUid, numberOfFrames, cineRate, dataOffset, dataLength);
    });
}

void* GetEncapsulatedPDF(char const* path, unsigned int* length, char const** data)
{
    if (!length || !data)
        return nullptr;
    *length = 0;
    *data = nullptr;
    if (!path)
        return nullptr;
    QByteArray* bytes = guarded("GetEncapsulatedPDF", static_cast<QByteArray*>(nullptr),
                                [&] { return encapsulatedPdf(path); });
    if (bytes) {
        *length = static_cast<unsigned int>(bytes->size());
        *data = bytes->constData();
    }
    return bytes;
}
