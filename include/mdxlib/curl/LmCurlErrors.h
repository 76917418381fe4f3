// The exceptions of the HTTP transport.
//
// CurlError is the one exception the curl layer throws on a transport
// failure. The two others end a retrying loop and are told apart by type:
// RetryPolicyExhaustedError says the server may still come back,
// UnrecoverableResponseError that asking again cannot help.
#pragma once

#include <mdxlib/Export.h>

#include <stdexcept>

class MDX_EXPORT CurlError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class MDX_EXPORT RetryPolicyExhaustedError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class MDX_EXPORT UnrecoverableResponseError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};
