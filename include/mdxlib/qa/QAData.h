// One job of tag changes for existing tag files: an edit within a study, a
// move from one study to another, or an update of file suffixes. Filled
// from the job XML of UpdateTagFile and carried out by TagFile::applyQA.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>

#include <cstdint>

namespace Mdx {

struct MDX_EXPORT QAData
{
    // One tag change; (7FE0,0010) asks for a new preview instead.
    struct Element
    {
        uint16_t group = 0;
        uint16_t element = 0;
        QString value; // null until a value is read
    };

    // Null and empty differ where it matters: a null expectation is none.
    QByteArray suid;              // the target study
    QByteArray oldSUID;           // the source study of a move; cleared when equal to suid
    QByteArray expectedPatientID; // what the images must have before the job
    QByteArray expectedIssuer;
    QByteArray newPatientID; // the job's new (0010,0020), if any
    QByteArray newIssuer;    // the job's new (0010,0021), if any
    QList<Element> elements;
    QVector<QByteArray> imageUIDs; // SOP Instance UIDs of the images to change
    QVector<QByteArray> fileNames; // one path per image
    QByteArray timestamp;          // "yyyyMMddhhmmss"
    QByteArray login;
    // "old,new" pairs of the suffix job.
    QVector<QByteArray> imageSuffixes;
    QVector<QByteArray> volumeSuffixes;
};

} // namespace Mdx
