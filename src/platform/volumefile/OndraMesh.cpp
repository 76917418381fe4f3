#include <mdxlib/platform/volumefile/OndraMesh.h>

#include "BundleCodec.h"

#include <mdxlib/platform/LmHistogram.h>
#include <mdxlib/platform/LmMsg.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <istream>
#include <ostream>

namespace {

constexpr char kMagic[8] = {'O', 'n', 'd', 'r', 'a', 'V', 'o', 'l'};
constexpr unsigned int kVersion = 1;
constexpr size_t kPreambleSize = 16;
// A header holds parameters and attributes, never voxels: anything larger
// is a damaged length field.
constexpr uint64_t kMaxHeaderSize = 64u << 20;
// Far beyond any scanner's volume; a lattice or section above it is corrupt.
constexpr uint64_t kMaxSectionSize = uint64_t(1) << 40;
constexpr int kMaxLatticeDims = 4;
// Bytes are read in steps of this size, so that a stream that ends early
// never made us reserve what a corrupt size announced.
constexpr size_t kReadStep = 1u << 20;

McResult fail(std::string message)
{
    return McResult::failure(std::move(message));
}

uint32_t little32(unsigned char const* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void put32(std::string& out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

void put64(LmMsg& msg, uint64_t v)
{
    msg << static_cast<unsigned int>(v & 0xFFFFFFFFu) << static_cast<unsigned int>(v >> 32);
}

uint64_t get64(LmMsg& msg)
{
    unsigned int low = 0, high = 0;
    msg >> low >> high;
    return (static_cast<uint64_t>(high) << 32) | low;
}

// Reads exactly count bytes into out (appended in steps); false when the
// stream ends first.
bool readExactly(std::istream& in, uint64_t count, std::vector<char>& out)
{
    out.clear();
    while (count > 0) {
        size_t const step = static_cast<size_t>(std::min<uint64_t>(count, kReadStep));
        size_t const at = out.size();
        out.resize(at + step);
        in.read(out.data() + at, static_cast<std::streamsize>(step));
        if (in.gcount() != static_cast<std::streamsize>(step))
            return false;
        count -= step;
    }
    return true;
}

bool skipExactly(std::istream& in, uint64_t count)
{
    char buffer[65536];
    while (count > 0) {
        size_t const step = static_cast<size_t>(std::min<uint64_t>(count, sizeof buffer));
        in.read(buffer, static_cast<std::streamsize>(step));
        if (in.gcount() != static_cast<std::streamsize>(step))
            return false;
        count -= step;
    }
    return true;
}

} // namespace

uint64_t OndraMesh::Location::numElements() const
{
    uint64_t n = 1;
    for (int d : dims) {
        if (d <= 0)
            return 0;
        n *= static_cast<uint64_t>(d);
        if (n > kMaxSectionSize)
            return 0;
    }
    return n;
}

OndraMesh::Location const* OndraMesh::Data::lattice() const
{
    return mMesh ? mMesh->findLocation(mLocation.c_str()) : nullptr;
}

McResult OndraMesh::Data::readData()
{
    if (mLoaded)
        return McResult::success();
    if (!mMesh)
        return fail("data section " + mName + " belongs to no volume file");
    return mMesh->loadSection(*this);
}

OndraMesh::OndraMesh() = default;
OndraMesh::~OndraMesh() = default;

int OndraMesh::typeSize(int type)
{
    switch (type) {
    case TypeUInt8:
        return 1;
    case TypeUInt16:
    case TypeInt16:
        return 2;
    case TypeInt32:
    case TypeFloat:
        return 4;
    case TypeUInt64:
        return 8;
    default:
        return 0;
    }
}

OndraMesh* OndraMesh::read(char const* path, bool headerOnly, McResult* result)
{
    McResult local;
    McResult& r = result ? *result : local;
    if (!path) {
        r = fail("no volume file path");
        return nullptr;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        r = fail(std::string("cannot open volume file ") + path);
        return nullptr;
    }
    in.seekg(0, std::ios::end);
    std::streamoff const size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size < 0 || !in) {
        r = fail(std::string("cannot determine the size of volume file ") + path);
        return nullptr;
    }
    std::unique_ptr<OndraMesh> mesh(new OndraMesh);
    mesh->mPath = path;
    mesh->mFileSize = static_cast<uint64_t>(size);
    McResult parsed = mesh->parse(in, true, headerOnly);
    if (!parsed) {
        r = fail(std::string(path) + ": " + parsed.message());
        return nullptr;
    }
    r = McResult::success();
    return mesh.release();
}

OndraMesh* OndraMesh::read(std::istream& in, char const* name, bool headerOnly, McResult* result)
{
    McResult local;
    McResult& r = result ? *result : local;
    std::unique_ptr<OndraMesh> mesh(new OndraMesh);
    mesh->mStream = &in;
    McResult parsed = mesh->parse(in, false, headerOnly);
    if (!parsed) {
        r = fail(std::string(name ? name : "volume stream") + ": " + parsed.message());
        return nullptr;
    }
    r = McResult::success();
    return mesh.release();
}

McResult OndraMesh::parse(std::istream& in, bool seekable, bool headerOnly)
{
    unsigned char preamble[kPreambleSize];
    in.read(reinterpret_cast<char*>(preamble), kPreambleSize);
    if (in.gcount() != static_cast<std::streamsize>(kPreambleSize))
        return fail("truncated: too short for a volume file");
    if (std::memcmp(preamble, kMagic, sizeof kMagic) != 0)
        return fail("not a volume file (wrong magic)");
    uint32_t const version = little32(preamble + 8);
    if (version != kVersion)
        return fail("unsupported volume file version " + std::to_string(version));
    uint64_t const headerSize = little32(preamble + 12);
    if (headerSize > kMaxHeaderSize)
        return fail("header size " + std::to_string(headerSize) + " is beyond any volume file");
    std::vector<char> header;
    if (!readExactly(in, headerSize, header))
        return fail("truncated in the header");
    uint64_t const dataStart = kPreambleSize + headerSize;
    mStreamPosition = dataStart;

    LmMsg msg(header.data(), header.size());
    if (!volumefile::readBundle(msg, mParameters))
        return fail("unparsable parameters in the header");
    unsigned int numLocations = 0;
    msg >> numLocations;
    if (msg.failed() || numLocations > msg.bytesAvailable())
        return fail("unparsable location table");
    for (unsigned int i = 0; i < numLocations; ++i) {
        QByteArray name;
        unsigned int numDims = 0;
        msg >> name >> numDims;
        if (msg.failed() || numDims < 1 || numDims > kMaxLatticeDims)
            return fail("unparsable location " + std::to_string(i));
        Location location{name.toStdString(), {}};
        for (unsigned int d = 0; d < numDims; ++d) {
            int n = 0;
            msg >> n;
            location.dims.push_back(n);
        }
        if (msg.failed() || location.numElements() == 0)
            return fail("location " + location.name + " has impossible dimensions");
        if (findLocation(location.name.c_str()))
            return fail("location " + location.name + " is defined twice");
        mLocations.push_back(std::move(location));
    }
    unsigned int numData = 0;
    msg >> numData;
    if (msg.failed() || numData > msg.bytesAvailable())
        return fail("unparsable data section table");
    uint64_t end = dataStart;
    for (unsigned int i = 0; i < numData; ++i) {
        std::unique_ptr<Data> data(new Data);
        QByteArray location, name;
        unsigned char type = 0, components = 0;
        msg >> location >> name >> type >> components;
        data->mMesh = this;
        data->mLocation = location.toStdString();
        data->mName = name.toStdString();
        data->mType = type;
        data->mComponents = components;
        data->mOffset = get64(msg);
        data->mByteSize = get64(msg);
        if (msg.failed())
            return fail("unparsable data section " + std::to_string(i));
        Location const* lattice = findLocation(data->mLocation.c_str());
        if (!lattice)
            return fail("data section " + data->mName + " lies on unknown location " + data->mLocation);
        if (typeSize(type) == 0 || components == 0)
            return fail("data section " + data->mName + " has an unknown element type");
        uint64_t const expected = lattice->numElements() * components * static_cast<uint64_t>(typeSize(type));
        if (expected != data->mByteSize || expected > kMaxSectionSize)
            return fail("data section " + data->mName + " has a size that does not fit its lattice");
        // Sections follow the header in table order without overlap, which
        // is what lets a forward-only reader find them.
        if (data->mOffset < end || data->mOffset > kMaxSectionSize)
            return fail("data section " + data->mName + " overlaps the header or another section");
        end = data->mOffset + data->mByteSize;
        mData.push_back(std::move(data));
    }
    if (msg.bytesAvailable() != 0)
        return fail("unexpected bytes at the end of the header");
    if (seekable && end > mFileSize)
        return fail("truncated: the data sections end at byte " + std::to_string(end) + " of " +
                    std::to_string(mFileSize));
    if (!headerOnly) {
        for (std::unique_ptr<Data> const& data : mData) {
            McResult loaded = loadSection(*data);
            if (!loaded)
                return loaded;
        }
    }
    return McResult::success();
}

McResult OndraMesh::loadSection(Data& data)
{
    if (data.mLoaded)
        return McResult::success();
    if (!mPath.empty()) {
        std::ifstream in(mPath, std::ios::binary);
        if (!in)
            return fail("cannot open volume file " + mPath);
        in.seekg(static_cast<std::streamoff>(data.mOffset));
        if (!in || !readExactly(in, data.mByteSize, data.mBytes))
            return fail(mPath + ": truncated in data section " + data.mName);
        data.mLoaded = true;
        return McResult::success();
    }
    if (!mStream)
        return fail("data section " + data.mName + " has no source");
    if (data.mOffset < mStreamPosition)
        return fail("data section " + data.mName + " lies behind the stream's position");
    // Read forward, keeping every section passed on the way.
    for (std::unique_ptr<Data> const& section : mData) {
        if (section->mLoaded || section->mOffset < mStreamPosition)
            continue;
        if (section->mOffset > data.mOffset)
            break;
        if (!skipExactly(*mStream, section->mOffset - mStreamPosition) ||
            !readExactly(*mStream, section->mByteSize, section->mBytes)) {
            mStreamPosition = UINT64_MAX;
            section->mBytes.clear();
            return fail("volume stream truncated in data section " + section->mName);
        }
        mStreamPosition = section->mOffset + section->mByteSize;
        section->mLoaded = true;
    }
    return data.mLoaded ? McResult::success() : fail("data section " + data.mName + " could not be read");
}

OndraMesh::Data* OndraMesh::findData(char const* location, int type, int dim, char const* name)
{
    for (std::unique_ptr<Data> const& data : mData) {
        if ((!location || data->mLocation == location) && (!name || data->mName == name) &&
            (type == 0 || data->mType == type) && (dim == 0 || data->mComponents == dim))
            return data.get();
    }
    return nullptr;
}

OndraMesh::Location const* OndraMesh::findLocation(char const* name) const
{
    if (!name)
        return nullptr;
    for (Location const& location : mLocations)
        if (location.name == name)
            return &location;
    return nullptr;
}

McResult OndraMesh::readHistogram(Data* data, LmHistogram& histogram)
{
    if (!data || data->mType != TypeUInt64 || data->mComponents != 1)
        return fail("no histogram section of 64-bit counts");
    McResult loaded = data->readData();
    if (!loaded)
        return loaded;
    double range[2] = {0.0, 0.0};
    if (!data->mMesh->findReal("HistogramRange", 2, range))
        return fail("histogram without HistogramRange");
    std::vector<uint64_t> bins(data->mBytes.size() / 8);
    for (size_t i = 0; i < bins.size(); ++i) {
        unsigned char const* p = reinterpret_cast<unsigned char const*>(data->mBytes.data()) + 8 * i;
        bins[i] = uint64_t(little32(p)) | uint64_t(little32(p + 4)) << 32;
    }
    histogram = LmHistogram(std::move(bins), static_cast<float>(range[0]), static_cast<float>(range[1]));
    return McResult::success();
}

void OndraMesh::addLocation(std::string name, std::vector<int> dims)
{
    for (Location& location : mLocations)
        if (location.name == name) {
            location.dims = std::move(dims);
            return;
        }
    mLocations.push_back(Location{std::move(name), std::move(dims)});
}

OndraMesh::Data& OndraMesh::addData(std::string location, std::string name, int type, int components,
                                    std::vector<char> bytes)
{
    std::unique_ptr<Data> data(new Data);
    data->mMesh = this;
    data->mLocation = std::move(location);
    data->mName = std::move(name);
    data->mType = type;
    data->mComponents = components;
    data->mByteSize = bytes.size();
    data->mBytes = std::move(bytes);
    data->mLoaded = true;
    mData.push_back(std::move(data));
    return *mData.back();
}

McResult OndraMesh::write(std::ostream& out) const
{
    LmMsg msg;
    volumefile::writeBundle(msg, mParameters);
    msg << static_cast<unsigned int>(mLocations.size());
    for (Location const& location : mLocations) {
        msg << QByteArray::fromStdString(location.name) << static_cast<unsigned int>(location.dims.size());
        for (int d : location.dims)
            msg << d;
    }
    // The table's own size is known before the offsets are: each entry has
    // a fixed part and its two texts.
    size_t tableSize = 4;
    for (std::unique_ptr<Data> const& data : mData)
        tableSize += 4 + data->mLocation.size() + 4 + data->mName.size() + 2 + 16;
    uint64_t offset = kPreambleSize + msg.size() + tableSize;
    msg << static_cast<unsigned int>(mData.size());
    for (std::unique_ptr<Data> const& data : mData) {
        Location const* lattice = findLocation(data->mLocation.c_str());
        uint64_t const expected = lattice ? lattice->numElements() * data->mComponents *
                                                static_cast<uint64_t>(typeSize(data->mType))
                                          : 0;
        if (!data->mLoaded || expected == 0 || expected != data->mBytes.size())
            return fail("data section " + data->mName + " does not fit its lattice or is not loaded");
        msg << QByteArray::fromStdString(data->mLocation) << QByteArray::fromStdString(data->mName)
            << static_cast<unsigned char>(data->mType) << static_cast<unsigned char>(data->mComponents);
        put64(msg, offset);
        put64(msg, data->mBytes.size());
        offset += data->mBytes.size();
    }
    if (msg.size() > kMaxHeaderSize)
        return fail("header too large");
    std::string preamble(kMagic, sizeof kMagic);
    put32(preamble, kVersion);
    put32(preamble, static_cast<uint32_t>(msg.size()));
    out.write(preamble.data(), static_cast<std::streamsize>(preamble.size()));
    out.write(msg.dataPtr(), static_cast<std::streamsize>(msg.size()));
    for (std::unique_ptr<Data> const& data : mData)
        out.write(data->mBytes.data(), static_cast<std::streamsize>(data->mBytes.size()));
    out.flush();
    return out ? McResult::success() : fail("write error");
}

McResult OndraMesh::write(char const* path) const
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out)
        return fail(std::string("cannot create ") + path);
    McResult written = write(out);
    out.close();
    if (!written || !out)
        return fail(std::string("cannot write ") + path + (written ? "" : ": " + written.message()));
    return McResult::success();
}
