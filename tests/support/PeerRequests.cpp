#include "support/PeerRequests.h"

#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmCurlRawClient.h>

#include <QJsonDocument>

#include <cstdlib>
#include <memory>

namespace mdxtest {

std::string peerPort(char const* variable)
{
    char const* value = std::getenv(variable);
    return value ? value : "";
}

LmCurlResponse peerRequest(std::string const& verb, std::string const& url,
                           std::vector<std::string> const& headers, std::string const& body)
{
    LmCurlRawClient client(std::make_shared<LmCurlHandleFactory>(1), nullptr);
    LmCurlRequest request(url, verb);
    for (std::string const& line : headers)
        request.addRequestHeader(line);
    request.setPayload(body);
    return client.process(request);
}

QJsonObject peerJson(std::string const& url)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(peerRequest("GET", url).getPayload())).object();
}

} // namespace mdxtest
