#include "MetadataProbe.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McSocket.h>

#include <cstdlib>

namespace {
constexpr int kProbeTimeoutMsec = 50;
}

bool metadataServiceAnswers(std::string const& address)
{
    std::string host = address;
    int port = 80;
    size_t const colon = address.rfind(':');
    if (colon != std::string::npos) {
        host = address.substr(0, colon);
        port = std::atoi(address.c_str() + colon + 1);
    }
    int const socket = McSocket::connect(host.c_str(), port, kProbeTimeoutMsec, 0, 0);
    if (socket < 0)
        return false;
    McSocket::close(socket);
    return true;
}

bool shouldAskMetadataService(char const* credentialsVariable, std::string const& address,
                              char const* notOnInstance)
{
    char const* file = std::getenv(credentialsVariable);
    if (file && *file)
        return false;
    if (metadataServiceAnswers(address))
        return true;
    if (LmCurlClient::sDebug)
        getTheLogInstance()->warnf("Could not connect to %s - %s", address.c_str(), notOnInstance);
    return false;
}
