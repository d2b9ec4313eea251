#include "common/util/Utf8.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

namespace vantor::util
{

namespace
{
// Discards what the validator copies; only the length is wanted.
struct NullOutput
{
    using Ch = char;
    void Put(char) {}
};
} // namespace

std::size_t Utf8SequenceLength(std::string_view text)
{
    if (text.empty())
    {
        return 0;
    }
    if (static_cast<unsigned char>(text.front()) < 0x80)
    {
        return 1;
    }
    rapidjson::MemoryStream input(text.data(), text.size());
    NullOutput output;
    return rapidjson::UTF8<>::Validate(input, output) ? input.Tell() : 0;
}

bool IsValidUtf8(std::string_view text)
{
    std::size_t pos = 0;
    while (pos < text.size())
    {
        const std::size_t length = Utf8SequenceLength(text.substr(pos));
        if (length == 0)
        {
            return false;
        }
        pos += length;
    }
    return true;
}

const std::string& ValidUtf8(std::string_view text, std::string& scratch)
{
    scratch.clear();
    std::size_t pos = 0;
    while (pos < text.size())
    {
        const std::size_t length = Utf8SequenceLength(text.substr(pos));
        if (length > 0)
        {
            scratch.append(text.substr(pos, length));
            pos += length;
        }
        else
        {
            scratch.append("\xEF\xBF\xBD");
            pos += 1;
        }
    }
    return scratch;
}

} // namespace vantor::util
