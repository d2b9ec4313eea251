#pragma once

#include "common/AsyncTask.h"
#include "common/PeriodicSchedule.h"
#include "common/UploadWaiter.h"
#include "fim/Config.h"

#include <functional>
#include <memory>
#include <mutex>

namespace vantor::common
{
class HttpUploader;
class SpoolStorage;
} // namespace vantor::common

namespace vantor::fim::internal
{

// Sends the FIM spool files, oldest first, every upload_interval seconds.
// The Scheduler thread only launches the run; reading, the upload and the
// deletion happen on the task, which waits for the upload's answer so that a
// file is never sent twice at once. A file is deleted only after a
// successful upload; one that does not parse is deleted at once.
//
// A run goes on with the next file while uploads succeed, so that a backlog
// drains in a few runs rather than one file per interval. It ends at the
// first failure (the next run retries that file), at a corrupt file, in a
// blackout, when stopped, and after kMaxFilesPerRun files.
class UploadSchedule : public common::PeriodicSchedule, public common::AsyncTask
{
public:
    // Answers whether now is a blackout period, in which uploads wait.
    using BlackoutCheck = std::function<bool()>;

    // The bound of one run, about 10 MiB at the default file size: a longer
    // backlog is paced over several intervals rather than sent to the back
    // end in one burst.
    static constexpr std::size_t kMaxFilesPerRun = 100;

    // config, spool and uploader must outlive the schedule.
    UploadSchedule(const Config& config, common::SpoolStorage& spool,
                   std::shared_ptr<common::HttpUploader> uploader, BlackoutCheck blackout = {});
    ~UploadSchedule() override;

    // The first run is due at once, not one interval after registration.
    void InitializeNextScheduleTime() override {}

    // Runs one upload run on the caller's thread (the task's work).
    void RunOnce();

protected:
    void Run() override;
    void DoWork() override;
    void OnCancel() override;

private:
    static std::chrono::seconds IntervalOf(const Config& config);
    // Sends the oldest file and deletes it; answers whether the run may go
    // on with the next one.
    bool UploadOldest();

    const Config& m_config;
    common::SpoolStorage& m_spool;
    const std::shared_ptr<common::HttpUploader> m_uploader;
    const BlackoutCheck m_blackout;
    std::mutex m_mutex;
    std::shared_ptr<common::UploadWaiter> m_pending;
    common::SystemTimePoint m_lastRun;
};

} // namespace vantor::fim::internal
