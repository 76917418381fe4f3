// Plain requests to the loopback peers, outside the code under test: their
// control paths (/__stats, /__mode, /__fail) and reading back what a peer
// stored.
#pragma once

#include <mdxlib/curl/LmCurlRequest.h>

#include <QJsonObject>

#include <string>
#include <vector>

namespace mdxtest {

// The port in the peer variable (MDX_S3RVER_PORT...), or empty when unset.
std::string peerPort(char const* variable);
// One request on a fresh handle; throws CurlError when no answer comes.
LmCurlResponse peerRequest(std::string const& verb, std::string const& url,
                           std::vector<std::string> const& headers = {}, std::string const& body = {});
// The JSON object a GET of url answers; empty when it is not one.
QJsonObject peerJson(std::string const& url);

} // namespace mdxtest
