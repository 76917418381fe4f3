#include <mdxlib/cloudreader/Writer.h>

#include <mdxlib/cloudreader/CRC32.h>
#include <mdxlib/cloudreader/OffsetTable.h>

#include <QCryptographicHash>
#include <QFileInfo>
#include <QRandomGenerator64>
#include <QtEndian>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <stdexcept>

namespace Kz {

namespace {

constexpr quint32 kLocalHeaderSignature = 0x04034B50;
constexpr quint32 kCentralHeaderSignature = 0x02014B50;
constexpr quint32 kEndOfCentralDirectorySignature = 0x06054B50;
constexpr quint16 kVersion = 20;
// Bit 3: sizes and CRC stand in a data descriptor behind the data too.
constexpr quint16 kSizesInDescriptor = 0x0008;
// Bit 11: the name is UTF-8.
constexpr quint16 kUtf8Name = 0x0800;
constexpr qint64 kFourGigabytes = qint64(1) << 32;
constexpr qint64 kCopyBlock = 16384;
constexpr qint64 kLocalHeaderSize = 30;
constexpr qint64 kDescriptorSize = 12;
// Per member in the table: name length, 2 zero bytes, offset and size.
constexpr qint64 kTableEntryOverhead = 12;
char const kTableName[] = ".0";
char const kMagic[] = "KZ01";
char const kSizeLimit[] = "4GB file size limit exceeded";

std::string text(QString const& value)
{
    return QFile::encodeName(value).toStdString();
}

bool isAscii(QByteArray const& name)
{
    for (char c : name)
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    return true;
}

// Members carry bit 3. A name beyond ASCII also carries bit 11: without it
// ZIP tools read the name as code page 437 and would extract the member
// under another name. The table entry, named ".0", keeps flags 0, which is
// what readers check.
quint16 memberFlags(QByteArray const& name)
{
    return isAscii(name) ? kSizesInDescriptor : kSizesInDescriptor | kUtf8Name;
}

void appendLe16(QByteArray& bytes, quint16 value)
{
    char raw[2];
    qToLittleEndian(value, raw);
    bytes.append(raw, 2);
}

void appendLe32(QByteArray& bytes, quint32 value)
{
    char raw[4];
    qToLittleEndian(value, raw);
    bytes.append(raw, 4);
}

// Where the container is written until it is complete: beside its final
// place, so that the last step is one rename within a file system.
QString partPath(QString const& containerPath)
{
    return QFileInfo(containerPath).absolutePath() + "/.kz-" +
           QString::fromStdString(Writer::generate36(12)) + ".part";
}

} // namespace

void Writer::FileInZip::setDateTime(QDateTime const& dateTime)
{
    // DOS dates count years from 1980 in 7 bits: a file time outside that
    // span is stored as its nearest end rather than as a wrapped year.
    QDateTime const local = dateTime.toLocalTime();
    QDate day = local.date();
    QTime clock = local.time();
    if (!local.isValid() || day.year() < 1980) {
        day = QDate(1980, 1, 1);
        clock = QTime(0, 0);
    } else if (day.year() > 2107) {
        day = QDate(2107, 12, 31);
        clock = QTime(23, 59, 58);
    }
    time = static_cast<quint16>(clock.hour() << 11 | clock.minute() << 5 | clock.second() / 2);
    date = static_cast<quint16>((day.year() - 1980) << 9 | day.month() << 5 | day.day());
}

Writer::Writer()
    : mMessages(&std::cerr)
{
}

Writer::~Writer() = default;

void Writer::setProgressCallback(ProgressCallback callback)
{
    mProgress = std::move(callback);
}

void Writer::setMessageStream(std::ostream& stream)
{
    mMessages = &stream;
}

void Writer::reportProgress(std::size_t written)
{
    if (mProgress)
        mProgress(written, mFiles.size());
}

bool Writer::collectInputs(std::vector<QString> const& inputFiles)
{
    mFiles.clear();
    if (inputFiles.size() >= kMaxContainerEntries) {
        *mMessages << "Too many input files.\n";
        return false;
    }
    // Members are found by name, the first of equal names winning: a second
    // file of the same name would be stored but could never be read.
    std::map<QByteArray, QString> names;
    for (QString const& path : inputFiles) {
        QFileInfo const info(path);
        if (!info.exists()) {
            *mMessages << "Input file " << text(path) << " does not exist.\n";
            return false;
        }
        // A folder or a device has no size to put in the table.
        if (!info.isFile()) {
            *mMessages << "Input file " << text(path) << " is not a regular file.\n";
            return false;
        }
        if (info.size() >= kFourGigabytes) {
            *mMessages << "Input file " << text(path) << " too large.\n";
            return false;
        }
        FileInZip file;
        file.path = path;
        file.name = info.fileName().toUtf8();
        // Name lengths are 16-bit fields; no file system here makes longer
        // names, but a wrapped length would misplace every later byte.
        if (file.name.size() > 0xFFFF) {
            *mMessages << "Input file " << text(path) << " has too long a name.\n";
            return false;
        }
        auto const [previous, isNew] = names.emplace(file.name, path);
        if (!isNew) {
            *mMessages << "Input files " << text(previous->second) << " and " << text(path)
                       << " have the same name.\n";
            return false;
        }
        file.size = static_cast<quint32>(info.size());
        file.setDateTime(info.lastModified());
        mFiles.push_back(std::move(file));
    }
    return true;
}

bool Writer::write(QString const& containerPath, std::vector<QString> const& inputFiles)
{
    if (!collectInputs(inputFiles))
        return false;
    // The container is written under a new name of its own and renamed into
    // place when complete: a failure then removes only what this call
    // created, and a file that was at containerPath (an older container, or
    // one of the inputs) is neither truncated nor removed.
    mTarget = containerPath;
    setFileName(partPath(containerPath));
    resetHash();
    bool created = false;
    try {
        createOffsetTable();
        if (!open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            *mMessages << "Cannot open " << text(containerPath) << " for writing: " << text(errorString())
                       << '\n';
            setFileName(containerPath);
            return false;
        }
        created = true;
        mStream.setDevice(this);
        mStream.setByteOrder(QDataStream::LittleEndian);
        reportProgress(0);

        writeFileEntry(mTable);
        for (std::size_t i = 0; i < mFiles.size(); ++i) {
            writeFileEntry(mFiles[i]);
            reportProgress(i + 1);
        }
        qint64 const cdOffset = size();
        if (cdOffset >= kFourGigabytes)
            throw std::length_error(kSizeLimit);
        for (FileInZip const& file : mFiles)
            writeCentralDirectoryEntry(file);
        writeEndOfCentralDirectoryEntry(static_cast<unsigned>(cdOffset),
                                        static_cast<unsigned>(size() - cdOffset),
                                        static_cast<unsigned short>(mFiles.size()));

        mStream.setDevice(nullptr);
        errno = 0;
        if (!flush()) {
            int const lastErrno = errno;
            throw std::runtime_error("Could not write to " + text(containerPath) + ": " +
                                     writeError(lastErrno));
        }
        close();
        if (error() != QFileDevice::NoError)
            throw std::runtime_error("Could not write to " + text(containerPath) + ": " + writeError());
        if (std::rename(QFile::encodeName(fileName()).constData(),
                        QFile::encodeName(containerPath).constData()) != 0)
            throw std::runtime_error("Could not write to " + text(containerPath) + ": " +
                                     std::strerror(errno));
        setFileName(containerPath);
        return true;
    } catch (std::exception const& error) {
        *mMessages << error.what() << '\n';
        mStream.setDevice(nullptr);
        if (isOpen())
            close();
        if (created && !remove())
            *mMessages << "Could not remove " << text(fileName()) << ": " << text(errorString()) << '\n';
        setFileName(containerPath);
        return false;
    }
}

void Writer::createOffsetTable()
{
    qint64 tableSize = 8;
    for (FileInZip const& file : mFiles)
        tableSize += file.name.size() + kTableEntryOverhead;
    qint64 headerOffset = kLocalHeaderSize + 2 + tableSize;

    QByteArray table;
    table.reserve(static_cast<int>(qMin<qint64>(tableSize, 1 << 30)));
    table.append(kMagic, 4);
    appendLe32(table, static_cast<quint32>(mFiles.size()));
    for (FileInZip& file : mFiles) {
        file.expectedHeaderOffset = static_cast<quint32>(headerOffset);
        qint64 const dataOffset = headerOffset + kLocalHeaderSize + file.name.size();
        if (dataOffset > 0xFFFFFFFF)
            throw std::length_error(kSizeLimit);
        appendLe16(table, static_cast<quint16>(file.name.size()));
        table.append(file.name);
        appendLe16(table, 0);
        appendLe32(table, static_cast<quint32>(dataOffset));
        appendLe32(table, file.size);
        headerOffset = dataOffset + file.size + kDescriptorSize;
    }
    // The central directory starts where the last member ends; its offset is
    // 32-bit too. Known now, before a byte is written.
    if (headerOffset >= kFourGigabytes)
        throw std::length_error(kSizeLimit);
    if (table.size() != tableSize)
        throw std::logic_error("Internal error");

    mTable = FileInZip();
    mTable.name = kTableName;
    mTable.setDateTime(QDateTime::currentDateTime());
    mTable.size = static_cast<quint32>(tableSize);
    mTable.data = table;
    mTable.expectedHeaderOffset = 0;
}

std::string Writer::writeError(int lastErrno) const
{
    if (writeErrno() != 0)
        return std::strerror(writeErrno());
    if (lastErrno != 0)
        return std::strerror(lastErrno);
    if (error() != QFileDevice::NoError)
        return text(errorString());
    return "the data was not all written";
}

void Writer::checkStream()
{
    if (mStream.status() != QDataStream::Ok) {
        *mMessages << "Could not write to " << text(mTarget) << ": " << writeError() << '\n';
        throw std::runtime_error("I/O error");
    }
}

void Writer::writeFileEntry(FileInZip& entry)
{
    qint64 const position = size();
    if (position >= kFourGigabytes)
        throw std::length_error(kSizeLimit);
    entry.headerOffset = static_cast<quint32>(position);
    if (entry.headerOffset != entry.expectedHeaderOffset)
        throw std::logic_error("Internal error");

    bool const inMemory = !entry.data.isNull();
    quint16 flags = memberFlags(entry.name);
    if (inMemory) {
        CRC32 crc;
        crc.reset();
        crc.addData(entry.data.constData(), entry.data.size());
        entry.crc = crc.getCRC();
        entry.size = static_cast<quint32>(entry.data.size());
        flags = 0;
    }
    mStream << kLocalHeaderSignature << kVersion << flags << quint16(0) << entry.time << entry.date
            << (inMemory ? entry.crc : quint32(0)) << entry.size << entry.size
            << static_cast<quint16>(entry.name.size()) << quint16(0);
    mStream.writeRawData(entry.name.constData(), entry.name.size());
    checkStream();
    if (inMemory) {
        mStream.writeRawData(entry.data.constData(), entry.data.size());
        checkStream();
        return;
    }
    copyMember(entry);
    mStream << entry.crc << entry.size << entry.size;
    checkStream();
}

void Writer::copyMember(FileInZip& entry)
{
    QFile input(entry.path);
    if (!input.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        *mMessages << "Could not open " << text(entry.path) << " for reading: " << text(input.errorString())
                   << '\n';
        throw std::runtime_error("I/O error");
    }
    CRC32 crc;
    crc.reset();
    char block[kCopyBlock];
    qint64 count = 0;
    // Exactly the size the table and the headers announce. A file that grew
    // since it was measured is stored as its first size bytes: copying the
    // extra bytes would put the data descriptor and every later offset out of
    // place, and ZIP tools would reject an archive written "successfully".
    while (count < entry.size) {
        qint64 const got = input.read(block, qMin<qint64>(kCopyBlock, entry.size - count));
        if (got < 0) {
            *mMessages << "Could not read from " << text(entry.path) << ": " << text(input.errorString())
                       << '\n';
            throw std::runtime_error("I/O error");
        }
        if (got == 0) {
            *mMessages << "Unexpected EOF " << text(entry.path) << ": expected " << entry.size
                       << " bytes, got " << count << '\n';
            throw std::runtime_error("I/O error");
        }
        crc.addData(block, static_cast<int>(got));
        mStream.writeRawData(block, static_cast<int>(got));
        checkStream();
        count += got;
    }
    entry.crc = crc.getCRC();
}

void Writer::writeCentralDirectoryEntry(FileInZip const& entry)
{
    mStream << kCentralHeaderSignature << kVersion << kVersion << memberFlags(entry.name) << quint16(0)
            << entry.time << entry.date << entry.crc << entry.size << entry.size
            << static_cast<quint16>(entry.name.size()) << quint16(0) << quint16(0) << quint16(0) << quint16(0)
            << quint32(0) << entry.headerOffset;
    mStream.writeRawData(entry.name.constData(), entry.name.size());
    checkStream();
}

void Writer::writeEndOfCentralDirectoryEntry(unsigned int cdOffset, unsigned int cdSize, unsigned short count)
{
    mStream << kEndOfCentralDirectorySignature << quint16(0) << quint16(0) << quint16(count) << quint16(count)
            << quint32(cdSize) << quint32(cdOffset) << quint16(0);
    checkStream();
}

char Writer::letter36(int value)
{
    if (value >= 0 && value <= 9)
        return static_cast<char>('0' + value);
    if (value >= 10 && value <= 35)
        return static_cast<char>('a' + value - 10);
    return '-';
}

std::string Writer::generate36(int length)
{
    std::string result;
    if (length < 1)
        return result;
    result.reserve(static_cast<std::size_t>(length));
    QRandomGenerator64* random = QRandomGenerator64::system();
    quint64 value = random->generate();
    for (int i = 0; i < length; ++i) {
        result += letter36(static_cast<int>(value % 36));
        value /= 36;
        if (value == 0)
            value = random->generate();
    }
    return result;
}

std::string Writer::containerFileName(char const* key, int index)
{
    QByteArray keyLine(key ? key : "");
    keyLine.append('\n');
    std::string name =
        QCryptographicHash::hash(keyLine, QCryptographicHash::Md5).left(5).toHex().toStdString();
    if (index >= 36)
        name += letter36(index / 36);
    name += letter36(index % 36);
    name += ".kz";
    return name;
}

} // namespace Kz
