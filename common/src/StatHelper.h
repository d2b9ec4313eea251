#pragma once

#include "common/StatHelperException.h"

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vantor::common
{

// Thin, throwing wrappers around stat(2), lstat(2), readlink(2) and a bounded
// read of a file's content.
class StatHelper
{
public:
    // The largest content ReadContent loads unless told otherwise.
    static constexpr std::uint64_t kDefaultMaxContentSize = 32ULL * 1024 * 1024;

    enum class ReadResult
    {
        Complete,
        SizeLimitReached
    };

    // stat (followLinks) or lstat of path; a missing file (ENOENT, ENOTDIR)
    // gives nullopt, any other failure throws "Failed to stat "/"Failed to
    // lstat " and the path.
    static std::optional<struct stat> TryStat(const std::string& path, bool followLinks);
    static struct stat Stat(const std::string& path);
    static struct stat Lstat(const std::string& path);
    // Target of a symbolic link: "Failed to resolve link " path on failure.
    static std::string ReadLink(const std::string& path);

    // Reads at most maxSize bytes of the file into content (replacing it).
    // Symbolic links are followed. The inode of the file read is returned in
    // *inode when given, so that the caller can tell a replaced file.
    static ReadResult ReadContent(const std::string& path, std::string& content, std::uint64_t maxSize,
                                  ino_t* inode = nullptr);
};

} // namespace vantor::common
