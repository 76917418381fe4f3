// UpdateTagFile: reads a job from XML and applies it to tag files, in four
// stages (read the job, fill it, do the work, clean the file cache). Inside,
// a stage leaves by throwing a C string, its failure message.
#include <mdxlib/qa/UpdateTagFile.h>

#include <mdxlib/platform/ExFileCache.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/qa/QAData.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QXmlStreamReader>

#include <cstring>
#include <exception>
#include <vector>

namespace {

char const kCategory[] = "TagFile";
char const kXmlError[] = "Error reading OMA job XML";
char const kUpdateError[] = "Error updating tag file";
char const kSuffixError[] = "Error updating suffixes in tag file";
DcmTagKey const kPatientIDKey(0x0010, 0x0020);
DcmTagKey const kIssuerKey(0x0010, 0x0021);

// A text as bytes that are never null: an attribute or element that is
// there but empty is still a value.
QByteArray presentBytes(QStringRef const& text)
{
    QByteArray bytes = text.toLatin1();
    return bytes.isNull() ? QByteArray("") : bytes;
}

QByteArray presentBytes(QString const& text)
{
    QByteArray bytes = text.toLatin1();
    return bytes.isNull() ? QByteArray("") : bytes;
}

// A hexadecimal attribute of a Tag; anything else fails the stage, so that
// a typing error never becomes an edit of (0000,0000).
uint16_t hexAttribute(QXmlStreamAttributes const& attributes, char const* name, QString& error)
{
    QStringRef const text = attributes.value(QLatin1String(name));
    bool ok = false;
    unsigned const value = text.trimmed().toUInt(&ok, 16);
    if (!ok || value > 0xFFFF) {
        error = QStringLiteral("Tag attribute %1 \"%2\" is not a hexadecimal number")
                    .arg(QLatin1String(name), text.toString());
        throw kXmlError;
    }
    return static_cast<uint16_t>(value);
}

void readSuffixJob(QXmlStreamReader& xml, Mdx::QAData& job)
{
    while (xml.readNextStartElement()) {
        if (xml.name() == QLatin1String("S"))
            job.imageSuffixes.append(presentBytes(xml.readElementText()));
        else if (xml.name() == QLatin1String("V"))
            job.volumeSuffixes.append(presentBytes(xml.readElementText()));
        else
            xml.skipCurrentElement();
    }
}

void readEditJob(QXmlStreamReader& xml, Mdx::QAData& job, QString& error)
{
    for (; !xml.atEnd(); xml.readNext()) {
        if (!xml.isStartElement())
            continue;
        QStringRef const name = xml.name();
        QXmlStreamAttributes const attributes = xml.attributes();
        if (name == QLatin1String("Timestamp")) {
            job.timestamp = xml.readElementText().toLatin1();
        } else if (name == QLatin1String("Login")) {
            job.login = xml.readElementText().toLatin1();
        } else if (name == QLatin1String("Substitutions")) {
            if (!attributes.value(QLatin1String("OldSUID")).isEmpty())
                job.oldSUID = attributes.value(QLatin1String("OldSUID")).toLatin1();
            if (attributes.hasAttribute(QLatin1String("PatientID")))
                job.expectedPatientID = presentBytes(attributes.value(QLatin1String("PatientID")));
            if (attributes.hasAttribute(QLatin1String("IPID")))
                job.expectedIssuer = presentBytes(attributes.value(QLatin1String("IPID")));
        } else if (name == QLatin1String("Tag")) {
            Mdx::QAData::Element element;
            element.group = hexAttribute(attributes, "Group", error);
            element.element = hexAttribute(attributes, "Element", error);
            job.elements.append(element);
        } else if (name == QLatin1String("Value")) {
            QString const text = xml.readElementText();
            if (job.elements.isEmpty())
                continue;
            Mdx::QAData::Element& last = job.elements.last();
            if (last.value.isNull())
                last.value = text.isNull() ? QString(QLatin1String("")) : text;
            else
                last.value += QLatin1Char('\\') + text;
            DcmTagKey const key(last.group, last.element);
            if (key == kPatientIDKey)
                job.newPatientID = presentBytes(last.value);
            else if (key == kIssuerKey)
                job.newIssuer = presentBytes(last.value);
        }
    }
}

// Stage 1.
void readJob(char const* jobXml, Mdx::QAData& job, QString& error)
{
    QXmlStreamReader xml{QByteArray(jobXml)};
    while (!xml.atEnd() && !xml.isStartElement())
        xml.readNext();
    if (!xml.isStartElement()) {
        error = xml.hasError() ? xml.errorString() : QStringLiteral("no element in the job");
        throw kXmlError;
    }
    if (xml.name() == QLatin1String("UpdateSuffixes")) {
        readSuffixJob(xml, job);
        while (!xml.atEnd())
            xml.readNext(); // what follows the job must be well-formed too
    } else {
        readEditJob(xml, job, error);
    }
    error = xml.errorString();
    if (xml.hasError())
        throw kXmlError;
}

QList<QByteArray> splitPair(QByteArray const& entry)
{
    return entry.split(',');
}

// Stage 3 of a suffix job.
void updateSuffixes(Mdx::QAData const& job, char const* studyUID, QString& error)
{
    if (job.imageSuffixes.size() != job.imageUIDs.size()) {
        error = QStringLiteral("Suffix list and UID list have different lengths");
        throw kSuffixError;
    }
    Mdx::TagFile tagFile;
    if (!tagFile.readCacheFileForStudy(studyUID, true)) {
        error = QStringLiteral("Read error");
        throw kSuffixError;
    }
    McLogFile* log = getTheLogInstance();
    bool changed = false;
    for (int i = 0; i < job.imageSuffixes.size(); ++i) {
        QList<QByteArray> const parts = splitPair(job.imageSuffixes[i]);
        if (parts.size() != 2)
            continue;
        QByteArray const& uid = job.imageUIDs[i];
        Mdx::TagMap* image = tagFile.findImage(uid);
        if (!image) {
            log->tracef(McLogFile::LevelDebug, kCategory, "Could not find image %s (SUID %s)",
                        uid.constData(), studyUID);
            continue;
        }
        QByteArray suffix;
        if (!image->findAndGetString(Mdx::Tags::FileSuffix, suffix))
            continue;
        if (suffix == parts[0]) {
            if (parts[1] != parts[0]) {
                image->putAndInsertValue(Mdx::Tags::FileSuffix, Mdx::VR_LO, parts[1]);
                changed = true;
            }
        } else {
            log->tracef(McLogFile::LevelWarning, kCategory,
                        "Suffix %s of image %s does not match expected value %s (SUID %s)",
                        suffix.constData(), uid.constData(), parts[0].constData(), studyUID);
        }
    }
    if (!job.volumeSuffixes.isEmpty() && tagFile.study()) {
        QMap<QByteArray, Mdx::Volume*> volumes;
        for (Mdx::TagMap const* series : tagFile.study()->children()) {
            for (Mdx::Volume* volume : series->volumes()) {
                if (!volume->mFileNameSuffix.isEmpty() && !volumes.contains(volume->mFileNameSuffix))
                    volumes.insert(volume->mFileNameSuffix, volume);
            }
        }
        for (QByteArray const& entry : job.volumeSuffixes) {
            // An entry without its second part names nothing to change to.
            QList<QByteArray> const parts = splitPair(entry);
            if (parts.size() != 2)
                continue;
            Mdx::Volume* volume = volumes.value(parts[0], nullptr);
            if (!volume)
                continue;
            volume->mFileNameSuffix = parts[1];
            changed = true;
        }
    }
    if (changed && !tagFile.writeCacheFile()) {
        error = QStringLiteral("Write error");
        throw kSuffixError;
    }
}

int runJob(char const* jobXml, char const* studyUID, int numImages, char const** imageUIDs,
           char const** fileNames)
{
    QString error;
    int result = 0;
    try {
        if (!jobXml || !studyUID || numImages < 0 || (numImages > 0 && (!imageUIDs || !fileNames))) {
            error = QStringLiteral("Missing job, study or image list");
            throw kUpdateError;
        }
        Mdx::QAData job;
        readJob(jobXml, job, error);

        // Stage 2: the caller's arrays, wrapped without copying.
        job.suid = QByteArray::fromRawData(studyUID, static_cast<int>(std::strlen(studyUID)));
        job.imageUIDs.reserve(numImages);
        job.fileNames.reserve(numImages);
        for (int i = 0; i < numImages; ++i) {
            char const* uid = imageUIDs[i] ? imageUIDs[i] : "";
            job.imageUIDs.append(QByteArray::fromRawData(uid, static_cast<int>(std::strlen(uid))));
            job.fileNames.append(fileNames[i] ? QByteArray::fromRawData(
                                                    fileNames[i], static_cast<int>(std::strlen(fileNames[i])))
                                              : QByteArray());
        }

        // Stage 3.
        if (job.imageSuffixes.isEmpty() && job.volumeSuffixes.isEmpty()) {
            if (!Mdx::TagFile::applyQA(job, error))
                throw kUpdateError;
        } else {
            updateSuffixes(job, studyUID, error);
        }
        result = 1;
    } catch (char const* message) {
        getTheLogInstance()->errorf("%s: %s (SUID %s)", message, error.toUtf8().constData(),
                                    studyUID ? studyUID : "");
    }

    // Stage 4, also after a failure.
    ExFileCache cache;
    if (cache.init(0) && fileNames) {
        for (int i = 0; i < numImages; ++i) {
            if (fileNames[i] && std::strstr(fileNames[i], "Level1"))
                cache.removeBuffer(fileNames[i]);
        }
    }
    return result;
}

// No exception crosses an exported function, whatever its kind: the
// caller may be written in any language.
template <typename Body> int guarded(Body body)
{
    try {
        return body();
    } catch (std::exception const& e) {
        getTheLogInstance()->tracef(McLogFile::LevelError, kCategory, "UpdateTagFile failed: %s", e.what());
    } catch (...) {
        getTheLogInstance()->tracef(McLogFile::LevelError, kCategory,
                                    "UpdateTagFile failed: unknown exception");
    }
    return 0;
}

QByteArray fromWide(wchar_t const* text)
{
    if (!text)
        return QByteArray();
    return QString::fromUcs4(reinterpret_cast<uint const*>(text)).toUtf8();
}

} // namespace

