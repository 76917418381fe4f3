#include <mdxlib/cloudreader/CloudContainer.h>

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/cloudreader/FileController.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/platform/McFilename.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace Kz {

namespace {

// A local path as a file:// URL: absolute, and every byte but the unreserved
// ones and the slash percent-encoded, so that '#', '?', '%' or a space in a
// folder name stay part of the path.
std::string fileUrl(std::string const& path)
{
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(path, error);
    std::string const text = error ? path : absolute.lexically_normal().string();
    static char const hex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (unsigned char c : text) {
        bool const plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                           c == '-' || c == '.' || c == '_' || c == '~' || c == '/';
        if (plain) {
            url += static_cast<char>(c);
        } else {
            url += '%';
            url += hex[c >> 4];
            url += hex[c & 15];
        }
    }
    return url;
}

} // namespace

std::string CloudContainer::objectUrl(std::string const& name)
{
    return McFilename::isUrl(name.c_str()) ? name : fileUrl(name);
}

CloudContainer::CloudContainer(CloudReader& reader, std::string const& name)
    : mName(name)
    , mController(std::make_shared<FileController>(reader, objectUrl(name), 0))
{
    // Nothing that locks here: the reader makes containers with its mutex
    // held, which comes after a controller's. The object's size comes with
    // its first bytes, from a server as from curl's file:// protocol.
    mTable = std::make_unique<ContainerFile>(
        name,
        [this](long long offset, char* data, long long length) { return readRange(offset, data, length); },
        ContainerFile::LengthSource([this] { return mController->length(); }));
    reader.statistics().addContainerFile();
}

CloudContainer::~CloudContainer() = default;

std::shared_ptr<Container> CloudContainer::make(CloudReader& reader, std::string const& name)
{
    return std::make_shared<CloudContainer>(reader, name);
}

long long CloudContainer::readRange(long long offset, char* data, long long length)
{
    // Before the first bytes the size is unknown; once known, a read is cut
    // at the end, so that a table that claims more than the object holds
    // reads short (and is refused for that) instead of failing the file.
    long long const total = mController->length();
    if (total >= 0)
        length = std::min(length, std::max(0LL, total - offset));
    if (length <= 0)
        return 0;
    File file(mController, mController->url(), offset, length);
    long long done = 0;
    while (done < length) {
        long long const n = file.read(data + done, length - done);
        if (n < 0)
            return -1; // the request traced why
        if (n == 0)
            break;
        done += n;
    }
    return done;
}

std::shared_ptr<File> CloudContainer::makeFile(ContainerFile::Range const& range)
{
    auto file = std::make_shared<File>(mController, mController->url(), range.start, range.length);
    // An empty member has no byte to wait for; it may even sit at the very
    // end of the object, where no chunk could be asked for.
    if (range.length <= 0)
        file->close();
    return file;
}

std::shared_ptr<File> CloudContainer::open(char const* member, LmSessionContextID context)
{
    std::optional<ContainerFile::Range> const range = mTable->openMember(member, context);
    if (!range)
        return nullptr;
    mController->reader().statistics().addFileInContainer();
    return makeFile(*range);
}

std::shared_ptr<File> CloudContainer::openRange(char const* member, long long first, long long last)
{
    std::optional<ContainerFile::Range> const range = mTable->openMemberRange(member, first, last);
    if (!range)
        return nullptr;
    mController->reader().statistics().addFileInContainer();
    return makeFile(*range);
}

long long CloudContainer::fileLength(char const* member)
{
    return mTable->fileLength(member);
}

bool CloudContainer::removeContext(LmSessionContextID context)
{
    return mTable->removeContext(context);
}

std::chrono::steady_clock::time_point CloudContainer::lastAccess() const
{
    return mTable->lastAccess();
}

} // namespace Kz
