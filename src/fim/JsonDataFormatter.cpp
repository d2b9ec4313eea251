#include "fim/JsonDataFormatter.h"

#include <rapidjson/memorystream.h>

#include <stdexcept>

namespace vantor::fim::internal
{

namespace
{

constexpr std::string_view kHead = "{\"events\":[";
constexpr std::string_view kTail = "]}";

bool IsJsonSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

} // namespace

JsonDataFormatter::JsonDataFormatter()
{
    Reset();
}

std::size_t JsonDataFormatter::Append(std::string_view record)
{
    // As the shared JSON reader takes untrusted text: iteratively, with UTF-8
    // validation, one root value and nothing but whitespace or a terminating
    // NUL behind it.
    const size_t size = record.size();
    while (!record.empty() && record.back() == '\0')
    {
        record.remove_suffix(1);
    }
    while (!record.empty() && IsJsonSpace(record.front()))
    {
        record.remove_prefix(1);
    }
    while (!record.empty() && IsJsonSpace(record.back()))
    {
        record.remove_suffix(1);
    }
    rapidjson::MemoryStream stream(record.data(), record.size());
    rapidjson::BaseReaderHandler<> ignore;
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
    if (record.empty() || record.front() != '{' || m_reader.Parse<kFlags>(stream, ignore).IsError())
    {
        throw std::invalid_argument("fim::JsonDataFormatter: 'data' is not a valid JSON object");
    }
    return Add(record, size);
}

std::size_t JsonDataFormatter::AppendOwn(std::string_view record)
{
    return Add(record, record.size());
}

std::size_t JsonDataFormatter::Add(std::string_view record, std::size_t size)
{
    const bool first = m_events.empty();
    if (!first)
    {
        m_events.push_back(',');
    }
    m_events.append(record);
    return size + (first ? 0 : 1);
}

void JsonDataFormatter::Serialize(std::string& out)
{
    out.reserve(kHead.size() + m_events.size() + kTail.size());
    out.assign(kHead);
    out.append(m_events);
    out.append(kTail);
}

void JsonDataFormatter::Reset()
{
    // A fresh string releases the memory of the previous cache.
    std::string().swap(m_events);
}

} // namespace vantor::fim::internal
