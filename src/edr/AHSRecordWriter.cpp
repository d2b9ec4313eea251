#include "edr/AHSRecordWriter.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "common/util/TimeFormat.h"
#include "common/util/Utf8.h"
#include "edr/AHSSqlDataFormatter.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <stdexcept>

namespace vantor::edr
{

AHSRecordWriter::AHSRecordWriter(std::shared_ptr<common::SqlStorage> store, Clock clock)
    : m_store(std::move(store))
    , m_clock(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); }))
{
    if (!m_store)
    {
        throw std::invalid_argument("AHSRecordWriter: 'store' cannot be null");
    }
}

bool AHSRecordWriter::Write(const std::string& contextId, int64_t statusCode, AHSState state,
                            const std::vector<Field>& fields)
{
    AHSRecord record;
    record.time = util::FormatIsoTime(m_clock());
    record.contextId = contextId;
    record.statusCode = statusCode;
    record.state = static_cast<int64_t>(state);
    record.additionalFields = FieldsJson(fields);
    const auto result =
        m_store->Write(AHSSqlDataFormatter::kTableName, {{{}, AHSSqlDataFormatter::FormatRecord(record)}});
    if (!result.success)
    {
        EDR_LOG_ERROR("AHS: Failed to store the record " << contextId << " " << statusCode << ": "
                                                         << result.error);
    }
    return result.success;
}

std::string AHSRecordWriter::FieldsJson(const std::vector<Field>& fields)
{
    if (fields.empty())
    {
        return {};
    }
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    std::string scratch;
    writer.StartObject();
    for (const auto& [name, value] : fields)
    {
        writer.Key(name);
        if (const auto* number = std::get_if<uint64_t>(&value))
        {
            writer.Uint64(*number);
        }
        else
        {
            // Texts carry host bytes (paths in reasons): kept valid JSON.
            const std::string& text = util::ValidUtf8(std::get<std::string>(value), scratch);
            writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        }
    }
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

} // namespace vantor::edr
