#include "edr/PathEscape.h"

#include "common/util/Utf8.h"

namespace vantor::edr
{

namespace
{

constexpr char kHexDigits[] = "0123456789ABCDEF";

int HexValue(char c)
{
    if (c >= '0' && c <= '9')
    {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F')
    {
        return c - 'A' + 10;
    }
    return -1;
}

} // namespace

std::string PathEscape::Escape(std::string_view path)
{
    std::string out;
    EscapeTo(path, out);
    return out;
}

void PathEscape::EscapeTo(std::string_view path, std::string& out)
{
    out.clear();
    out.reserve(path.size());
    size_t pos = 0;
    while (pos < path.size())
    {
        const char c = path[pos];
        if (c == '\\')
        {
            out.append("\\\\");
            ++pos;
            continue;
        }
        const size_t length = util::Utf8SequenceLength(path.substr(pos));
        if (length > 0)
        {
            out.append(path.substr(pos, length));
            pos += length;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        out.append("\\x");
        out.push_back(kHexDigits[byte >> 4]);
        out.push_back(kHexDigits[byte & 0x0F]);
        ++pos;
    }
}

bool PathEscape::NeedsEscape(std::string_view path)
{
    return path.find('\\') != std::string_view::npos || !util::IsValidUtf8(path);
}

std::optional<std::string> PathEscape::Unescape(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    size_t pos = 0;
    while (pos < text.size())
    {
        if (text[pos] != '\\')
        {
            const size_t length = util::Utf8SequenceLength(text.substr(pos));
            if (length == 0)
            {
                return std::nullopt;
            }
            out.append(text.substr(pos, length));
            pos += length;
            continue;
        }
        if (pos + 1 < text.size() && text[pos + 1] == '\\')
        {
            out.push_back('\\');
            pos += 2;
            continue;
        }
        if (text.size() - pos < 4)
        {
            return std::nullopt;
        }
        const int high = HexValue(text[pos + 2]);
        const int low = HexValue(text[pos + 3]);
        if (text[pos + 1] != 'x' || high < 0 || low < 0)
        {
            return std::nullopt;
        }
        out.push_back(static_cast<char>((high << 4) | low));
        pos += 4;
    }
    return out;
}

} // namespace vantor::edr
