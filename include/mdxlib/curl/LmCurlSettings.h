// Process-wide settings of the HTTP transport, read once.
//
// The first use of the transport runs initOnce(): it reads the environment
// (CURL_DEBUG, SSL_CIPHER_LIST, CURL_MAX_CONNECTS) and the parameters
// CURL_RECBUF_SIZE and CURL_SNDBUF_SIZE, calls curl_global_init, and checks
// that libcurl's TLS library is the one this library links. The parsing is
// a pure function of its inputs, so it can be tested without the process
// state.
#pragma once

#include <mdxlib/Export.h>

#include <functional>
#include <optional>
#include <string>

struct MDX_EXPORT LmCurlSettings
{
    bool debug = false;                              // verbose curl output
    std::string sslCipherList = "AES128-GCM-SHA256"; // empty: leave libcurl's choice
    int maxConnects = 256;
    int recBufSize = 0; // SO_RCVBUF of download sockets; 0 leaves the system's value
    int sndBufSize = 0; // SO_SNDBUF of download sockets

    // Lookups: environment variables, and the parameter store (which wins
    // over the environment for the buffer sizes).
    using Lookup = std::function<std::optional<std::string>(char const* name)>;
    static LmCurlSettings parse(Lookup const& environment, Lookup const& parameters);
    // parse() of the process's environment and parameter store (the INI
    // file of ExResource).
    static LmCurlSettings read();

    // Runs the initialisation once per process and returns the settings.
    static LmCurlSettings const& get();

    // The message to log when libcurl's TLS library differs from ours, or
    // nothing. Only OpenSSL 1.0 and LibreSSL 2 builds of libcurl are checked.
    static std::optional<std::string> tlsMismatch(std::string const& curlSslVersion,
                                                  std::string const& opensslVersion);

    // CURLOPT_SOCKOPTFUNCTION of download handles: applies recBufSize and
    // sndBufSize to new connections.
    static int setSocketOptionsCallback(void* clientp, int socket, int purpose);
};

// "Lumora <version>": the user agent of raw requests.
MDX_EXPORT std::string lmCurlUserAgent();
