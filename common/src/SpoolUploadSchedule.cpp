#include "common/SpoolUploadSchedule.h"

#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/UploadWaiter.h"

namespace vantor::common
{

std::chrono::seconds SpoolUploadSchedule::IntervalOf(uint64_t seconds)
{
    return std::chrono::seconds(seconds == 0 ? kDefaultIntervalSec : seconds);
}

SpoolUploadSchedule::SpoolUploadSchedule(SpoolStorage& spool, std::shared_ptr<HttpUploader> uploader,
                                         BlackoutCheck blackout, uint64_t intervalSec)
    : PeriodicSchedule(IntervalOf(intervalSec))
    , m_spool(spool)
    , m_uploader(std::move(uploader))
    , m_blackout(std::move(blackout))
{
}

SpoolUploadSchedule::~SpoolUploadSchedule()
{
    Stop();
}

void SpoolUploadSchedule::Run()
{
    const auto interval = IntervalOf(ConfiguredIntervalSec());
    if (interval != Interval())
    {
        SetInterval(interval);
    }
    if (!Launch())
    {
        EDR_LOG_DEBUG("UploadSchedule: The previous upload is still running");
    }
}

void SpoolUploadSchedule::DoWork()
{
    RunOnce();
}

void SpoolUploadSchedule::OnCancel()
{
    std::lock_guard lock(m_mutex);
    if (m_pending)
    {
        m_pending->Cancel();
    }
}

void SpoolUploadSchedule::RunOnce()
{
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

bool SpoolUploadSchedule::UploadOldest()
{
    SpoolStorage::File file;
    const auto status = m_spool.ReadOldestFile(file);
    if (status == SpoolStorage::ReadStatus::Empty)
    {
        EDR_LOG_DEBUG("UploadSchedule: Nothing to upload.");
        return false;
    }
    if (status != SpoolStorage::ReadStatus::Ok)
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to read data from storage.");
        return false;
    }

    auto payload = MakePayload(file);
    if (!payload)
    {
        EDR_LOG_ERROR("UploadSchedule: Deleting corrupt file: " << file.path);
        if (!m_spool.DeleteFile(file))
        {
            EDR_LOG_ERROR("Failed to delete corrupt file: " << file.path);
        }
        return false;
    }
    file.data.clear();
    file.data.shrink_to_fit();

    const auto success = Send(std::move(*payload));
    if (!success)
    {
        EDR_LOG_INFO("UploadSchedule: Upload cancelled; the file is kept.");
        return false;
    }
    if (!*success)
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to upload data. The next upload will be tried "
                      << IntervalOf(ConfiguredIntervalSec()).count() << " seconds later.");
        return false;
    }
    EDR_LOG_INFO("UploadSchedule: Events successfully uploaded.");
    if (!m_spool.DeleteFile(file))
    {
        // Sending it again would duplicate its events at the back end.
        EDR_LOG_ERROR("Failed to delete file: " << file.path);
        return false;
    }
    EDR_LOG_DEBUG("Deleted file: " << file.path);
    return true;
}

std::optional<bool> SpoolUploadSchedule::Send(Payload payload)
{
    auto pending = std::make_shared<UploadWaiter>();
    {
        std::lock_guard lock(m_mutex);
        m_pending = pending;
    }
    m_uploader->Upload(payload.url, std::move(payload.body), payload.contentType, payload.protocolType,
                       pending->Completion());
    const auto outcome = pending->Wait();
    {
        std::lock_guard lock(m_mutex);
        m_pending.reset();
    }
    if (outcome == UploadWaiter::Outcome::Cancelled)
    {
        return std::nullopt;
    }
    return outcome == UploadWaiter::Outcome::Succeeded;
}

} // namespace vantor::common
