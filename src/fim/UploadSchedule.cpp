#include "fim/UploadSchedule.h"

#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/SpoolStorage.h"
#include "common/util/Json.h"
#include "common/util/TimeFormat.h"

#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace vantor::fim::internal
{

namespace
{
// An interval of 0 would make the schedule spin.
constexpr uint64_t kDefaultInterval = 60;
} // namespace

std::chrono::seconds UploadSchedule::IntervalOf(const Config& config)
{
    const uint64_t interval = config.UploadInterval();
    return std::chrono::seconds(interval == 0 ? kDefaultInterval : interval);
}

UploadSchedule::UploadSchedule(const Config& config, common::SpoolStorage& spool,
                               std::shared_ptr<common::HttpUploader> uploader, BlackoutCheck blackout)
    : common::PeriodicSchedule(IntervalOf(config))
    , m_config(config)
    , m_spool(spool)
    , m_uploader(std::move(uploader))
    , m_blackout(std::move(blackout))
    , m_lastRun(std::chrono::system_clock::now() - IntervalOf(config))
{
}

UploadSchedule::~UploadSchedule()
{
    Stop();
}

void UploadSchedule::Run()
{
    const auto interval = IntervalOf(m_config);
    if (interval != Interval())
    {
        SetInterval(interval);
    }
    if (!Launch())
    {
        EDR_LOG_DEBUG("UploadSchedule: The previous upload is still running");
    }
}

void UploadSchedule::DoWork()
{
    RunOnce();
}

void UploadSchedule::OnCancel()
{
    std::lock_guard lock(m_mutex);
    if (m_pending)
    {
        m_pending->Cancel();
    }
}

void UploadSchedule::RunOnce()
{
    m_lastRun = std::chrono::system_clock::now();
    for (std::size_t sent = 0; sent < kMaxFilesPerRun; ++sent)
    {
        if (IsCancelling())
        {
            return;
        }
        if (m_blackout && m_blackout())
        {
            EDR_LOG_INFO("UploadSchedule: Blackout period, upload postponed.");
            return;
        }
        if (!UploadOldest())
        {
            return;
        }
    }
    EDR_LOG_INFO("UploadSchedule: Uploaded " << kMaxFilesPerRun
                                             << " files in this run; the rest goes with the next run.");
}

bool UploadSchedule::UploadOldest()
{
    common::SpoolStorage::File file;
    const auto status = m_spool.ReadOldestFile(file);
    if (status == common::SpoolStorage::ReadStatus::Empty)
    {
        EDR_LOG_DEBUG("UploadSchedule: Nothing to upload.");
        return false;
    }
    if (status != common::SpoolStorage::ReadStatus::Ok)
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to read data from storage.");
        return false;
    }

    rapidjson::Document stored;
    const bool parsed = util::ParseJson(stored, file.data);
    if (!parsed || !stored.IsObject() || !stored.HasMember("events") || !stored["events"].IsArray())
    {
        if (!parsed)
        {
            EDR_LOG_ERROR("UploadSchedule: Failed to parse file: "
                          << file.path << " " << rapidjson::GetParseError_En(stored.GetParseError())
                          << " (offset: " << stored.GetErrorOffset() << ")");
        }
        else
        {
            EDR_LOG_ERROR("UploadSchedule: Failed to parse file: " << file.path
                                                                   << " 'events' is not an array");
        }
        EDR_LOG_ERROR("UploadSchedule: Deleting corrupt file: " << file.path);
        if (!m_spool.DeleteFile(file))
        {
            EDR_LOG_ERROR("Failed to delete corrupt file: " << file.path);
        }
        return false;
    }
    file.data.clear();
    file.data.shrink_to_fit();

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
    std::string body(buffer.GetString(), buffer.GetSize());
    EDR_LOG_DEBUG("Payload data (uncompressed): " << body);

    auto pending = std::make_shared<common::UploadWaiter>();
    {
        std::lock_guard lock(m_mutex);
        m_pending = pending;
    }
    m_uploader->Upload(m_config.ServiceUrl(), std::move(body), "application/json", "fim",
                       pending->Completion());
    const auto outcome = pending->Wait();
    {
        std::lock_guard lock(m_mutex);
        m_pending.reset();
    }
    if (outcome == common::UploadWaiter::Outcome::Cancelled)
    {
        EDR_LOG_INFO("UploadSchedule: Upload cancelled; the file is kept.");
        return false;
    }
    if (outcome == common::UploadWaiter::Outcome::Failed)
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to upload data. The next upload will be tried "
                      << m_config.UploadInterval() << " seconds later.");
        return false;
    }
    EDR_LOG_INFO("UploadSchedule: Events successfully uploaded.");
    if (!m_spool.DeleteFile(file))
    {
        // Sending it again would duplicate its documents at the back end.
        EDR_LOG_ERROR("Failed to delete file: " << file.path);
        return false;
    }
    EDR_LOG_DEBUG("Deleted file: " << file.path);
    return true;
}

} // namespace vantor::fim::internal
