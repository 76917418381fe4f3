#include <mdxlib/platform/HxParamBundle.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr char kDicomBundle[] = "DICOM";
constexpr int kFirstPrivateBlock = 0x10;
constexpr int kLastPrivateBlock = 0xFF;

// "G0029-xx10" or "G0029-XX10": group 0x0029, element 0x10 of a block.
bool parsePrivateTagText(char const* text, uint16_t& group, uint16_t& element)
{
    if (!text || std::strlen(text) != 10 || text[0] != 'G' || text[5] != '-' ||
        std::tolower(static_cast<unsigned char>(text[6])) != 'x' ||
        std::tolower(static_cast<unsigned char>(text[7])) != 'x')
        return false;
    for (int i : {1, 2, 3, 4, 8, 9}) {
        if (!std::isxdigit(static_cast<unsigned char>(text[i])))
            return false;
    }
    unsigned g = 0;
    unsigned e = 0;
    if (std::sscanf(text + 1, "%4x", &g) != 1 || std::sscanf(text + 8, "%2x", &e) != 1)
        return false;
    group = static_cast<uint16_t>(g);
    element = static_cast<uint16_t>(e);
    return true;
}

} // namespace

HxParamBundle::HxParamBundle(std::string name)
    : mName(std::move(name))
{
}

HxParamBundle::HxParamBundle(HxParamBundle const& other)
    : mName(other.mName)
    , mParameters(other.mParameters)
    , mParameterIndex(other.mParameterIndex)
    , mBundleIndex(other.mBundleIndex)
{
    mBundles.reserve(other.mBundles.size());
    for (auto const& sub : other.mBundles)
        mBundles.push_back(std::make_unique<HxParamBundle>(*sub));
}

HxParamBundle& HxParamBundle::operator=(HxParamBundle const& other)
{
    if (this != &other) {
        HxParamBundle copy(other);
        std::swap(mName, copy.mName);
        std::swap(mParameters, copy.mParameters);
        std::swap(mBundles, copy.mBundles);
        std::swap(mParameterIndex, copy.mParameterIndex);
        std::swap(mBundleIndex, copy.mBundleIndex);
    }
    return *this;
}

HxParamBundle::~HxParamBundle() = default;

// -------------------------------------------------------------- parameters

HxParameter const* HxParamBundle::parameter(int i) const
{
    return i >= 0 && i < nParameters() ? &mParameters[static_cast<size_t>(i)] : nullptr;
}

HxParameter const* HxParamBundle::find(char const* name) const
{
    if (!name)
        return nullptr;
    auto const it = mParameterIndex.find(name);
    return it == mParameterIndex.end() ? nullptr : &mParameters[it->second];
}

bool HxParamBundle::findString(char const* name, std::string& out) const
{
    HxParameter const* found = find(name);
    if (!found)
        return false;
    out = found->getString();
    return true;
}

bool HxParamBundle::findReal(char const* name, int count, double* out) const
{
    HxParameter const* found = find(name);
    if (!found || !out || found->dim() < count)
        return false;
    for (int i = 0; i < count; ++i)
        out[i] = found->getReal(i);
    return true;
}

bool HxParamBundle::findReal(char const* name, int count, float* out) const
{
    std::vector<double> values(static_cast<size_t>(count > 0 ? count : 0));
    if (!out || !findReal(name, count, values.data()))
        return false;
    for (int i = 0; i < count; ++i)
        out[i] = static_cast<float>(values[static_cast<size_t>(i)]);
    return true;
}

bool HxParamBundle::findNum(char const* name, int count, int* out) const
{
    HxParameter const* found = find(name);
    if (!found || !out || found->dim() < count)
        return false;
    for (int i = 0; i < count; ++i)
        out[i] = found->getNum(i);
    return true;
}

void HxParamBundle::set(char const* name, std::string const& text)
{
    if (name)
        put(HxParameter(name, text));
}

void HxParamBundle::set(char const* name, std::vector<int> const& values)
{
    if (name)
        put(HxParameter(name, values));
}

void HxParamBundle::set(char const* name, std::vector<double> const& values)
{
    if (name)
        put(HxParameter(name, values));
}

void HxParamBundle::put(HxParameter parameter)
{
    std::string const name = parameter.name();
    auto const it = mParameterIndex.find(name);
    if (it != mParameterIndex.end()) {
        mParameters[it->second] = std::move(parameter);
        return;
    }
    mParameterIndex.emplace(name, mParameters.size());
    mParameters.push_back(std::move(parameter));
}

bool HxParamBundle::remove(char const* name)
{
    if (!name)
        return false;
    auto const parameter = mParameterIndex.find(name);
    if (parameter != mParameterIndex.end()) {
        mParameters.erase(mParameters.begin() + static_cast<std::ptrdiff_t>(parameter->second));
        reindex();
        return true;
    }
    auto const sub = mBundleIndex.find(name);
    if (sub != mBundleIndex.end()) {
        mBundles.erase(mBundles.begin() + static_cast<std::ptrdiff_t>(sub->second));
        reindex();
        return true;
    }
    return false;
}

void HxParamBundle::reindex()
{
    mParameterIndex.clear();
    for (size_t i = 0; i < mParameters.size(); ++i)
        mParameterIndex.emplace(mParameters[i].name(), i);
    mBundleIndex.clear();
    for (size_t i = 0; i < mBundles.size(); ++i)
        mBundleIndex.emplace(mBundles[i]->name(), i);
}

// ------------------------------------------------------------- sub-bundles

HxParamBundle* HxParamBundle::bundle(int i)
{
    return i >= 0 && i < nBundles() ? mBundles[static_cast<size_t>(i)].get() : nullptr;
}

