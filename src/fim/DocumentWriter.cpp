#include "fim/DocumentWriter.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

namespace vantor::fim::internal
{

namespace
{

// Appends to a string; the output stream of the UTF-8 validator.
struct StringOutput
{
    using Ch = char;
    std::string& out;
    void Put(char c) { out.push_back(c); }
};

} // namespace

DocumentWriter::DocumentWriter()
    : m_writer(m_buffer)
{
}

void DocumentWriter::String(std::string_view value)
{
    const std::string& valid = ValidUtf8(value, m_scratch);
    m_writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

const std::string& DocumentWriter::ValidUtf8(std::string_view text, std::string& scratch)
{
    scratch.clear();
    size_t pos = 0;
    while (pos < text.size())
    {
        // ASCII runs are copied as they are; the validator sees the rest.
        const size_t start = pos;
        while (pos < text.size() && static_cast<unsigned char>(text[pos]) < 0x80)
        {
            ++pos;
        }
        scratch.append(text.substr(start, pos - start));
        if (pos == text.size())
        {
            break;
        }
        rapidjson::MemoryStream input(text.data() + pos, text.size() - pos);
        const size_t mark = scratch.size();
        StringOutput output{scratch};
        if (rapidjson::UTF8<>::Validate(input, output))
        {
            pos += input.Tell();
        }
        else
        {
            scratch.resize(mark);
            scratch.append("\xEF\xBF\xBD");
            pos += 1;
        }
    }
    return scratch;
}

} // namespace vantor::fim::internal
