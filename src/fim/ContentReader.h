#pragma once

#include <cstdint>
#include <string>

namespace vantor::fim::internal
{

// Reads a file for its event document: the content (up to kMaxContentSize)
// and/or its SHA-256, in one pass. Never follows a final symlink and never
// waits on a FIFO or device: anything but a regular file is a read failure.
//
// Stateless; callable from any thread.
class ContentReader
{
public:
    // Largest content (bytes) put into a document; the limit is inclusive.
    static constexpr uint64_t kMaxContentSize = 51200;

    enum class ContentStatus
    {
        ReadSuccessful,
        ReadFailure,
        MaxSizeLimitReached
    };

    struct Content
    {
        ContentStatus status = ContentStatus::ReadFailure;
        uint64_t size = 0;
        std::string data;   // only when asked for and within the limit
        std::string sha256; // lower-case hex; only when asked for and read whole
    };

    static Content Read(const std::string& path, bool wantData, bool wantHash);

    // "READ_SUCCESSFUL", "READ_FAILURE" or "MAX_SIZE_LIMIT_REACHED".
    static const char* ContentStatusText(ContentStatus status);
};

} // namespace vantor::fim::internal