int UpdateTagFile(const char* jobXml, const char* studyUID, int numImages, const char** imageUIDs,
                  const char** fileNames)
{
    return guarded([&] { return runJob(jobXml, studyUID, numImages, imageUIDs, fileNames); });
}

int UpdateTagFileW(const wchar_t* jobXml, const wchar_t* studyUID, int numImages, const wchar_t** imageUIDs,
                   const wchar_t** fileNames)
{
    static_assert(sizeof(wchar_t) == 4, "wide strings are UCS-4");
    return guarded([&] {
        QByteArray const job = fromWide(jobXml);
        QByteArray const study = fromWide(studyUID);
        int const count = numImages > 0 ? numImages : 0;
        std::vector<QByteArray> uids;
        std::vector<QByteArray> names;
        std::vector<char const*> uidPointers;
        std::vector<char const*> namePointers;
        for (int i = 0; i < count; ++i) {
            uids.push_back(imageUIDs ? fromWide(imageUIDs[i]) : QByteArray());
            names.push_back(fileNames ? fromWide(fileNames[i]) : QByteArray());
        }
        for (int i = 0; i < count; ++i) {
            uidPointers.push_back(uids[i].isNull() ? nullptr : uids[i].constData());
            namePointers.push_back(names[i].isNull() ? nullptr : names[i].constData());
        }
        return runJob(jobXml ? job.constData() : nullptr, studyUID ? study.constData() : nullptr, numImages,
                      imageUIDs ? uidPointers.data() : nullptr, fileNames ? namePointers.data() : nullptr);
    });
}
