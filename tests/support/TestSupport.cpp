#include "support/TestSupport.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>

#include <gtest/gtest.h>

#include <QDataStream>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace mdxtest {

namespace {
// Sample files are full of oddities that DCMTK warns about; the tests check
// what matters themselves.
struct QuietDcmtk
{
    QuietDcmtk() { OFLog::configure(OFLogger::ERROR_LOG_LEVEL); }
} const quietDcmtk;
} // namespace

QString samplesDir()
{
    QString dir = QString::fromLocal8Bit(std::getenv("MDX_SAMPLES"));
    if (dir.isEmpty())
        dir = QStringLiteral(MDX_TEST_SAMPLES_DIR);
    if (dir.isEmpty() || !QDir(dir).exists())
        return QString();
    return dir;
}

QStringList sampleFiles(QString const& subFolder)
{
    QString const root = samplesDir();
    if (root.isEmpty())
        return {};
    QStringList files;
    QDirIterator it(root + "/" + subFolder, QDir::Files,
                    QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
    while (it.hasNext())
        files.append(it.next());
    files.sort();
    return files;
}

std::map<std::string, QStringList> sampleStudies()
{
    std::map<std::string, QStringList> studies;
    for (QString const& file : sampleFiles(QString())) {
        DcmFileFormat fileFormat;
        if (fileFormat
                .loadFile(OFFilename(file.toLocal8Bit().constData()), EXS_Unknown, EGL_noChange, 4096,
                          ERM_autoDetect)
                .bad())
            continue;
        OFString study;
        OFString sop;
        fileFormat.getDataset()->findAndGetOFString(DCM_StudyInstanceUID, study);
        fileFormat.getDataset()->findAndGetOFString(DCM_SOPInstanceUID, sop);
        if (!study.empty() && !sop.empty())
            studies[study.c_str()].append(file);
    }
    return studies;
}

QString testDataDir()
{
    return QStringLiteral(MDX_TEST_DATA_DIR);
}

std::vector<QString> writeFiles(QString const& dir, std::vector<std::pair<QString, QByteArray>> const& files)
{
    std::vector<QString> paths;
    for (auto const& [name, bytes] : files) {
        paths.push_back(dir + "/" + name);
        if (!writeFile(paths.back(), bytes))
            return {};
    }
    return paths;
}

int runProgram(QString const& program, QStringList const& arguments, QByteArray* output, QByteArray* error,
               int timeoutMsec)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMsec) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished(5000);
        return -1;
    }
    if (output)
        *output = process.readAllStandardOutput();
    if (error)
        *error = process.readAllStandardError();
    return process.exitCode();
}

bool haveProgram(QString const& program)
{
    return !QStandardPaths::findExecutable(program).isEmpty();
}

QJsonObject zipOracle(QStringList const& arguments)
{
    QByteArray output;
    QString const script = testDataDir() + "/../support/zip_oracle.py";
    if (runProgram("python3", QStringList{script} + arguments, &output) != 0)
        return QJsonObject();
    return QJsonDocument::fromJson(output).object();
}

DcmDataset* makeImageDataset(char const* studyUID, char const* seriesUID, char const* sopUID)
{
    auto* dataset = new DcmDataset;
    dataset->putAndInsertString(DCM_SOPClassUID, UID_CTImageStorage);
    dataset->putAndInsertString(DCM_SOPInstanceUID, sopUID);
    dataset->putAndInsertString(DCM_StudyInstanceUID, studyUID);
    dataset->putAndInsertString(DCM_SeriesInstanceUID, seriesUID);
    dataset->putAndInsertString(DCM_PatientName, "Doe^Jane");
    dataset->putAndInsertString(DCM_PatientID, "P0001");
    dataset->putAndInsertString(DCM_Modality, "CT");
    dataset->putAndInsertString(DCM_SeriesNumber, "1");
    dataset->putAndInsertUint16(DCM_Rows, 512);
    dataset->putAndInsertUint16(DCM_Columns, 512);
    return dataset;
}

Mdx::TagMap* makeNode(QByteArray const& attributes)
{
    auto* map = new Mdx::TagMap;
    for (QString const& part : QString::fromLatin1(attributes).split('|', Qt::SkipEmptyParts)) {
        QStringList const name = part.section('=', 0, 0).split(':');
        QByteArray const value = part.section('=', 1).toLatin1();
        DcmTag tag;
        EXPECT_TRUE(DcmTag::findTagFromName(name[0].toLatin1().constData(), tag).good())
            << part.toStdString();
        Mdx::VR const vr =
            name.size() > 1 ? Mdx::fromDcmEVR(DcmVR(name[1].toLatin1().constData()).getEVR()) : Mdx::VR_LO;
        if (value == "~")
            map->markAsMissing(tag);
        else if (value == "!")
            map->markAsOmitted(tag);
        else
            map->putAndInsertValue(tag, vr, value);
    }
    return map;
}

