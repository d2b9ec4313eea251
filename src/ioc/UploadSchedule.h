#pragma once

#include "common/SpoolUploadSchedule.h"
#include "ioc/Config.h"

#include <memory>
#include <mutex>
#include <string>

namespace vantor::common
{
class HttpUploader;
} // namespace vantor::common

namespace vantor::ioc::internal
{

// Sends the IOC spool files, one serialized event batch each, every
// "upload_interval" seconds (the run itself: common::SpoolUploadSchedule;
// it keeps a file whose upload failed for the next run and deletes one
// whose upload succeeded).
//
// A batch goes as "application/octet-stream" to
//   <prefix>/linuxagentevent/v1/customer/<customer id>/agent/<agent id>
// where the prefix is the manifest's "gateway_url" when one is set, else
// the configuration's "service_url". A file that does not parse as a batch
// is deleted as corrupt.
//
// Wiring: the component builds it with its configuration, the agent's ids
// (common_config "customer_id" and "agent_id"), its spool and the IOC
// uploader, registers it with the Scheduler, and calls SetGatewayUrlPrefix
// after each manifest load ("" when the manifest has no gateway_url). A
// spool that is replaced needs a new schedule.
//
// Thread-safe: the prefix may be set from the configuration task while a run
// goes on.
class UploadSchedule : public common::SpoolUploadSchedule
{
public:
    static constexpr const char* kContentType = "application/octet-stream";
    static constexpr const char* kProtocolType = "ioc";

    // config, spool and uploader must outlive the schedule.
    UploadSchedule(const Ioc::Config& config, std::string customerId, std::string agentId,
                   common::SpoolStorage& spool, std::shared_ptr<common::HttpUploader> uploader,
                   BlackoutCheck blackout = {});
    ~UploadSchedule() override;

    // Logs "Setting gateway url prefix to '<prefix>'" at debug level.
    void SetGatewayUrlPrefix(const std::string& prefix);
    std::string GetGatewayUrlPrefix() const;
    // Where the next batch goes.
    std::string GetUploadUrl() const;

protected:
    uint64_t ConfiguredIntervalSec() const override;
    std::optional<Payload> MakePayload(common::SpoolStorage::File& file) override;

private:
    const Ioc::Config& m_config;
    const std::string m_customerId;
    const std::string m_agentId;
    mutable std::mutex m_prefixMutex;
    std::string m_gatewayUrlPrefix;
};

} // namespace vantor::ioc::internal
