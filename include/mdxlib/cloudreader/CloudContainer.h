// A .kz container read through the cloud reader: the reader's Kz::Container.
//
// One Kz::FileController serves the whole object, from offset 0. The offset
// table is read from its first bytes by Kz::ContainerFile, through Kz::Files
// on that controller, and every member opens as a Kz::File on the same
// controller with the member's byte range. Read-ahead thus runs through the
// object across member borders, each page is fetched once however many
// members touch it, and a study of many small files costs a few large ranged
// GETs instead of one GET per file.
//
// The object is named by a URL (http(s), s3, gs, az) or by a local path,
// which is read through curl's file:// protocol, so that local and remote
// containers go through the same chunk machinery.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudreader/Container.h>
#include <mdxlib/cloudreader/ContainerFile.h>

#include <memory>
#include <string>
#include <vector>

namespace Kz {

class CloudReader;
class FileController;

class MDX_EXPORT CloudContainer : public Container
{
public:
    // name is the container, up to and including ".kz". Nothing is read here.
    CloudContainer(CloudReader& reader, std::string const& name);
    ~CloudContainer() override;

    // The reader's factory of containers.
    static std::shared_ptr<Container> make(CloudReader& reader, std::string const& name);
    // The URL the bytes come from: name itself, or a file:// URL for a local path.
    static std::string objectUrl(std::string const& name);

    std::shared_ptr<File> open(char const* member, LmSessionContextID context) override;
    std::shared_ptr<File> openRange(char const* member, long long first, long long last) override;
    long long fileLength(char const* member) override;
    bool removeContext(LmSessionContextID context) override;
    std::chrono::steady_clock::time_point lastAccess() const override;

    // For listings: reads the table if needed; false for a bad container,
    // whose reason is then in initError().
    bool load() { return mTable->load(); }
    std::string initError() const { return mTable->initError(); }
    std::vector<ContainerFile::Entry> entries() { return mTable->entries(); }

    std::shared_ptr<FileController> const& controller() const { return mController; }

private:
    std::shared_ptr<File> makeFile(ContainerFile::Range const& range);
    long long readRange(long long offset, char* data, long long length);

    std::string mName;
    std::shared_ptr<FileController> mController;
    std::unique_ptr<ContainerFile> mTable;
};

} // namespace Kz
