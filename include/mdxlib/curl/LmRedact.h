// Keeps secrets out of log lines.
//
// Server answers and header lists that end up in an error or warning line
// may carry credentials: secret keys and session tokens in a metadata
// answer, access tokens in a token endpoint's JSON, Authorization lines,
// signatures. Every such line goes through lmRedactSecrets first; only the
// lines written under CURL_DEBUG show them as they are.
#pragma once

#include <mdxlib/Export.h>

#include <string>

// text with the values of secret JSON keys, of Authorization and token
// header lines, of "Signature=" and of secret "key=value" pairs replaced by
// "<redacted>".
MDX_EXPORT std::string lmRedactSecrets(std::string const& text);
