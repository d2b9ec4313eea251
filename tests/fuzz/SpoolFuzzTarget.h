#pragma once

#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "common/SpoolStorage.h"
#include "common/SpoolUploadSchedule.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace vantor::test
{

// What a spool fuzzer runs each input through: the bytes as the one file of
// a spool, read by a component's upload schedule as the scheduler would run
// it. The file is written through the spool's own write path with a raw
// formatter, so that it holds exactly the input (what a formatter writes is
// not what a damaged or planted file holds); reading does not depend on the
// formatter. The uploader's service is never started, so every upload is
// refused at once on the caller's thread: no network, and a file that made
// a payload is kept while a corrupt one is deleted, as in a real run whose
// upload failed. Each run ends with an empty spool; the directory is
// removed with the target.
//
// Not thread-safe; one per fuzzer.
class SpoolFuzzTarget
{
public:
    using MakeSchedule = std::function<std::unique_ptr<common::SpoolUploadSchedule>(
        common::SpoolStorage&, std::shared_ptr<common::HttpUploader>)>;

    SpoolFuzzTarget(const std::string& prefix, std::uint64_t maxFileCount, const MakeSchedule& makeSchedule)
        : m_dir(MakeDirectory())
        , m_spool(std::make_unique<common::SpoolStorage>(m_scheduler, m_dir, prefix,
                                                         std::make_unique<common::SpoolRawDataFormatter>(),
                                                         common::SpoolStorage::Settings{}, maxFileCount))
        , m_schedule(makeSchedule(
              *m_spool, std::make_shared<common::HttpUploader>(
                            std::make_shared<common::HttpService>(common::HttpServiceSettings{}), 1)))
    {
    }

    ~SpoolFuzzTarget()
    {
        m_schedule.reset();
        m_spool.reset();
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }

    SpoolFuzzTarget(const SpoolFuzzTarget&) = delete;
    SpoolFuzzTarget& operator=(const SpoolFuzzTarget&) = delete;

    // One upload run over the bytes as the spool's oldest file; bytes the
    // spool would never write as one file (over its file size) are skipped.
    void Run(std::string_view data)
    {
        if (data.size() > common::SpoolStorage::kDefaultMaxFileSizeKb * 1024)
        {
            return;
        }
        m_spool->Write(std::string(data));
        m_spool->FlushDataCache();
        m_schedule->RunOnce();
        m_spool->Clear();
    }

private:
    static std::string MakeDirectory()
    {
        // In memory: the spool syncs every file it writes, which on a disk
        // would bound the fuzzer to a few hundred inputs a second.
        std::string dir = "/dev/shm/corvid-fuzz-spool-XXXXXX";
        if (::mkdtemp(dir.data()) == nullptr)
        {
            std::abort(); // the machine, not the code under test
        }
        return dir;
    }

    const std::string m_dir;
    // Never started: the spool only registers its schedule with it.
    common::Scheduler m_scheduler;
    std::unique_ptr<common::SpoolStorage> m_spool;
    std::unique_ptr<common::SpoolUploadSchedule> m_schedule;
};

} // namespace vantor::test
