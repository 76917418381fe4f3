// A file being written that keeps the MD5 and the count of the bytes that
// pass through it, so that a container's digest is ready when its last byte
// is written, with no second read.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>

namespace Kz {

class MDX_EXPORT MD5File : public QFile
{
public:
    MD5File();

    // MD5 of the bytes written since the last resetHash(), as lower-case hex.
    QByteArray hash() const;
    // Bytes written since the last resetHash(). The file is written from its
    // start, so this is its size too, and also its write position.
    qint64 size() const override;

protected:
    void resetHash();
    // errno of the first write the file system did not take whole, or 0.
    int writeErrno() const;
    qint64 writeData(char const* data, qint64 length) override;

private:
    QCryptographicHash mHash;
    qint64 mWritten = 0;
    int mWriteErrno = 0;
};

} // namespace Kz
