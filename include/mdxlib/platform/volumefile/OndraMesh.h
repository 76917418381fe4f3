// Volume files: one 3D volume (or one slab of it) with its parameters, the
// DICOM attributes of its images, the SOP Instance UID of every slice, and
// data sections on lattices: the voxels at full and at half resolution and
// a histogram. The byte layout is described in docs/volume-file.md.
//
// A mesh read with headerOnly holds the header alone; a data section's
// bytes come on demand with Data::readData(). From a path that seeks in the
// file. From a stream, which is read forward only, the sections up to the
// one asked for are read and kept, so that the small sections at the front
// (histogram, half-resolution level) can be fetched in any order without
// touching the full-resolution voxels behind them.
//
// Every failure is a null result and a message in the McResult, never a
// crash: truncated files, wrong magic, counts or sizes that cannot be.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/McResult.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

class LmHistogram;

class MDX_EXPORT OndraMesh
{
public:
    // Element types of data sections.
    enum DataType
    {
        TypeUInt8 = 1,
        TypeUInt16 = 2,
        TypeInt16 = 3,
        TypeInt32 = 4,
        TypeFloat = 5,
        TypeUInt64 = 6
    };

    // A named lattice: the number of elements along each axis.
    struct Location
    {
        std::string name;
        std::vector<int> dims;
        uint64_t numElements() const;
    };

    class MDX_EXPORT Data
    {
    public:
        std::string const& name() const { return mName; }
        std::string const& location() const { return mLocation; }
        int type() const { return mType; }
        int components() const { return mComponents; }
        // The lattice the section lies on; never null in a mesh.
        Location const* lattice() const;
        uint64_t byteSize() const { return mByteSize; }
        bool isLoaded() const { return mLoaded; }
        // Fetches the bytes when they are not loaded yet.
        McResult readData();
        // The bytes once loaded, else null.
        void const* data() const { return mLoaded ? mBytes.data() : nullptr; }
        std::vector<char> const& bytes() const { return mBytes; }

    private:
        friend class OndraMesh;
        OndraMesh* mMesh = nullptr;
        std::string mLocation;
        std::string mName;
        int mType = 0;
        int mComponents = 1;
        uint64_t mOffset = 0;
        uint64_t mByteSize = 0;
        bool mLoaded = false;
        std::vector<char> mBytes;
    };

    OndraMesh();
    ~OndraMesh();
    OndraMesh(OndraMesh const&) = delete;
    OndraMesh& operator=(OndraMesh const&) = delete;

    // Parses a volume file; null on failure, with the reason in result when
    // it is given. A stream must outlive the mesh while sections are read
    // from it; name is used in messages only.
    static OndraMesh* read(char const* path, bool headerOnly, McResult* result);
    static OndraMesh* read(std::istream& in, char const* name, bool headerOnly, McResult* result);

    // The section of that name on that location, of that element type and
    // number of components; a null location or name, a type or dim of 0
    // match any. Null when there is none.
    Data* findData(char const* location, int type, int dim, char const* name);
    Location const* findLocation(char const* name) const;
    std::vector<Location> const& locations() const { return mLocations; }
    std::vector<std::unique_ptr<Data>> const& dataSections() const { return mData; }

    // The parameters, with the sub-bundles "DICOM" and "SOPInstanceUIDs".
    HxParamBundle& parameters() { return mParameters; }
    HxParamBundle const& parameters() const { return mParameters; }
    bool findReal(char const* name, int count, double* out) const
    {
        return mParameters.findReal(name, count, out);
    }
    bool findReal(char const* name, int count, float* out) const
    {
        return mParameters.findReal(name, count, out);
    }
    bool findNum(char const* name, int count, int* out) const
    {
        return mParameters.findNum(name, count, out);
    }
    HxParamBundle* bundle(char const* name, bool create) { return mParameters.bundle(name, create); }
    HxParamBundle* dicomAll() { return mParameters.dicomAll(); }
    HxParamBundle* dicomAllCreate() { return mParameters.dicomAllCreate(); }

    // The "Histogram" section (bins of 64-bit counts) with the range from
    // the parameter "HistogramRange"; loads the section when needed.
    static McResult readHistogram(Data* data, LmHistogram& histogram);

    // ---- Building and writing ----

    // Replaces a location of the same name.
    void addLocation(std::string name, std::vector<int> dims);
    // A loaded section; its size must match its lattice, which write checks.
    Data& addData(std::string location, std::string name, int type, int components, std::vector<char> bytes);
    // Writes the file with all sections, which must be loaded; sections are
    // stored in the order they were added.
    McResult write(std::ostream& out) const;
    McResult write(char const* path) const;

    // Bytes of one element of the type; 0 for an unknown type.
    static int typeSize(int type);

private:
    McResult parse(std::istream& in, bool seekable, bool headerOnly);
    McResult loadSection(Data& data);

    HxParamBundle mParameters;
    std::vector<Location> mLocations;
    std::vector<std::unique_ptr<Data>> mData;
    // Where sections are fetched from: a file path, or a forward-only
    // stream at mStreamPosition.
    std::string mPath;
    std::istream* mStream = nullptr;
    uint64_t mStreamPosition = 0;
    uint64_t mFileSize = 0;
};
