#pragma once

#include "common/AsyncTask.h"
#include "common/PeriodicSchedule.h"
#include "common/SpoolStorage.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace vantor::common
{

class HttpUploader;
class UploadWaiter;

// Sends a component's spool files, oldest first, at a configured interval.
// The Scheduler thread only launches the run; reading, the upload and the
// deletion happen on the task, which waits for the upload's answer so that a
// file is never sent twice at once. A file is deleted only after a
// successful upload; one that the component cannot turn into a payload is
// deleted at once.
//
// A run goes on with the next file while uploads succeed, so that a backlog
// drains in a few runs rather than one file per interval. It ends at the
// first failure (the next run retries that file), at a corrupt file, in a
// blackout, when stopped, and after kMaxFilesPerRun files.
//
// A component derives its schedule and says where a file goes and how its
// payload looks (MakePayload) and which interval is configured. Derived
// classes call Stop() in their own destructor, as the run uses their
// members. Thread-safe.
class SpoolUploadSchedule : public PeriodicSchedule, public AsyncTask
{
public:
    // Answers whether now is a blackout period, in which uploads wait.
    using BlackoutCheck = std::function<bool()>;

    // What one spool file is sent as.
    struct Payload
    {
        std::string url;
        std::string body;
        std::string contentType;
        std::string protocolType; // the C-PROTOTYPE value
    };

    // The bound of one run, about 10 MiB at the default file size: a longer
    // backlog is paced over several intervals rather than sent to the back
    // end in one burst.
    static constexpr std::size_t kMaxFilesPerRun = 100;
    // An interval of 0 would make the schedule spin.
    static constexpr uint64_t kDefaultIntervalSec = 60;

    // The spool and the uploader must outlive the schedule; intervalSec is
    // the configured interval at construction (0 takes the default).
    SpoolUploadSchedule(SpoolStorage& spool, std::shared_ptr<HttpUploader> uploader, BlackoutCheck blackout,
                        uint64_t intervalSec);
    ~SpoolUploadSchedule() override;

    // The first run is due at once, not one interval after registration.
    void InitializeNextScheduleTime() override {}

    // Runs one upload run on the caller's thread (the task's work).
    void RunOnce();

protected:
    // The configured interval in seconds, read before every run so that a
    // new configuration takes effect (0 takes the default).
    virtual uint64_t ConfiguredIntervalSec() const = 0;
    // The payload of a file (whose data the callee may move out); nothing
    // when the file is corrupt, after logging why.
    virtual std::optional<Payload> MakePayload(SpoolStorage::File& file) = 0;

    void Run() override;
    void DoWork() override;
    void OnCancel() override;

private:
    static std::chrono::seconds IntervalOf(uint64_t seconds);
    // Sends the oldest file and deletes it; answers whether the run may go
    // on with the next one.
    bool UploadOldest();
    // Hands the payload to the uploader and waits for its answer; nothing
    // when the run was cancelled meanwhile.
    std::optional<bool> Send(Payload payload);

    SpoolStorage& m_spool;
    const std::shared_ptr<HttpUploader> m_uploader;
    const BlackoutCheck m_blackout;
    std::mutex m_mutex;
    std::shared_ptr<UploadWaiter> m_pending;
};

} // namespace vantor::common
