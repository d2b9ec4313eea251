#include "ioc/UploadSchedule.h"

#include "common/Logging.h"
#include "ioc/protobuf/IocEvents.pb.h"

namespace vantor::ioc::internal
{

UploadSchedule::UploadSchedule(const Ioc::Config& config, std::string customerId, std::string agentId,
                               common::SpoolStorage& spool, std::shared_ptr<common::HttpUploader> uploader,
                               BlackoutCheck blackout)
    : common::SpoolUploadSchedule(spool, std::move(uploader), std::move(blackout), config.UploadInterval())
    , m_config(config)
    , m_customerId(std::move(customerId))
    , m_agentId(std::move(agentId))
{
}

UploadSchedule::~UploadSchedule()
{
    Stop();
}

void UploadSchedule::SetGatewayUrlPrefix(const std::string& prefix)
{
    EDR_LOG_DEBUG("Setting gateway url prefix to '" << prefix << "'");
    std::lock_guard lock(m_prefixMutex);
    m_gatewayUrlPrefix = prefix;
}

std::string UploadSchedule::GetGatewayUrlPrefix() const
{
    std::lock_guard lock(m_prefixMutex);
    return m_gatewayUrlPrefix;
}

std::string UploadSchedule::GetUploadUrl() const
{
    std::string prefix = GetGatewayUrlPrefix();
    if (prefix.empty())
    {
        prefix = m_config.ServiceUrl();
    }
    return prefix + "/linuxagentevent" + "/v1" + "/customer/" + m_customerId + "/agent/" + m_agentId;
}

uint64_t UploadSchedule::ConfiguredIntervalSec() const
{
    return m_config.UploadInterval();
}

std::optional<common::SpoolUploadSchedule::Payload>
UploadSchedule::MakePayload(common::SpoolStorage::File& file)
{
    // Only a whole batch goes: the server would refuse a broken one, and the
    // file would stop every batch behind it.
    com::corvid::ioc::model::proto::event::IoCEvent batch;
    if (!batch.ParseFromString(file.data))
    {
        EDR_LOG_ERROR("UploadSchedule: Failed to parse file: " << file.path << " is not an event batch");
        return std::nullopt;
    }
    EDR_LOG_DEBUG("UploadSchedule: Sending batch " << batch.sequenceno() << " with " << file.data.size()
                                                   << " bytes");
    return Payload{GetUploadUrl(), std::move(file.data), kContentType, kProtocolType};
}

} // namespace vantor::ioc::internal
