#include "bench/ReplayCorpus.h"

#include "common/util/Lzma.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace vantor::bench
{

namespace
{

// Far above any corpus this bench is meant for, but a bound all the same.
constexpr size_t kMaxCorpusBytes = size_t{8} << 30;

} // namespace

std::string ReplayCorpus::DefaultPath()
{
    if (const char* path = std::getenv(kPathVariable); path != nullptr && *path != '\0')
    {
        return path;
    }
    const std::string captured = CORVID_BINARY_DIR "/bench/corpus/capture.audit.xz";
    if (std::filesystem::exists(captured))
    {
        return captured;
    }
    return CORVID_SOURCE_DIR "/bench/corpus/sample.audit.xz";
}

ReplayCorpus::ReplayCorpus(const std::string& path)
    : m_path(path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        throw std::runtime_error("ReplayCorpus: cannot read " + path);
    }
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (path.size() > 3 && path.compare(path.size() - 3, 3, ".xz") == 0)
    {
        try
        {
            data = util::LzmaDecompress(data, kMaxCorpusBytes);
        }
        catch (const util::LzmaException& e)
        {
            throw std::runtime_error("ReplayCorpus: " + path + ": " + e.what());
        }
    }
    m_text = std::move(data);
    m_lines = static_cast<size_t>(std::count(m_text.begin(), m_text.end(), '\n'));
    if (m_lines == 0)
    {
        throw std::runtime_error("ReplayCorpus: " + path + " holds no record");
    }
}

} // namespace vantor::bench
