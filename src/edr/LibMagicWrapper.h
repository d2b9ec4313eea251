#pragma once

#include <magic.h>

#include <mutex>
#include <stdexcept>
#include <string>

namespace vantor::edr
{

// Owns one libmagic cookie loaded with a compiled magic database and
// describes files with it. A cookie is not safe for concurrent use, so every
// lookup holds the mutex.
class LibMagicWrapper
{
public:
    // Throws std::runtime_error "LibMagicWrapper: ..." when the cookie cannot
    // be opened or the database cannot be loaded.
    explicit LibMagicWrapper(const std::string& databasePath);
    ~LibMagicWrapper();

    LibMagicWrapper(const LibMagicWrapper&) = delete;
    LibMagicWrapper& operator=(const LibMagicWrapper&) = delete;

    // The description of the file's type ("ASCII text", "directory", ...).
    // Throws std::runtime_error "Failed to find type description for " path.
    std::string Describe(const std::string& path) const;
    // As Describe, without the exception: false, with the reason in error
    // (when given), for a file that cannot be described. For callers that
    // meet missing files often (events about files already gone).
    bool TryDescribe(const std::string& path, std::string& description, std::string* error = nullptr) const;

private:
    mutable std::mutex m_mutex;
    magic_t m_cookie;
};

} // namespace vantor::edr
