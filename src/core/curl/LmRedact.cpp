#include <mdxlib/curl/LmRedact.h>

#include <regex>

std::string lmRedactSecrets(std::string const& text)
{
    // The key and what stands between it and the value are kept, so that
    // the line still says what was there.
    static std::regex const patterns[] = {
        std::regex(
            R"re(("(?:SecretAccessKey|Token|access_token|refresh_token|id_token|client_secret|private_key)"\s*:\s*")[^"]*)re"),
        std::regex(R"re(((?:Authorization|X-Amz-Security-Token|X-aws-ec2-metadata-token)\s*:\s*)[^\r\n]*)re",
                   std::regex::icase),
        std::regex(R"re((Signature=)[0-9a-fA-F]+)re"),
        std::regex(R"re(((?:X-Amz-Security-Token|access_token)=)[^&\s]+)re", std::regex::icase),
        std::regex(R"re(([?&]s=)[^&\s]+)re"), // the session identifier of a plain URL
        std::regex(R"re(((?:aws_secret_access_key|client_secret|assertion)\s*=\s*)[^\s&]+)re"),
    };
    std::string result = text;
    for (std::regex const& pattern : patterns)
        result = std::regex_replace(result, pattern, "$1<redacted>");
    return result;
}
