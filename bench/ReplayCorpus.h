#pragma once

#include <cstddef>
#include <string>

namespace vantor::bench
{

// Raw audit text as auditd's af_unix plugin sent it (string format, records
// of concurrent events interleaved), loaded whole for a replay. The big
// corpus is captured on demand into the build tree by
// bench/capture-corpus.sh; a small sample of it ships in bench/corpus/.
class ReplayCorpus
{
public:
    // Environment variable naming a corpus, overridden by a command-line flag.
    static constexpr const char* kPathVariable = "CORVID_BENCH_CORPUS";

    // The corpus a bench uses when given none: CORVID_BENCH_CORPUS when set,
    // else the captured corpus in the build tree when it exists, else the
    // shipped sample.
    static std::string DefaultPath();

    // Reads path, xz-decompressed when it ends in ".xz". Throws
    // std::runtime_error when it cannot be read or decoded, or holds no
    // record.
    explicit ReplayCorpus(const std::string& path);

    const std::string& Path() const { return m_path; }
    const std::string& Text() const { return m_text; }
    size_t Lines() const { return m_lines; }

private:
    std::string m_path;
    std::string m_text;
    size_t m_lines = 0;
};

} // namespace vantor::bench
