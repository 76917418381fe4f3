// The cheap test for running on a cloud instance, shared by the credential
// classes: whether the instance metadata service accepts a connection.
#pragma once

#include <string>

// True when address ("host" or "host:port", port 80 by default) accepts a
// TCP connection within 50 ms.
bool metadataServiceAnswers(std::string const& address);
