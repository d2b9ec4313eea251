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
    std::string description;
    std::string error;
    if (!TryDescribe(path, description, &error))
    {
        throw std::runtime_error(error);
    }
    return description;
}

bool LibMagicWrapper::TryDescribe(const std::string& path, std::string& description, std::string* error) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const char* text = magic_file(m_cookie, path.c_str());
    if (text == nullptr)
    {
        if (error != nullptr)
        {
            const char* reason = magic_error(m_cookie);
            *error = "Failed to find type description for " + path +
                     (reason != nullptr ? std::string(": ") + reason : std::string());
        }
        return false;
    }
    description.assign(text);
    return true;
}

} // namespace vantor::edr
