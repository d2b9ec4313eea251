#include "edr/LibMagicWrapper.h"

namespace vantor::edr
{

LibMagicWrapper::LibMagicWrapper(const std::string& databasePath)
    // Compressed files are described as such, not unpacked: cheap and safe.
    : m_cookie(magic_open(MAGIC_ERROR | MAGIC_NO_CHECK_COMPRESS))
{
    if (m_cookie == nullptr)
    {
        throw std::runtime_error("LibMagicWrapper: magic_open failed");
    }
    if (magic_load(m_cookie, databasePath.c_str()) != 0)
    {
        std::string reason = magic_error(m_cookie) != nullptr ? magic_error(m_cookie) : "unknown error";
        magic_close(m_cookie);
        throw std::runtime_error("LibMagicWrapper: cannot load " + databasePath + ": " + reason);
    }
}

LibMagicWrapper::~LibMagicWrapper()
{
    magic_close(m_cookie);
}

std::string LibMagicWrapper::Describe(const std::string& path) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const char* description = magic_file(m_cookie, path.c_str());
    if (description == nullptr)
    {
        const char* error = magic_error(m_cookie);
        throw std::runtime_error("Failed to find type description for " + path +
                                 (error != nullptr ? std::string(": ") + error : std::string()));
    }
    return description;
}

} // namespace vantor::edr
