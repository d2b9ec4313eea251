#pragma once

#include <string>

namespace vantor::test
{

// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }
    // Writes text to a file in the directory; answers its path.
    std::string Write(const std::string& name, const std::string& text) const;

private:
    std::string m_path;
};

} // namespace vantor::test
