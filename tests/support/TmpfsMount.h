#pragma once

#include <cstddef>
#include <string>

namespace vantor::test
{

// A small tmpfs mounted on a directory of the test's (made if missing) and
// unmounted on destruction, for tests that run out of disk. Fill takes its
// last free page with a filler file; Free gives the space back.
//
// Not thread-safe; mount it inside the test's own mount namespace when it
// has one, so that a crashed test leaves nothing mounted behind.
class TmpfsMount
{
public:
    // Answers why the test has to be skipped (no right to mount), empty
    // when mounted; fails the test on another error.
    std::string Mount(const std::string& path, std::size_t sizeKb);
    ~TmpfsMount();

    const std::string& Path() const { return m_path; }
    void Fill();
    void Free();
    // Bytes of regular files under a directory of it (recursively).
    static std::size_t Usage(const std::string& directory);

private:
    std::string m_path;
    bool m_mounted = false;
};

} // namespace vantor::test
