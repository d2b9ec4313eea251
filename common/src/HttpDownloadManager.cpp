#include "common/HttpDownloadManager.h"

#include "common/Logging.h"
#include "common/MutableHttpRequest.h"
#include "common/OnDiskHttpResponse.h"
#include "common/util/HttpClient.h"
#include "common/util/WholeNumber.h"

#include <filesystem>
#include <stdexcept>

namespace vantor::common
{
namespace
{

} // namespace

HttpDownloadManager::HttpDownloadManager(std::shared_ptr<HttpService> service, uint64_t chunkSize)
    : m_service(std::move(service))
    , m_chunkSize(chunkSize)
{
    if (!m_service || chunkSize == 0)
    {
        throw std::invalid_argument("HttpDownloadManager: invalid service or chunk size");
    }
}

std::optional<HttpDownloadManager::ContentRange>
HttpDownloadManager::ParseContentRange(std::string_view value)
{
    constexpr std::string_view kUnit = "bytes ";
    if (value.substr(0, kUnit.size()) != kUnit)
    {
        return std::nullopt;
    }
    value.remove_prefix(kUnit.size());
    const auto dash = value.find('-');
    const auto slash = value.find('/');
    if (dash == std::string_view::npos || slash == std::string_view::npos || dash > slash)
    {
        return std::nullopt;
    }
    ContentRange range;
    if (!util::ParseWholeNumber(value.substr(0, dash), range.first) ||
        !util::ParseWholeNumber(value.substr(dash + 1, slash - dash - 1), range.last) ||
        !util::ParseWholeNumber(value.substr(slash + 1), range.total) || range.first > range.last ||
        range.last >= range.total)
    {
        return std::nullopt;
    }
    return range;
}

bool HttpDownloadManager::Download(const std::string& url, const std::string& destination)
{
    util::HttpClient client(m_service);
    std::filesystem::remove(destination);
    uint64_t offset = 0;
    while (true)
    {
        MutableHttpRequest request(HttpMethod::Get, url);
        request.SetUseInterceptors(false);
        request.AddHeader("Range",
                          "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + m_chunkSize - 1));
        std::shared_ptr<HttpResponse> response;
        try
        {
            response = client.Perform(request, std::make_shared<OnDiskHttpResponse>(destination, true));
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Download of " << url << " failed: " << e.what());
            return false;
        }
        if (response->Status() == 200 && offset == 0)
        {
            EDR_LOG_INFO("Received the full data");
            return true;
        }
        if (response->Status() != 206)
        {
            EDR_LOG_ERROR("Unsupported StatusCode: " << response->Status());
            return false;
        }
        const auto header = response->Headers().Get("Content-Range");
        const auto range = header ? ParseContentRange(*header) : std::nullopt;
        const auto* onDisk = dynamic_cast<const OnDiskHttpResponse*>(response.get());
        if (!range || range->first != offset || onDisk == nullptr ||
            onDisk->BytesWritten() != range->last - range->first + 1)
        {
            EDR_LOG_ERROR("Failed to parse Content-Range header");
            return false;
        }
        offset = range->last + 1;
        if (offset >= range->total)
        {
            EDR_LOG_INFO("Received the full data");
            return true;
        }
        EDR_LOG_DEBUG("Received the partial data, " << offset << " out of " << range->total
                                                    << ", going for next chunk");
    }
}

} // namespace vantor::common
