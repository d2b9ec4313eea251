#include "edr/Event.h"

namespace vantor::edr
{

std::unique_ptr<Event> Event::Clone() const
{
    throw EventException("Clone is not implemented");
}

EventType Event::GetType() const
{
    throw EventException("GetType is not implemented");
}

std::string Event::GetActionName() const
{
    throw EventException("GetActionName is not implemented");
}

uint32_t Event::GetEventId() const
{
    throw EventException("GetEventId is not implemented");
}

uint32_t Event::GetActorEuid() const
{
    throw EventException("GetActorEuid is not implemented");
}

std::vector<std::string> Event::GetActorProcessArguments() const
{
    throw EventException("GetActorProcessArguments is not implemented");
}

pid_t Event::GetActorProcessId() const
{
    throw EventException("GetActorProcessId is not implemented");
}

pid_t Event::GetActorParentProcessId() const
{
    throw EventException("GetActorParentProcessId is not implemented");
}

std::string Event::GetActorUserName() const
{
    throw EventException("GetActorUserName is not implemented");
}

uint32_t Event::GetActorUserId() const
{
    throw EventException("GetActorUserId is not implemented");
}

std::string Event::GetActorLoginName() const
{
    throw EventException("GetActorLoginName is not implemented");
}

uint32_t Event::GetActorAuid() const
{
    throw EventException("GetActorAuid is not implemented");
}

std::string Event::GetCommandLine() const
{
    throw EventException("GetCommandLine not implemented");
}

std::string Event::GetFile() const
{
    throw EventException("GetFile not implemented");
}

Event::TimePoint Event::GetFileAccessTime() const
{
    throw EventException("GetFileAccessTime is not implemented");
}

Event::TimePoint Event::GetFileChangeTime() const
{
    throw EventException("GetFileChangeTime is not implemented");
}

std::string Event::GetFileContent() const
{
    throw EventException("GetFileContent is not implemented");
}

std::string Event::GetFileContentHash(HashType) const
{
    throw EventException("GetFileContentHash is not implemented");
}

Event::TimePoint Event::GetFileModificationTime() const
{
    throw EventException("GetFileModificationTime is not implemented");
}

uint64_t Event::GetFileSize() const
{
    throw EventException("GetFileSize is not implemented");
}

uint32_t Event::GetFileType() const
{
    throw EventException("GetFileType is not implemented");
}

std::string Event::GetFileTypeDesc() const
{
    throw EventException("GetFileTypeDesc is not implemented");
}

std::string Event::GetImage() const
{
    throw EventException("GetImage is not implemented");
}

std::string Event::GetNewFile() const
{
    throw EventException("GetNewFile not implemented");
}

uint32_t Event::GetCategory() const
{
    throw EventException("GetCategory is not implemented");
}

uint64_t Event::GetParentInode() const
{
    throw EventException("GetParentInode is not implemented");
}

uint64_t Event::GetParentDeviceID() const
{
    throw EventException("GetParentDeviceID is not implemented");
}

std::string Event::GetCwd() const
{
    throw EventException("GetCwd is not implemented");
}

std::string Event::GetSecondaryImage() const
{
    throw EventException("GetSecondaryImage not implemented");
}

uint64_t Event::GetTimestamp() const
{
    throw EventException("GetTimestamp is not implemented");
}

std::string Event::GetNetworkAddress() const
{
    throw EventException("GetNetworkAddress is not implemented");
}

uint16_t Event::GetNetworkPort() const
{
    throw EventException("GetNetworkPort is not implemented");
}

FileReadStatus Event::GetFileReadStatus() const
{
    throw EventException("GetFileReadStatus is not implemented");
}

bool Event::HasProcess() const
{
    throw EventException("HasProcess is not implemented");
}

bool Event::IsSymlink() const
{
    throw EventException("IsSymlink is not implemented");
}

bool Event::IsSuccessful() const
{
    throw EventException("IsSuccessful is not implemented");
}

bool Event::IsThread() const
{
    throw EventException("IsThread is not implemented");
}

void Event::Refresh()
{
    throw EventException("Refresh is not implemented");
}

void Event::UpdateActorProcessId(pid_t)
{
    throw EventException("UpdateActorProcessId is not implemented");
}

std::optional<ProcessStat> Event::GetActorProcessStat() const
{
    throw EventException("GetActorProcessStat is not implemented");
}

} // namespace vantor::edr
