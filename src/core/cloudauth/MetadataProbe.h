// The cheap test for running on a cloud instance, shared by the credential
// classes: whether the instance metadata service accepts a connection.
#pragma once

#include <string>

// True when address ("host" or "host:port", port 80 by default) accepts a
// TCP connection within 50 ms.
bool metadataServiceAnswers(std::string const& address);

// Whether a credential class should ask the metadata service at all: not
// when the environment variable credentialsVariable names a credentials file,
// else when the service answers at address. When it does not, a debug
// warning "Could not connect to <address> - <notOnInstance>" says so.
bool shouldAskMetadataService(char const* credentialsVariable, std::string const& address,
                              char const* notOnInstance);
