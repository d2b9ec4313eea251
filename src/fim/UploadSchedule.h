#pragma once

#include "common/SpoolUploadSchedule.h"
#include "fim/Config.h"

#include <cstddef>
#include <memory>

namespace vantor::common
{
class HttpUploader;
} // namespace vantor::common

namespace vantor::fim::internal
{

// Sends the FIM spool files to the configured service URL every
// upload_interval seconds (the run itself: common::SpoolUploadSchedule).
// Each file's {"events": [...]} goes with the time of sending as
// {"events": [...], "timestamp": "..."}; a file that does not parse so, or
// nests deeper than kMaxNesting, is deleted as corrupt.
class UploadSchedule : public common::SpoolUploadSchedule
{
public:
    // Levels of arrays and objects below "events" that a file may hold; an
    // event document uses three. A deeper file is corrupt: writing it out
    // again would recurse once per level.
    static constexpr std::size_t kMaxNesting = 64;

    // config, spool and uploader must outlive the schedule.
    UploadSchedule(const Config& config, common::SpoolStorage& spool,
                   std::shared_ptr<common::HttpUploader> uploader, BlackoutCheck blackout = {});
    ~UploadSchedule() override;

protected:
    uint64_t ConfiguredIntervalSec() const override;
    std::optional<Payload> MakePayload(common::SpoolStorage::File& file) override;

private:
    const Config& m_config;
};

} // namespace vantor::fim::internal
