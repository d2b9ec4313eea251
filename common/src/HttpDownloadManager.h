#pragma once

#include "common/HttpService.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::common
{

// Downloads a file in ranged chunks ("Range: bytes=a-b"), streaming each
// chunk to disk, so large packages never sit in memory. Blocking; not for
// the service thread.
class HttpDownloadManager
{
public:
    struct ContentRange
    {
        uint64_t first = 0;
        uint64_t last = 0;
        uint64_t total = 0;
    };

    HttpDownloadManager(std::shared_ptr<HttpService> service, uint64_t chunkSize = 1024 * 1024);

    // True when the whole file is in destination. A failed download leaves
    // what arrived so far.
    bool Download(const std::string& url, const std::string& destination);

    // "bytes <first>-<last>/<total>"; nullopt when malformed or inconsistent.
    static std::optional<ContentRange> ParseContentRange(std::string_view value);

private:
    std::shared_ptr<HttpService> m_service;
    const uint64_t m_chunkSize;
};

} // namespace vantor::common
