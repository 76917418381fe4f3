#include <mdxlib/platform/ExDicomUtilities.h>

#include <cstring>
#include <initializer_list>

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
