#include <mdxlib/platform/ExDicomUtilities.h>

#include <mdxlib/platform/HxParamBundle.h>

#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcerror.h"
#include "dcmtk/dcmdata/dcitem.h"
#include "dcmtk/dcmdata/dcrledrg.h"
#include "dcmtk/dcmdata/dcsequen.h"
#include "dcmtk/dcmjpeg/djdecode.h"
#include "dcmtk/dcmjpls/djdecode.h"

#include <cctype>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <string>

namespace {

bool isBinary(DcmEVR vr)
{
    switch (vr) {
    case EVR_OB:
    case EVR_OW:
    case EVR_OF:
    case EVR_OD:
    case EVR_OL:
    case EVR_OV:
    case EVR_UN:
    case EVR_ox:
    case EVR_px:
    case EVR_pixelSQ:
    case EVR_lt:
        return true;
    default:
        return false;
    }
}

} // namespace

void ExDicomUtilities::registerDecoders()
{
    static std::once_flag once;
    std::call_once(once, [] {
        DJDecoderRegistration::registerCodecs();
        DJLSDecoderRegistration::registerCodecs();
        DcmRLEDecoderRegistration::registerCodecs();
    });
}

bool ExDicomUtilities::isSecondaryDataModality(char const* modality)
{
    if (!modality)
        return false;
    for (char const* secondary : {"PR", "KO", "SR", "REG", "FID", "RWV"}) {
        if (std::strcmp(modality, secondary) == 0)
            return true;
    }
    return false;
}

OFCondition ExDicomUtilities::setPrivateTag(DcmItem* dataset, uint16_t group, uint16_t element,
                                            char const* creator, char const* value, DcmEVR vr)
{
    if (!dataset || !creator || !value || !(group & 1))
        return EC_IllegalParameter;
    int block = -1;
    int firstFree = -1;
    for (int slot = 0x10; slot <= 0xFF && block < 0; ++slot) {
        DcmTagKey const key(group, static_cast<Uint16>(slot));
        if (!dataset->tagExists(key)) {
            if (firstFree < 0)
                firstFree = slot;
            continue;
        }
        char const* owner = nullptr;
        if (dataset->findAndGetString(key, owner).good() && owner && std::strcmp(owner, creator) == 0)
            block = slot;
    }
    if (block < 0) {
        if (firstFree < 0)
            return EC_IllegalCall;
        OFCondition const reserved = dataset->putAndInsertString(
            DcmTag(DcmTagKey(group, static_cast<Uint16>(firstFree)), EVR_LO), creator);
        if (reserved.bad())
            return reserved;
        block = firstFree;
    }
    DcmTag tag(DcmTagKey(group, static_cast<Uint16>(block << 8 | (element & 0xFF))), creator);
    tag.setVR(DcmVR(vr));
    return dataset->putAndInsertString(tag, value, true);
}

void ExDicomUtilities::copyToParamBundle(DcmItem* item, HxParamBundle& bundle)
{
    if (!item)
        return;
    unsigned long const count = item->card();
    for (unsigned long i = 0; i < count; ++i) {
        DcmElement* element = item->getElement(i);
        if (!element)
            continue;
        DcmTag const& tag = element->getTag();
        std::string const name = HxParamBundle::tagName(tag.getGroup(), tag.getElement());
        if (tag.getEVR() == EVR_SQ) {
            auto* sequence = static_cast<DcmSequenceOfItems*>(element);
            HxParamBundle* items = bundle.bundle(name.c_str(), true);
            for (unsigned long n = 0; n < sequence->card(); ++n) {
                HxParamBundle* sub = items->bundle(("Item" + std::to_string(n)).c_str(), true);
                copyToParamBundle(sequence->getItem(n), *sub);
            }
            continue;
        }
        if (isBinary(tag.getEVR()) || tag.getXTag() == DCM_PixelData)
            continue;
        OFString text;
        if (element->getOFStringArray(text).good())
            bundle.set(name.c_str(), std::string(text.c_str(), text.length()));
    }
}

HxParamBundle const* ExDicomUtilities::findSequenceItem(HxParamBundle const* bundle, char const* tag,
                                                        int index)
{
    if (!bundle || !tag || index < 0)
        return nullptr;
    HxParamBundle const* sequence = bundle->bundle(tag);
    return sequence && index < sequence->nBundles() ? sequence->bundle(index) : nullptr;
}

namespace {

bool twoDigits(std::string const& text, size_t at, int limit, std::string& out)
{
    if (at + 2 > text.size() || !std::isdigit(static_cast<unsigned char>(text[at])) ||
        !std::isdigit(static_cast<unsigned char>(text[at + 1])))
        return false;
    if ((text[at] - '0') * 10 + (text[at + 1] - '0') > limit)
        return false;
    out.append(text, at, 2);
    return true;
}

} // namespace

bool ExDicomUtilities::normalizeTMString(char const* text, std::string& out)
{
    if (!text)
        return false;
    // Padding: spaces, and the NUL some writers use.
    std::string const padding(" \0", 2);
    std::string value(text);
    size_t const begin = value.find_first_not_of(padding);
    if (begin == std::string::npos)
        return false;
    value = value.substr(begin, value.find_last_not_of(padding) - begin + 1);
    // The old ACR-NEMA form separates the fields by colons.
    std::string digits;
    digits.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == ':' && (i == 2 || i == 5))
            continue;
        digits.push_back(value[i]);
    }
    size_t const dot = digits.find('.');
    std::string const whole = digits.substr(0, dot);
    std::string result;
    if (whole.size() != 2 && whole.size() != 4 && whole.size() != 6)
        return false;
    // Seconds up to 60 for a leap second.
    if (!twoDigits(whole, 0, 23, result) || (whole.size() >= 4 && !twoDigits(whole, 2, 59, result)) ||
        (whole.size() == 6 && !twoDigits(whole, 4, 60, result)))
        return false;
    result.resize(6, '0');
    if (dot != std::string::npos) {
        std::string const fraction = digits.substr(dot + 1);
        if (whole.size() != 6 || fraction.empty() || fraction.size() > 6)
            return false;
        for (char c : fraction)
            if (!std::isdigit(static_cast<unsigned char>(c)))
                return false;
        result += "." + fraction;
    }
    out = result;
    return true;
}
