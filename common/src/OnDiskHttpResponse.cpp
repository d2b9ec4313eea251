#include "common/OnDiskHttpResponse.h"

#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace vantor::common
{

OnDiskHttpResponse::OnDiskHttpResponse(std::string path, bool append)
    : m_path(std::move(path))
{
    m_file.open(m_path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
    if (!m_file)
    {
        throw std::runtime_error("OnDiskHttpResponse: cannot open " + m_path);
    }
    m_file.seekp(0, std::ios::end);
    m_start = m_file.tellp();
}

std::string OnDiskHttpResponse::Payload() const
{
    std::ifstream in(m_path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void OnDiskHttpResponse::DoAppend(std::string_view data)
{
    m_file.write(data.data(), static_cast<std::streamsize>(data.size()));
    if (!m_file)
    {
        throw std::runtime_error("OnDiskHttpResponse: cannot write " + m_path);
    }
    m_written += data.size();
}

void OnDiskHttpResponse::DoClearPayload()
{
    // A retried attempt starts again where this response began.
    m_file.flush();
    std::error_code ec;
    std::filesystem::resize_file(m_path, static_cast<uintmax_t>(m_start), ec);
    m_file.seekp(m_start);
    m_written = 0;
    if (ec || !m_file)
    {
        throw std::runtime_error("OnDiskHttpResponse: cannot truncate " + m_path);
    }
}

void OnDiskHttpResponse::DoFinalize()
{
    m_file.close();
}

} // namespace vantor::common
