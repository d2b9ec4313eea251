#include "fim/DocumentWriter.h"

#include "common/util/Utf8.h"
#include "edr/PathEscape.h"

namespace vantor::fim::internal
{

DocumentWriter::DocumentWriter()
    : m_writer(m_buffer)
{
}

void DocumentWriter::String(std::string_view value)
{
    const std::string_view valid = util::IsValidUtf8(value) ? value : ValidUtf8(value, m_scratch);
    m_writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

void DocumentWriter::PathMember(const char* key, std::string_view path)
{
    Key(key);
    std::string_view escaped = path;
    if (edr::PathEscape::NeedsEscape(path))
    {
        edr::PathEscape::EscapeTo(path, m_scratch);
        escaped = m_scratch;
    }
    m_writer.String(escaped.data(), static_cast<rapidjson::SizeType>(escaped.size()));
}

std::string DocumentWriter::Take()
{
    std::string text = Text();
    Reset();
    return text;
}

void DocumentWriter::Reset()
{
    const bool large = m_buffer.GetSize() > kKeptBytes;
    m_buffer.Clear();
    if (large)
    {
        m_buffer.ShrinkToFit();
    }
    if (m_scratch.capacity() > kKeptBytes)
    {
        std::string().swap(m_scratch);
    }
    m_writer.Reset(m_buffer);
}

const std::string& DocumentWriter::ValidUtf8(std::string_view text, std::string& scratch)
{
    return util::ValidUtf8(text, scratch);
}

} // namespace vantor::fim::internal
