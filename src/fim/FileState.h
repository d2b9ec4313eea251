#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vantor::fim
{

// What FIM knows of one file system object at one moment: enough to show a
// change document's before and after, and to tell a content change from a
// change of timestamps alone.
struct FileState
{
    uint64_t size = 0;
    uint32_t mode = 0; // st_mode, type bits included
    uint32_t uid = 0;
    uint32_t gid = 0;
    int64_t modificationTimeNs = 0;
    std::string sha256; // lower-case hex; empty when not known

    // The object at path as lstat sees it now (without content hash);
    // nothing when it is gone or cannot be examined.
    static std::optional<FileState> Observe(const std::string& path);

    // Whether mode, owner or group differ.
    bool SecurityDiffers(const FileState& other) const
    {
        return (mode & 07777) != (other.mode & 07777) || uid != other.uid || gid != other.gid;
    }
};

} // namespace vantor::fim
