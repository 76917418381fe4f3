#include <mdxlib/cloudreader/MD5File.h>

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
}

qint64 MD5File::writeData(char const* data, qint64 length)
{
    qint64 const written = QFile::writeData(data, length);
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
