// DICOM JSON metadata written straight from a tag file.
//
// The json folder turns what a tag file knows of its images into the DICOM
// JSON model that web viewers read (the metadata answer of WADO-RS and
// QIDO-RS): one JSON object per image, in an array, without opening a
// single DICOM file.
//
// What each image shows, inherited attributes included and missing markers
// hiding what they hide, is written attribute by attribute; the system's
// own group 0006 is left out. Values the tag file keeps only as omitted
// markers (Pixel Data, values above the size limit) become "BulkDataURI"
// entries in the form of BulkDataUri. Text is converted to UTF-8 by the
// character set each dataset declares (CharacterSetDecoder); a dataset
// whose text was converted says "ISO_IR 192" in its (0008,0005), since that
// is what its text now is.
//
// Output is streamed: the writer holds one image's JSON at a time and hands
// it to the device, so a study of any size never needs its whole text in
// memory.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/json/CharacterSetDecoder.h>

#include <QByteArray>
#include <QString>

#include <map>

class QIODevice;

namespace Mdx {

class TagFile;
class TagMap;

class MDX_EXPORT DicomJsonWriter
{
public:
    // Writes to out, which must be open for writing (it may be null when
    // only appendDataset is used); pretty adds line breaks and indentation.
    explicit DicomJsonWriter(QIODevice* out, bool pretty = false);

    // Each writes one complete JSON array: every image of the study (series
    // by series, in the tree's order), of one series, or the one image.
    // False when the device refused bytes; errorString() says why.
    bool writeStudy(TagFile const& file);
    bool writeSeries(TagMap const* series);
    bool writeImage(TagMap const* image);

    QString const& errorString() const { return mError; }
    // Bytes handed to the device so far.
    qint64 bytesWritten() const { return mWritten; }

    // The JSON object of one image, appended to out: the unit the writer
    // streams, for callers that frame datasets themselves.
    void appendDataset(QByteArray& out, TagMap const* image, int depth = 0);

private:
    bool begin();
    bool add(TagMap const* image);
    bool end();
    bool flush();

    QIODevice* mOut;
    bool mPretty;
    bool mFirst = true;
    QByteArray mBuffer;
    QString mError;
    qint64 mWritten = 0;
    std::map<QByteArray, CharacterSetDecoder> mDecoders; // by declaration
};

} // namespace Mdx
