#pragma once

#include <cstdint>
#include <string>

namespace vantor::ioc
{

// The facts of an executable or script file that the snapshot keeps for a
// process's image and secondary image. An image that is unknown or cannot
// be examined has empty texts and zero numbers.
struct ImageFile
{
    std::string path;
    // "<major>:<minor>" of the device that holds the file.
    std::string deviceId;
    // st_mode (type and permission bits).
    int64_t attributes = 0;
    int64_t inode = 0;
    int64_t ownerGid = 0;
    std::string ownerGroup;
    std::string ownerName;
    int64_t ownerUid = 0;
    // The file system's inode flags (as lsattr shows them) in hex; empty
    // where the file system has none.
    std::string fsAttributes;

    // Examines the file at path; a file that cannot be examined keeps only
    // its path.
    static ImageFile FromPath(const std::string& path);

    bool operator==(const ImageFile&) const = default;
};

} // namespace vantor::ioc
