#include <mdxlib/platform/ExDicomUtilities.h>

#include <mdxlib/platform/HxParamBundle.h>

#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcerror.h"
#include "dcmtk/dcmdata/dcitem.h"
#include "dcmtk/dcmdata/dcsequen.h"

#include <cstring>
#include <initializer_list>
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
