#include "tests/support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace vantor::test
{

TempDir::TempDir()
{
    char pattern[] = "/tmp/corvid-test-XXXXXX";
    if (::mkdtemp(pattern) == nullptr)
    {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

std::string TempDir::Write(const std::string& name, const std::string& text) const
{
    const std::string path = File(name);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return path;
}

} // namespace vantor::test
