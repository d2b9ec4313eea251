#include "fim/FileState.h"

#include <sys/stat.h>

namespace vantor::fim
{

std::optional<FileState> FileState::Observe(const std::string& path)
{
    struct stat info
    {
    };
    if (::lstat(path.c_str(), &info) != 0)
    {
        return std::nullopt;
    }
    FileState state;
    state.size = static_cast<uint64_t>(info.st_size);
    state.mode = info.st_mode;
    state.uid = info.st_uid;
    state.gid = info.st_gid;
    state.modificationTimeNs = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    return state;
}

} // namespace vantor::fim
