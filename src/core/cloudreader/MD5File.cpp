#include <mdxlib/cloudreader/MD5File.h>

#include <cerrno>

namespace Kz {

MD5File::MD5File()
    : mHash(QCryptographicHash::Md5)
{
}

QByteArray MD5File::hash() const
{
    return mHash.result().toHex();
}

qint64 MD5File::size() const
{
    return mWritten;
}

void MD5File::resetHash()
{
    mHash.reset();
    mWritten = 0;
    mWriteErrno = 0;
}

int MD5File::writeErrno() const
{
    return mWriteErrno;
}

qint64 MD5File::writeData(char const* data, qint64 length)
{
    errno = 0;
    qint64 const written = QFile::writeData(data, length);
    // Qt reports a write the file system cut short (a full disk, a file size
    // limit) as a short count with no error text; the reason is the errno of
    // the system call that stopped, right now.
    if (written != length && mWriteErrno == 0)
        mWriteErrno = errno;
    // Only what the file took counts; a failed write makes the stream fail.
    for (qint64 done = 0; done < written;) {
        int const piece = static_cast<int>(qMin<qint64>(written - done, 1 << 30));
        mHash.addData(data + done, piece);
        done += piece;
    }
    if (written > 0)
        mWritten += written;
    return written;
}

} // namespace Kz
