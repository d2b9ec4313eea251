#include "fim/JsonDataFormatter.h"

#include "common/util/Json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <stdexcept>

namespace vantor::fim::internal
{

JsonDataFormatter::JsonDataFormatter()
{
    Reset();
}

std::size_t JsonDataFormatter::Append(std::string_view record)
{
    // Parsed into the cache's own allocator, so that the element can be moved
    // into the array without a copy.
    rapidjson::Document document(&m_cache.GetAllocator());
    if (!util::ParseJson(document, record) || !document.IsObject())
    {
        throw std::invalid_argument("fim::JsonDataFormatter: 'data' is not a valid JSON object");
    }
    auto& events = m_cache["events"];
    const bool first = events.Empty();
    events.PushBack(document.Move(), m_cache.GetAllocator());
    return record.size() + (first ? 0 : 1);
}

void JsonDataFormatter::Serialize(std::string& out)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    if (!m_cache.Accept(writer))
    {
        throw std::runtime_error("fim::JsonDataFormatter: Failed to serialize the cache");
    }
    out.assign(buffer.GetString(), buffer.GetSize());
}

void JsonDataFormatter::Reset()
{
    // A fresh document releases the memory of the previous cache.
    rapidjson::Document fresh;
    m_cache.Swap(fresh);
    m_cache.SetObject();
    m_cache.AddMember("events", rapidjson::Value(rapidjson::kArrayType), m_cache.GetAllocator());
}

} // namespace vantor::fim::internal
