#pragma once

#include "common/AsyncTask.h"
#include "common/PeriodicSchedule.h"
#include "common/UploadWaiter.h"
#include "edr/AHSRecord.h"
#include "edr/AHSServiceSettings.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::common
{
class HttpUploader;
class SqlStorage;
} // namespace vantor::common

namespace vantor::edr
{

// Sends the health-status records every interval: the oldest
// kMaxRecordsPerRun of them in one JSON payload {"status": [...]}, content
// type "application/json", upload type "status". The records are deleted as
// soon as the upload succeeded; after a failure they stay for the next run.
// A record whose status code names no record type stops the run with
// "Invalid AHSRecordType provided. Aborting this attempt."; such records are
// deleted then, so that the next run goes on with the others.
//
// The store is held to kMaxStoredRecords: a longer backlog (the back end
// unreachable for days) loses its oldest records first, counted in
// EvictedRecords().
//
// The Scheduler thread only launches the run; reading, the upload and the
// deletion run on the task, which waits for the upload's answer. Records are
// told apart by their row order: writers only append while a run is under
// way, so the rows sent are still the oldest when they are deleted.
class AHSUploadSchedule : public common::PeriodicSchedule, public common::AsyncTask
{
public:
    static constexpr const char* kContentType = "application/json";
    static constexpr const char* kUploadType = "status";
    static constexpr uint64_t kMaxRecordsPerRun = 1000;
    static constexpr uint64_t kMaxStoredRecords = 10000;

    // Throws std::invalid_argument for a null store or uploader.
    AHSUploadSchedule(std::shared_ptr<common::SqlStorage> store,
                      std::shared_ptr<common::HttpUploader> uploader, AHSServiceSettings settings);
    ~AHSUploadSchedule() override;

    // One run on the caller's thread (the task's work).
    void RunOnce();

    // The payload of the records; additional fields that hold JSON are
    // embedded as JSON, any other text as a string, empty ones left out.
    static std::string BuildPayload(const std::vector<AHSRecord>& records);

    uint64_t EvictedRecords() const { return m_evicted.load(std::memory_order_relaxed); }
    const AHSServiceSettings& Settings() const { return m_settings; }

protected:
    void Run() override;
    void DoWork() override;
    void OnCancel() override;

private:
    // Deletes the oldest records beyond kMaxStoredRecords.
    void Trim();
    // Deletes the count oldest records.
    bool DeleteOldest(uint64_t count);
    // Answers whether the records were uploaded.
    bool Upload(std::string payload);

    const std::shared_ptr<common::SqlStorage> m_store;
    const std::shared_ptr<common::HttpUploader> m_uploader;
    const AHSServiceSettings m_settings;
    std::atomic<uint64_t> m_evicted{0};
    std::mutex m_mutex;
    std::shared_ptr<common::UploadWaiter> m_pending;
};

} // namespace vantor::edr
