#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace vantor::test
{

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir
{
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "corvid-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp failed");
        }
        m_path = pattern;
    }

    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

} // namespace vantor::test
