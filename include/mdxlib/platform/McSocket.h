// A TCP connection attempt with a short time-out, for probing whether a
// service is reachable at all (such as an instance metadata service) without
// slowing start-up where it is not.
#pragma once

#include <mdxlib/Export.h>

class MDX_EXPORT McSocket
{
public:
    // A connected socket, or -1. host is a numeric IPv4 address or a name;
    // timeoutMsec bounds the attempt. The two further arguments are flags
    // reserved for the caller's bookkeeping and are not used.
    static int connect(char const* host, int port, int timeoutMsec, int reserved1 = 0, int reserved2 = 0);
    static void close(int socket);
};
