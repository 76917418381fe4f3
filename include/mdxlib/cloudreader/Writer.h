// Writes .kz containers: ZIP archives of stored (uncompressed) members with a
// hidden first entry, the offset table, that gives a reader every member's
// name, data offset and size from the first bytes of the file.
//
// Layout, all numbers little-endian, offsets from the start of the file:
//   - the table entry: local header, name ".0", data = the table (magic
//     "KZ01", member count, then per member: name length, name, 2 zero
//     bytes, data offset, size); it has no central directory record, so ZIP
//     tools list the members only;
//   - each member: local header (flag bit 3, CRC 0), name, data, and a data
//     descriptor of CRC, size, size without signature;
//   - the central directory, one record per member, and its end record.
// Sizes and offsets are fixed before the first byte is written, so the file
// is written in one pass and its MD5 and size are ready at the end. The
// format has no room for 4 GB or more, nor for 65,536 members.
//
// The writer reports to standard error (or the stream given to
// setMessageStream): it is used by tools. A writer is a single-thread object.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudreader/MD5File.h>

#include <QByteArray>
#include <QDataStream>
#include <QDateTime>
#include <QString>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace Kz {

class MDX_EXPORT Writer : public MD5File
{
public:
    struct FileInZip
    {
        QString path;
        QByteArray name; // UTF-8
        quint32 size = 0;
        quint32 headerOffset = 0;
        quint16 time = 0;
        quint16 date = 0;
        quint32 crc = 0;
        QByteArray data; // not null for an entry held in memory
        quint32 expectedHeaderOffset = 0;

        // DOS time and date of dateTime in local time, kept within what the
        // fields can hold (1980 to 2107).
        void setDateTime(QDateTime const& dateTime);
    };

    // Called with the members written so far and the count of all, first
    // with 0 once the file is open.
    using ProgressCallback = std::function<void(std::size_t written, std::size_t total)>;

    Writer();
    ~Writer() override;

    // Writes the input files, in order, as the members of a container at
    // containerPath, each under its file name without folders. True on
    // success; otherwise the reasons went to the message stream and no file
    // is left behind (a file that was at containerPath stays as it was).
    bool write(QString const& containerPath, std::vector<QString> const& inputFiles);

    void setProgressCallback(ProgressCallback callback);
    // Where failures are reported; standard error unless set.
    void setMessageStream(std::ostream& stream);

    // 0 to 9 give '0' to '9', 10 to 35 'a' to 'z', anything else '-'.
    static char letter36(int value);
    // length random characters of letter36 (none for a length below 1).
    static std::string generate36(int length);
    // A container's file name from a text key and a running index: ten hex
    // digits of the MD5 of the key and a line feed, one or two letters of
    // the index, ".kz".
    static std::string containerFileName(char const* key, int index);

private:
    bool collectInputs(std::vector<QString> const& inputFiles);
    void createOffsetTable();
    void writeFileEntry(FileInZip& entry);
    void writeCentralDirectoryEntry(FileInZip const& entry);
    void writeEndOfCentralDirectoryEntry(unsigned int cdOffset, unsigned int cdSize, unsigned short count);
    void copyMember(FileInZip& entry);
    // Throws when the stream failed to write.
    void checkStream();
    // Why a write failed: the system's reason where one is known (lastErrno
    // is errno right after a failed call of the caller's), else Qt's.
    std::string writeError(int lastErrno = 0) const;
    void reportProgress(std::size_t written);

    QString mTarget; // the container's path, while the file has its working name
    QDataStream mStream;
    FileInZip mTable;
    std::vector<FileInZip> mFiles;
    ProgressCallback mProgress;
    std::ostream* mMessages;
};

} // namespace Kz
