#include "tests/support/StatusRecords.h"

#include "tests/support/DaemonHarness.h"

#include "common/util/Json.h"
#include "tools/TestReceiver.h"

#include <filesystem>

namespace vantor::test
{

std::vector<StatusRecord> ReadStatusRecords(const std::string& outputDir)
{
    std::vector<StatusRecord> records;
    for (const auto& entry : std::filesystem::directory_iterator(outputDir))
    {
        rapidjson::Document payload;
        if (entry.path().extension() != tools::TestReceiver::kStatusSuffix ||
            !util::ParseJson(payload, ReadText(entry.path())))
        {
            continue;
        }
        for (auto& record : payload["status"].GetArray())
        {
            StatusRecord received;
            received.contextId = record["contextId"].GetString();
            received.statusCode = record["statusCode"].GetInt64();
            if (record.HasMember("additionalFields"))
            {
                received.fields.CopyFrom(record["additionalFields"], received.fields.GetAllocator());
            }
            records.push_back(std::move(received));
        }
    }
    return records;
}

uint64_t Total(const std::vector<StatusRecord>& records, const char* contextId, int64_t statusCode,
               const char* field)
{
    uint64_t total = 0;
    for (const auto& record : records)
    {
        if (record.contextId == contextId && record.statusCode == statusCode && record.fields.IsObject() &&
            record.fields.HasMember(field) && record.fields[field].IsUint64())
        {
            total += record.fields[field].GetUint64();
        }
    }
    return total;
}

} // namespace vantor::test
