#include "edr/AHSUploadSchedule.h"

#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/Serializer.h"
#include "common/SqlStorage.h"
#include "common/util/Json.h"
#include "common/util/Utf8.h"
#include "edr/AHSSqlDataFormatter.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <set>
#include <stdexcept>

namespace vantor::edr
{

namespace
{

constexpr const char* kTable = AHSSqlDataFormatter::kTableName;

// The oldest records first: rows are only appended, and only the oldest
// are deleted, so the row order is the order of writing.
std::string OldestClause(uint64_t count)
{
    return "ORDER BY rowid LIMIT " + std::to_string(count);
}

rapidjson::Value Text(const std::string& text, rapidjson::Document::AllocatorType& allocator)
{
    std::string scratch;
    const std::string& valid = util::ValidUtf8(text, scratch);
    return rapidjson::Value(valid.c_str(), static_cast<rapidjson::SizeType>(valid.size()), allocator);
}

} // namespace

AHSUploadSchedule::AHSUploadSchedule(std::shared_ptr<common::SqlStorage> store,
                                     std::shared_ptr<common::HttpUploader> uploader,
                                     AHSServiceSettings settings)
    : common::PeriodicSchedule(settings.interval)
    , m_store(std::move(store))
    , m_uploader(std::move(uploader))
    , m_settings(std::move(settings))
{
    if (!m_store)
    {
        throw std::invalid_argument("AHSUploadSchedule: 'store' cannot be null");
    }
    if (!m_uploader)
    {
        throw std::invalid_argument("AHSUploadSchedule: 'uploader' cannot be null");
    }
}

AHSUploadSchedule::~AHSUploadSchedule()
{
    Stop();
}

void AHSUploadSchedule::Run()
{
    if (!Launch())
    {
        EDR_LOG_DEBUG("AHSUploadSchedule: The previous upload is still running");
    }
}

void AHSUploadSchedule::DoWork()
{
    try
    {
        RunOnce();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("AHSUploadSchedule: " << e.what());
    }
}

void AHSUploadSchedule::OnCancel()
{
    std::lock_guard lock(m_mutex);
    if (m_pending)
    {
        m_pending->Cancel();
    }
}

void AHSUploadSchedule::RunOnce()
{
    EDR_LOG_DEBUG("AHSUploadSchedule:Execute() triggered .. ");
    Trim();
    const auto read = m_store->Read(kTable, OldestClause(kMaxRecordsPerRun));
    if (!read.success)
    {
        EDR_LOG_ERROR("AHSUploadSchedule: Failed to read the records: " << read.error);
        return;
    }
    EDR_LOG_INFO("AHS: Read" << read.rows.size() << " records from DB");
    if (read.rows.empty())
    {
        return;
    }
    std::vector<AHSRecord> records;
    std::set<AHSRecordType> types;
    records.reserve(read.rows.size());
    for (const auto& row : read.rows)
    {
        records.push_back(AHSSqlDataFormatter::ParseRecord(row));
        const auto type = AHSRecord::TypeOf(records.back().statusCode);
        if (!type)
        {
            EDR_LOG_ERROR("Invalid AHSRecordType provided. Aborting this attempt.");
            // Left in place they would stop every later run as well.
            m_store->Delete(kTable, " WHERE [StatusCode] < 1000 OR [StatusCode] > 5999");
            return;
        }
        types.insert(*type);
    }

    std::string payload = BuildPayload(records);
    EDR_LOG_DEBUG(":AHS: Payload data (uncompressed): " << payload);
    if (!Upload(std::move(payload)))
    {
        return;
    }
    for (const AHSRecordType type : types)
    {
        EDR_LOG_INFO("AHSUploadSchedule: " << AHSRecord::TypeName(type) << " status successfully uploaded.");
    }
    DeleteOldest(records.size());
}

bool AHSUploadSchedule::Upload(std::string payload)
{
    if (IsCancelling())
    {
        return false;
    }
    auto pending = std::make_shared<common::UploadWaiter>();
    {
        std::lock_guard lock(m_mutex);
        m_pending = pending;
    }
    m_uploader->Upload(m_settings.url, std::move(payload), kContentType, kUploadType, pending->Completion());
    const auto outcome = pending->Wait();
    {
        std::lock_guard lock(m_mutex);
        m_pending.reset();
    }
    if (outcome != common::UploadWaiter::Outcome::Succeeded)
    {
        EDR_LOG_ERROR("AHSUploadSchedule: Failed to upload data. The next upload will be tried "
                      << m_settings.interval.count() << " seconds later.");
        return false;
    }
    return true;
}

void AHSUploadSchedule::Trim()
{
    const auto counted = m_store->Read(kTable, "count");
    if (!counted.success || counted.rows.size() != 1)
    {
        return;
    }
    const auto count = static_cast<uint64_t>(common::Serializer(counted.rows.front()).GetInt64());
    if (count <= kMaxStoredRecords)
    {
        return;
    }
    const uint64_t excess = count - kMaxStoredRecords;
    if (DeleteOldest(excess))
    {
        m_evicted.fetch_add(excess, std::memory_order_relaxed);
        EDR_LOG_WARNING("AHSUploadSchedule: Deleted the " << excess << " oldest records not yet uploaded");
    }
}

bool AHSUploadSchedule::DeleteOldest(uint64_t count)
{
    const auto result = m_store->Delete(kTable, " WHERE rowid IN (SELECT rowid FROM " + std::string(kTable) +
                                                    " " + OldestClause(count) + ")");
    return result.success;
}

std::string AHSUploadSchedule::BuildPayload(const std::vector<AHSRecord>& records)
{
    rapidjson::Document payload;
    payload.SetObject();
    auto& allocator = payload.GetAllocator();
    rapidjson::Value status(rapidjson::kArrayType);
    for (const auto& record : records)
    {
        rapidjson::Value object(rapidjson::kObjectType);
        object.AddMember("dateTime", Text(record.time, allocator), allocator);
        object.AddMember("contextId", Text(record.contextId, allocator), allocator);
        object.AddMember("statusCode", record.statusCode, allocator);
        object.AddMember("state", record.state, allocator);
        if (!record.additionalFields.empty())
        {
            rapidjson::Document fields;
            if (util::ParseJson(fields, record.additionalFields))
            {
                object.AddMember("additionalFields", rapidjson::Value(fields, allocator), allocator);
            }
            else
            {
                object.AddMember("additionalFields", Text(record.additionalFields, allocator), allocator);
            }
        }
        status.PushBack(object, allocator);
    }
    payload.AddMember("status", status, allocator);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    payload.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

} // namespace vantor::edr
