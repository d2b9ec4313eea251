#include "fim/DocumentWriter.h"

#include "common/util/Utf8.h"
#include "edr/PathEscape.h"

namespace vantor::fim::internal
{

DocumentWriter::DocumentWriter()
    : m_writer(m_buffer)
{
}

namespace
{

// Whether text is valid UTF-8 as it is; with a backslash as well when
// backslashOk.
bool Unchanged(std::string_view text, bool backslashOk)
{
    size_t pos = 0;
    while (pos < text.size())
    {
        const char c = text[pos];
        if (static_cast<unsigned char>(c) < 0x80)
        {
            if (c == '\\' && !backslashOk)
            {
                return false;
            }
            ++pos;
            continue;
        }
        const size_t length = util::Utf8SequenceLength(text.substr(pos));
        if (length == 0)
        {
            return false;
        }
        pos += length;
    }
    return true;
}

} // namespace

void DocumentWriter::String(std::string_view value)
{
    const std::string_view valid = Unchanged(value, true) ? value : ValidUtf8(value, m_scratch);
    m_writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

void DocumentWriter::PathMember(const char* key, std::string_view path)
{
    Key(key);
    std::string_view escaped = path;
    if (!Unchanged(path, false))
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
