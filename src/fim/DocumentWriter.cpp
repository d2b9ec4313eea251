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
    const std::string& valid = ValidUtf8(value, m_scratch);
    m_writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

void DocumentWriter::PathMember(const char* key, std::string_view path)
{
    Key(key);
    const std::string escaped = edr::PathEscape::Escape(path);
    m_writer.String(escaped.data(), static_cast<rapidjson::SizeType>(escaped.size()));
}

const std::string& DocumentWriter::ValidUtf8(std::string_view text, std::string& scratch)
{
    return util::ValidUtf8(text, scratch);
}

} // namespace vantor::fim::internal
