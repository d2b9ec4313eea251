#include "fim/UploadSchedule.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "common/util/TimeFormat.h"

#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace vantor::fim::internal
{

UploadSchedule::UploadSchedule(const Config& config, common::SpoolStorage& spool,
                               std::shared_ptr<common::HttpUploader> uploader, BlackoutCheck blackout)
    : common::SpoolUploadSchedule(spool, std::move(uploader), std::move(blackout), config.UploadInterval())
    , m_config(config)
{
}

UploadSchedule::~UploadSchedule()
{
    Stop();
}

uint64_t UploadSchedule::ConfiguredIntervalSec() const
{
    return m_config.UploadInterval();
}

std::optional<common::SpoolUploadSchedule::Payload>
UploadSchedule::MakePayload(common::SpoolStorage::File& file)
{
    rapidjson::Document stored;
    // A document the reader refuses without a syntax error is nested too deep.
    const bool parsed = util::ParseJson(stored, file.data);
    if (stored.HasParseError())
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to parse file: "
                      << file.path << " " << rapidjson::GetParseError_En(stored.GetParseError())
                      << " (offset: " << stored.GetErrorOffset() << ")");
        return std::nullopt;
    }
    if (!stored.IsObject() || !stored.HasMember("events") || !stored["events"].IsArray())
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to parse file: " << file.path << " 'events' is not an array");
        return std::nullopt;
    }
    if (!parsed || !util::NestsWithin(stored["events"], kMaxNesting))
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to parse file: " << file.path << " 'events' nest deeper than "
                                                               << kMaxNesting << " levels");
        return std::nullopt;
    }

    rapidjson::Document payload;
    payload.SetObject();
    auto& allocator = payload.GetAllocator();
    // The events stay in the stored document's memory, which outlives the
    // serialisation.
    payload.AddMember("events", stored["events"].Move(), allocator);
    const std::string timestamp = util::FormatIsoTime(std::chrono::system_clock::now());
    payload.AddMember(
        "timestamp",
        rapidjson::Value(timestamp.c_str(), static_cast<rapidjson::SizeType>(timestamp.size()), allocator),
        allocator);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    payload.Accept(writer);
    Payload upload{m_config.ServiceUrl(), std::string(buffer.GetString(), buffer.GetSize()),
                   "application/json", "fim"};
    EDR_LOG_DEBUG("Payload data (uncompressed): " << upload.body);
    return upload;
}

} // namespace vantor::fim::internal