Mdx::TagMap* link(Mdx::TagMap* parent, Mdx::TagMap* child)
{
    child->mParent = parent;
    parent->mChildren.append(child);
    return child;
}

Mdx::TagSequence* putSequence(Mdx::TagMap& node, DcmTagKey const& key, int count, bool numbered)
{
    auto* sequence = new Mdx::TagSequence;
    for (int i = 0; i < count; ++i) {
        sequence->addItem(makeNode(numbered ? "ReferencedSOPInstanceUID:UI=" + QByteArray::number(i) : ""));
        sequence->mItems.last()->mIsItem = true;
    }
    node.deleteElement(key);
    node.mElements.insert(key, sequence);
    return sequence;
}

Mdx::TagMap* addImage(Mdx::TagFile& file, std::string const& study, std::string const& series,
                      std::string const& sop, Attributes const& attributes, int numPixels,
                      char const* fileName, bool replace)
{
    std::unique_ptr<DcmDataset> dataset(makeImageDataset(study.c_str(), series.c_str(), sop.c_str()));
    std::vector<Uint16> const pixels(static_cast<size_t>(std::max(numPixels, 0)), 7);
    if (numPixels > 0)
        dataset->putAndInsertUint16Array(DCM_PixelData, pixels.data(), pixels.size());
    for (auto const& [key, value] : attributes)
        value ? dataset->putAndInsertString(key, value) : dataset->findAndDeleteElement(key);
    return file.addDataset(dataset.get(), fileName, replace);
}

QByteArray fileContents(QString const& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(QString const& path, QByteArray const& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray tagFileBytes(Mdx::TagFile const& file)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    EXPECT_TRUE(file.writeCacheFile(stream));
    return bytes;
}

bool readTagFile(Mdx::TagFile& file, QByteArray const& bytes, char const* study)
{
    QDataStream stream(bytes);
    return file.readCacheFile(stream, study);
}

void expectSameStoredTree(Mdx::TagMap const* expected, Mdx::TagMap const* actual)
{
    ASSERT_NE(actual, nullptr);
    std::string difference;
    EXPECT_TRUE(expected->compare(*actual, true, &difference)) << difference;
    ASSERT_EQ(expected->elements().keys(), actual->elements().keys());
    for (auto it = expected->elements().cbegin(); it != expected->elements().cend(); ++it) {
        Mdx::TagElement const* other = actual->ownElement(it.key());
        EXPECT_EQ(it.value()->mVR, other->mVR);
        bool const plain = !it.value()->isMarker() && !dynamic_cast<Mdx::TagSequence const*>(it.value());
        EXPECT_TRUE(!plain || it.value()->mValue == other->mValue) << it.key().toString().c_str();
    }
    EXPECT_EQ(expected->volumes().size(), actual->volumes().size());
    ASSERT_EQ(expected->children().size(), actual->children().size());
    for (int i = 0; i < expected->children().size(); ++i)
        expectSameStoredTree(expected->children()[i], actual->children()[i]);
}

ScopedEnv::~ScopedEnv()
{
    for (auto it = saved.rbegin(); it != saved.rend(); ++it)
        put(it->first, it->second);
}

ScopedEnv& ScopedEnv::set(std::string const& name, std::optional<std::string> const& value)
{
    char const* old = std::getenv(name.c_str());
    saved.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    put(name, value);
    return *this;
}

void ScopedEnv::put(std::string const& name, std::optional<std::string> const& value)
{
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
    ExResource::reloadConfiguration();
}

LogCapture::LogCapture()
{
    getTheLogInstance()->setWriteCallback([this](int level, std::string const& message) {
        std::lock_guard<std::mutex> lock(mutex);
        messages.emplace_back(level, message);
    });
}

LogCapture::~LogCapture()
{
    getTheLogInstance()->setWriteCallback(nullptr);
}

int LogCapture::count(int level, std::string const& part)
{
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(std::count_if(messages.begin(), messages.end(), [&](auto const& m) {
        return m.first == level && m.second.find(part) != std::string::npos;
    }));
}

std::vector<HistoryBlock> decodeHistory(QByteArray const& base64)
{
    QList<QByteArray> lines = QByteArray::fromBase64(base64).split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast(); // the newline that ends the last line
    std::vector<HistoryBlock> blocks;
    int i = 0;
    while (i < lines.size()) {
        HistoryBlock block;
        block.id = lines[i++].toStdString();
        while (i < lines.size() && !lines[i].isEmpty()) {
            std::vector<std::string> change;
            for (int part = 0; part < 3; ++part)
                change.push_back(i < lines.size() ? lines[i++].toStdString() : std::string("<missing>"));
            block.changes.push_back(change);
        }
        ++i; // the empty line that ends the block
        blocks.push_back(block);
    }
    return blocks;
}

} // namespace mdxtest
