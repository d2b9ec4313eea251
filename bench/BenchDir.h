#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdlib.h>
#include <string>
#include <system_error>

namespace vantor::bench
{

// A fresh directory under the temporary directory for one benchmark run,
// removed with its content on destruction. A bench cannot go on without it,
// so failing to make one aborts.
class BenchDir
{
public:
    BenchDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "corvid-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
        {
            std::abort();
        }
        m_path = pattern;
    }
    ~BenchDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    BenchDir(const BenchDir&) = delete;
    BenchDir& operator=(const BenchDir&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

} // namespace vantor::bench