HxParamBundle const* HxParamBundle::bundle(int i) const
{
    return i >= 0 && i < nBundles() ? mBundles[static_cast<size_t>(i)].get() : nullptr;
}

HxParamBundle* HxParamBundle::bundle(char const* name, bool create)
{
    if (!name)
        return nullptr;
    auto const it = mBundleIndex.find(name);
    if (it != mBundleIndex.end())
        return mBundles[it->second].get();
    if (!create)
        return nullptr;
    mBundleIndex.emplace(name, mBundles.size());
    mBundles.push_back(std::make_unique<HxParamBundle>(name));
    return mBundles.back().get();
}

HxParamBundle const* HxParamBundle::bundle(char const* name) const
{
    if (!name)
        return nullptr;
    auto const it = mBundleIndex.find(name);
    return it == mBundleIndex.end() ? nullptr : mBundles[it->second].get();
}

// ---------------------------------------------------------------- DICOM

std::string HxParamBundle::tagName(uint16_t group, uint16_t element)
{
    char text[16];
    std::snprintf(text, sizeof text, "G%04X-%04X", group, element);
    return text;
}

char const* HxParamBundle::findTag(uint16_t group, uint16_t element) const
{
    auto const it = mParameterIndex.find(tagName(group, element));
    if (it == mParameterIndex.end())
        return nullptr;
    HxParameter const& found = mParameters[it->second];
    // Numbers stored under a tag name have no text to point at.
    return found.type() == HxParameter::Type::Text ? found.text().c_str() : nullptr;
}

void HxParamBundle::setTag(uint16_t group, uint16_t element, std::string const& text)
{
    set(tagName(group, element).c_str(), text);
}

int HxParamBundle::privateBlock(char const* creator, uint16_t group) const
{
    if (!creator || !(group & 1))
        return -1;
    for (int block = kFirstPrivateBlock; block <= kLastPrivateBlock; ++block) {
        char const* owner = findTag(group, static_cast<uint16_t>(block));
        if (owner && std::strcmp(owner, creator) == 0)
            return block;
    }
    return -1;
}

char const* HxParamBundle::findPrivateTag(char const* creator, uint16_t group, uint16_t element,
                                          char const* fallback) const
{
    int const block = privateBlock(creator, group);
    if (block < 0)
        return fallback;
    char const* value = findTag(group, static_cast<uint16_t>(block << 8 | (element & 0xFF)));
    return value ? value : fallback;
}

char const* HxParamBundle::findPrivateTag(char const* creator, char const* tagText,
                                          char const* fallback) const
{
    uint16_t group = 0;
    uint16_t element = 0;
    if (!parsePrivateTagText(tagText, group, element))
        return fallback;
    return findPrivateTag(creator, group, element, fallback);
}

bool HxParamBundle::setPrivateTag(char const* creator, uint16_t group, uint16_t element,
                                  std::string const& text)
{
    if (!creator || !(group & 1))
        return false;
    int block = privateBlock(creator, group);
    if (block < 0) {
        for (int candidate = kFirstPrivateBlock; candidate <= kLastPrivateBlock && block < 0; ++candidate) {
            if (!find(tagName(group, static_cast<uint16_t>(candidate)).c_str()))
                block = candidate;
        }
        if (block < 0)
            return false;
        setTag(group, static_cast<uint16_t>(block), creator);
    }
    setTag(group, static_cast<uint16_t>(block << 8 | (element & 0xFF)), text);
    return true;
}

HxParamBundle* HxParamBundle::dicomAll()
{
    return bundle(kDicomBundle, false);
}

HxParamBundle const* HxParamBundle::dicomAll() const
{
    return bundle(kDicomBundle);
}

HxParamBundle* HxParamBundle::dicomAllCreate()
{
    return bundle(kDicomBundle, true);
}

HxParamBundle const* HxParamBundle::dicomTarget() const
{
    HxParamBundle const* all = dicomAll();
    return all ? all : this;
}

HxParamBundle* HxParamBundle::dicomTarget()
{
    HxParamBundle* all = dicomAll();
    return all ? all : this;
}

char const* HxParamBundle::findTagInAll(uint16_t group, uint16_t element) const
{
    return dicomTarget()->findTag(group, element);
}

char const* HxParamBundle::findPrivateTagInAll(char const* creator, uint16_t group, uint16_t element) const
{
    return dicomTarget()->findPrivateTag(creator, group, element, nullptr);
}

void HxParamBundle::setTagInAll(uint16_t group, uint16_t element, std::string const& text)
{
    dicomTarget()->setTag(group, element, text);
}

bool HxParamBundle::setPrivateTagInAll(char const* creator, uint16_t group, uint16_t element,
                                       std::string const& text)
{
    return dicomTarget()->setPrivateTag(creator, group, element, text);
}

HxParamBundle const* HxParamBundle::sequenceItem(uint16_t group, uint16_t element, int index) const
{
    HxParamBundle const* sequence = bundle(tagName(group, element).c_str());
    return sequence ? sequence->bundle(index) : nullptr;
}

bool HxParamBundle::isEnhancedDcm(HxParamBundle const* all, HxParamBundle const** first,
                                  HxParamBundle const** second)
{
    HxParamBundle const* shared = all ? all->sequenceItem(0x5200, 0x9229, 0) : nullptr;
    HxParamBundle const* perFrame = all ? all->sequenceItem(0x5200, 0x9230, 0) : nullptr;
    if (first)
        *first = shared;
    if (second)
        *second = perFrame;
    return shared || perFrame;
}
