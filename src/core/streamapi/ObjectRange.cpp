#include "ObjectRange.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McFilename.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

bool readUrlRange(std::string const& url, long long first, int count, QByteArray& bytes)
{
    std::string const range = std::to_string(first) + "-" + std::to_string(first + count - 1);
    LmCurlDownloadStream stream = LmCurlClient::instance()->readRange(url, range, false);
    LmHttpStatus const& status = stream.httpStatus();
    // A server that ignores the range answers 200 with the whole object.
    if (status.curlError || !(status.responseCode == 206 || (status.responseCode == 200 && first == 0)))
        return false;
    bytes.resize(count);
    stream.read(bytes.data(), count);
    bytes.resize(static_cast<int>(stream.gcount()));
    return true;
}

bool readCloudRange(std::string const& url, long long first, int count, QByteArray& bytes)
{
    std::shared_ptr<Kz::File> file = Kz::CloudReader::instance().openFileRange(url, first, first + count - 1);
    if (!file)
        return false;
    bytes.resize(count);
    int done = 0;
    while (done < count) {
        long long const n = file->read(bytes.data() + done, count - done);
        if (n < 0)
            return false;
        if (n == 0)
            break;
        done += static_cast<int>(n);
    }
    bytes.resize(done);
    return true;
}

bool readLocalRange(std::string const& path, long long first, int count, QByteArray& bytes)
{
    int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bytes.resize(count);
    ssize_t const n = ::pread(fd, bytes.data(), static_cast<size_t>(count), first);
    ::close(fd);
    if (n < 0)
        return false;
    bytes.resize(static_cast<int>(n));
    return true;
}

} // namespace

bool readObjectRange(std::string const& path, long long first, int count, QByteArray& bytes)
{
    if (first < 0 || count <= 0)
        return false;
    std::string name = path.substr(0, path.find('?'));
    char const* const text = name.c_str();
    if (McFilename::isInContainer(text) || McFilename::isWado(text)) {
        LmDcmFileLoader::convertPathToURL(name);
        return readCloudRange(name, first, count, bytes);
    }
    if (McFilename::isUrl(text))
        return readUrlRange(name, first, count, bytes);
    // A file-server path is read where the loader reads it: from the file
    // server in the HTTP and cloud modes, else as a local file.
    LmDcmFileLoader::Mode const mode = LmDcmFileLoader::defaultMode();
    std::string url = name;
    if ((mode == LmDcmFileLoader::MODE_HTTP || mode == LmDcmFileLoader::MODE_CLOUD) &&
        LmDcmFileLoader::convertPathToURL(url))
        return readUrlRange(url, first, count, bytes);
    return readLocalRange(name, first, count, bytes);
}
