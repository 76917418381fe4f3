#include <mdxlib/dcmio/LmDcmFileLoader.h>

#include <atomic>

namespace {

std::atomic<LmDcmFileLoader::Mode> sDefaultMode{LmDcmFileLoader::MODE_SUSPEND_FILE};
std::atomic<bool> sCloudReaderEnabled{true};

} // namespace

LmDcmFileLoader::Mode LmDcmFileLoader::setDefaultMode(Mode mode)
{
    return sDefaultMode.exchange(mode);
}

bool LmDcmFileLoader::setCloudReaderEnabled(bool enabled)
{
    return sCloudReaderEnabled.exchange(enabled);
}

LmDcmFileLoader::Mode LmDcmFileLoader::defaultMode()
{
    return sDefaultMode.load();
}

bool LmDcmFileLoader::cloudReaderEnabled()
{
    return sCloudReaderEnabled.load();
}
