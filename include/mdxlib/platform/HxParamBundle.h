// Parameter bundles: a nested, ordered key-value store, the form in which
// volume files carry their parameters and the DICOM attributes of their
// images.
//
// A bundle holds parameters (HxParameter) and sub-bundles, each kept in the
// order it was added and found by name. DICOM attributes are parameters
// named by their tag text, "G0020-000E" (upper-case hexadecimal); a
// sequence is a sub-bundle of that name holding one sub-bundle per item
// ("Item0", "Item1", ...). The attributes shared by all images of a volume
// lie in the sub-bundle "DICOM" of the volume's parameters (dicomAll); the
// ...InAll operations work on that sub-bundle, or on the bundle itself when
// it is such a DICOM bundle (it has no "DICOM" of its own).
//
// Private attributes are reached through their creator: the creator text
// sits at (gggg,00bb) and the attributes of its block at (gggg,bbxx).
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/HxParameter.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

class MDX_EXPORT HxParamBundle
{
public:
    explicit HxParamBundle(std::string name = std::string());
    HxParamBundle(HxParamBundle const& other);
    HxParamBundle& operator=(HxParamBundle const& other);
    ~HxParamBundle();

    std::string const& name() const { return mName; }

    // ---- Parameters ----

    int nParameters() const { return static_cast<int>(mParameters.size()); }
    HxParameter const* parameter(int i) const;
    HxParameter const* find(char const* name) const;
    // The same lookup; a bundle keeps its names indexed, so a lookup costs
    // log(n) whichever is called.
    HxParameter const* findSorted(char const* name) const { return find(name); }
    bool findString(char const* name, std::string& out) const;
    // The first count values; false when the parameter is absent or has
    // fewer values.
    bool findReal(char const* name, int count, double* out) const;
    bool findReal(char const* name, int count, float* out) const;
    bool findNum(char const* name, int count, int* out) const;
    // Replaces a parameter of the same name in its place, else appends.
    void set(char const* name, std::string const& text);
    void set(char const* name, std::vector<int> const& values);
    void set(char const* name, std::vector<double> const& values);
    void setNum(char const* name, int value) { set(name, std::vector<int>{value}); }
    void setReal(char const* name, double value) { set(name, std::vector<double>{value}); }
    // Removes the parameter, else the sub-bundle, of that name.
    bool remove(char const* name);

    // ---- Sub-bundles ----

    int nBundles() const { return static_cast<int>(mBundles.size()); }
    HxParamBundle* bundle(int i);
    HxParamBundle const* bundle(int i) const;
    // The sub-bundle of that name; with create, made when absent.
    HxParamBundle* bundle(char const* name, bool create);
    HxParamBundle const* bundle(char const* name) const;

    // ---- DICOM attributes ----

    // "G%04X-%04X".
    static std::string tagName(uint16_t group, uint16_t element);
    // The attribute's text at this level, or null. The pointer lives until
    // the parameter changes.
    char const* findTag(uint16_t group, uint16_t element) const;
    void setTag(uint16_t group, uint16_t element, std::string const& text);
    // The attribute element & 0xFF of creator's block in group, or
    // fallback. A tag text names the element as "xx10" or "XX10".
    char const* findPrivateTag(char const* creator, uint16_t group, uint16_t element,
                               char const* fallback = nullptr) const;
    char const* findPrivateTag(char const* creator, char const* tagText,
                               char const* fallback = nullptr) const;
    // Stores it in creator's block, reserving the first free block from
    // 0x10 when the creator has none. False when all blocks are taken.
    bool setPrivateTag(char const* creator, uint16_t group, uint16_t element, std::string const& text);

    // The bundle of the attributes shared by all images ("DICOM"), or null.
    HxParamBundle* dicomAll();
    HxParamBundle const* dicomAll() const;
    HxParamBundle* dicomAllCreate();
    char const* findTagInAll(uint16_t group, uint16_t element) const;
    char const* findPrivateTagInAll(char const* creator, uint16_t group, uint16_t element) const;
    void setTagInAll(uint16_t group, uint16_t element, std::string const& text);
    bool setPrivateTagInAll(char const* creator, uint16_t group, uint16_t element, std::string const& text);

    // Item index of the sequence (group,element) at this level, or null.
    HxParamBundle const* sequenceItem(uint16_t group, uint16_t element, int index) const;
    // An enhanced (multi-frame functional group) object: true when all has
    // the shared (5200,9229) or per-frame (5200,9230) functional groups;
    // first and second receive item 0 of each, or null.
    static bool isEnhancedDcm(HxParamBundle const* all, HxParamBundle const** first,
                              HxParamBundle const** second);

private:
    HxParamBundle const* dicomTarget() const;
    HxParamBundle* dicomTarget();
    int privateBlock(char const* creator, uint16_t group) const;
    void reindex();
    // Replaces the parameter of the same name in its place, else appends.
    void put(HxParameter parameter);

    std::string mName;
    std::vector<HxParameter> mParameters;
    std::vector<std::unique_ptr<HxParamBundle>> mBundles;
    std::map<std::string, size_t> mParameterIndex;
    std::map<std::string, size_t> mBundleIndex;
};
