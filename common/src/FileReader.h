#pragma once

#include "common/UniqueFd.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vantor::common
{

// Why a FileReader failed, with the errno of the failing call (0 when the
// failure is no system error).
class FileReadException : public std::runtime_error
{
public:
    enum class Stage
    {
        Open,
        Stat,
        NotRegular,
        TooLarge,
        Read
    };

    FileReadException(Stage stage, const std::string& path, int error);

    Stage GetStage() const { return m_stage; }
    int Error() const { return m_error; }

private:
    Stage m_stage;
    int m_error;
};

// A regular file opened for reading, whose content is taken in bounded
// pieces: the one read loop of the code base. Opening is non-blocking (a
// FIFO planted under a file's name cannot block the reader) and refuses
// anything but a regular file. Failures throw FileReadException with the
// texts "Failed to open <path>: <reason>", "Failed to stat <path>: ...",
// "Not a regular file: <path>", "File too large: <path>" and
// "Failed to read <path>: ...".
//
// One object is used by one thread at a time.
class FileReader
{
public:
    enum class Links
    {
        Follow,
        NoFollow
    };

    // The size of the pieces ForEachChunk hands on.
    static constexpr std::size_t kChunkSize = 64 * 1024;

    FileReader(std::string path, Links links);

    const std::string& Path() const { return m_path; }
    // Size and inode when opened; the file may grow or shrink while read.
    std::uint64_t Size() const { return m_size; }
    ino_t Inode() const { return m_inode; }

    // Throws TooLarge (EFBIG) when the file was larger than maxSize at open.
    void RequireAtMost(std::uint64_t maxSize) const;

    // Reads until maxBytes are in out or the file ends; out's content is
    // replaced and its capacity reused. Room for maxBytes is made up front,
    // so pass a bound such as min(Size(), limit). Answers the bytes read.
    std::uint64_t ReadUpTo(std::string& out, std::uint64_t maxBytes);

    // Hands every piece of the rest of the file to sink, in order, until
    // the end or until sink answers false (it has seen enough); throws
    // TooLarge once more than maxTotal bytes were seen (a file that grew
    // while read). Answers the number of bytes read.
    std::uint64_t ForEachChunk(const std::function<bool(std::string_view)>& sink,
                               std::uint64_t maxTotal = UINT64_MAX);

private:
    // One read(2), repeated on EINTR; 0 at the end of the file.
    std::size_t ReadSome(char* buffer, std::size_t size);

    std::string m_path;
    UniqueFd m_fd;
    std::uint64_t m_size = 0;
    ino_t m_inode = 0;
};

} // namespace vantor::common
