// The library's one source of configuration.
//
// getParameter(name) answers, in this order: from the environment variable
// called name; from the key name in the INI file that the environment
// variable MDX_CONFIG names (keys in the file's general section, or written
// as "section/key"); otherwise null. Every setting of the library is read
// through it, so a deployment can configure it either way and tests can
// point endpoints at local peers.
#pragma once

#include <mdxlib/Export.h>

#include <optional>
#include <string>

class MDX_EXPORT ExResource
{
public:
    // The value, or an empty optional when the parameter is not set.
    static std::optional<std::string> getParameter(char const* name);

    // The value from the INI file alone, never from the environment: for the
    // settings where the parameter store wins over a variable of the same
    // name.
    static std::optional<std::string> getStoredParameter(char const* name);

    // getParameter(name), or fallback when it is not set. The deployment
    // constants (service endpoints, metadata addresses) are read this way,
    // so that tests can point them at local peers.
    static std::string getParameter(char const* name, std::string const& fallback);

    // The host name under which the viewer's web service is reached from
    // outside: MDX_WEBSERVICE_HOST_EXTERNAL, else "localhost".
    static std::string getWebServiceHostExternal();

    // The INI file is read once and cached; tests that change MDX_CONFIG or
    // the file call this to read it again.
    static void reloadConfiguration();
};
