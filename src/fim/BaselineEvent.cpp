#include "fim/BaselineEvent.h"

#include "fim/EventProcessor.h"

#include <unistd.h>

#include <chrono>

namespace vantor::fim::internal
{

BaselineEvent::BaselineEvent(std::string path)
    : m_path(std::move(path))
    , m_timestamp(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                            std::chrono::system_clock::now().time_since_epoch())
                                            .count()))
    , m_pid(::getpid())
    , m_uid(::getuid())
{
}

std::unique_ptr<edr::Event> BaselineEvent::Clone() const
{
    return std::make_unique<BaselineEvent>(*this);
}

uint32_t BaselineEvent::GetCategory() const
{
    return EventProcessor::kBaselineCategory;
}

} // namespace vantor::fim::internal
