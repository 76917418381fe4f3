#include <mdxlib/curl/LmHttpStatus.h>

#include <mdxlib/platform/McLogFile.h>

#include <cstdlib>

LmHttpStatus::~LmHttpStatus()
{
    // Unlink the chain one link at a time: letting each status destroy its
    // successor would recurse once per ranged request.
    std::shared_ptr<LmHttpStatus> link = std::move(next);
    while (link && link.use_count() == 1) {
        std::shared_ptr<LmHttpStatus> after = std::move(link->next);
        link = std::move(after);
    }
}

LmHttpStatus& LmHttpStatus::empty()
{
    static LmHttpStatus status;
    return status;
}

bool LmHttpStatus::unrecoverable() const
{
    switch (responseCode) {
    case 400:
    case 401:
    case 403:
    case 404:
    case 405:
    case 409:
    case 411:
    case 412:
    case 416:
        return true;
    default:
        return false;
    }
}

uint64_t LmHttpStatus::totalBytesReceived() const
{
    uint64_t total = 0;
    for (LmHttpStatus const* s = this; s; s = s->next.get())
        total += s->bytesReceived;
    return total;
}

std::string const* LmHttpStatus::header(std::string const& lowerCaseName) const
{
    auto const it = headers.find(lowerCaseName);
    return it == headers.end() ? nullptr : &it->second;
}

int64_t LmHttpStatus::contentLength() const
{
    McLogFile* log = getTheLogInstance();
    if (responseCode != 206) {
        if (std::string const* length = header("content-length")) {
            long long const value = std::atoll(length->c_str());
            if (value >= 0)
                return value;
        }
    } else if (std::string const* range = header("content-range")) {
        size_t const slash = range->find('/');
        if (slash == std::string::npos) {
            log->warnf("Could not parse Content-Range: %s", range->c_str());
        } else {
            long long const value = std::atoll(range->c_str() + slash + 1);
            if (value >= 0)
                return value;
        }
    }
    if (std::string const* encoding = header("transfer-encoding")) {
        if (*encoding == "chunked")
            return 0;
    }
    log->warnf("Could not get content length. Received headers:");
    for (auto const& [name, value] : headers)
        log->warnf("%s: %s", name.c_str(), value.c_str());
    return 0;
}

int64_t LmHttpStatus::from() const
{
    if (responseCode != 206)
        return 0;
    std::string const* range = header("content-range");
    if (!range || range->size() < 6 || range->find("bytes ") == std::string::npos)
        return 0;
    return std::atoll(range->c_str() + 6);
}

int64_t LmHttpStatus::expectedBytes() const
{
    if (responseCode != 206) {
        std::string const* length = header("content-length");
        return length ? std::atoll(length->c_str()) : -1;
    }
    std::string const* range = header("content-range");
    if (!range || range->rfind("bytes ", 0) != 0)
        return -1;
    size_t const dash = range->find('-', 6);
    if (dash == std::string::npos)
        return -1;
    return std::atoll(range->c_str() + dash + 1) - std::atoll(range->c_str() + 6) + 1;
}
