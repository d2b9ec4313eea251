#include "tools/IocBatchChecker.h"

#include <regex>

namespace vantor::tools
{

std::optional<std::pair<std::string, std::string>> IocBatchChecker::ParseRoute(const std::string& path)
{
    static const std::regex route("(.*)/linuxagentevent/v1/customer/([^/]+)/agent/([^/]+)");
    std::smatch match;
    if (!std::regex_match(path, match, route))
    {
        return std::nullopt;
    }
    return std::make_pair(match[2].str(), match[3].str());
}

IocBatchChecker::Result IocBatchChecker::Check(const std::string& path, const common::HttpHeaders& headers,
                                               const std::string& payload)
{
    Result result;
    const auto ids = ParseRoute(path);
    if (!ids)
    {
        result.rejection = "not an IOC route";
        return result;
    }
    if (headers.Get("Content-Type") != "application/octet-stream")
    {
        result.rejection = "IOC upload is not application/octet-stream";
        return result;
    }
    if (headers.Get("C-CUSTID") != ids->first || headers.Get("C-CLNTID") != ids->second)
    {
        result.rejection = "IOC route names another customer or agent than the headers";
        return result;
    }
    if (!result.batch.ParseFromString(payload))
    {
        result.rejection = "IOC payload is not an event batch";
        return result;
    }
    result.ids = *ids;
    return result;
}

std::string IocBatchChecker::Take(const Result& result)
{
    std::lock_guard lock(m_mutex);
    const uint64_t number = result.batch.sequenceno();
    std::string warning;
    const auto last = m_last.find(result.ids);
    if (last != m_last.end() && number <= last->second)
    {
        ++m_errors;
        warning = "sequence number " + std::to_string(number) + " after " + std::to_string(last->second);
    }
    m_last[result.ids] = number;
    return warning;
}

std::size_t IocBatchChecker::SequenceErrors() const
{
    std::lock_guard lock(m_mutex);
    return m_errors;
}

} // namespace vantor::tools
