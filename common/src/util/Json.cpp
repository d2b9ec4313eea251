#include "common/util/Json.h"

#include <fstream>
#include <sstream>

namespace vantor::util
{

bool ParseJson(rapidjson::Document& document, std::string_view text)
{
    while (!text.empty() && text.back() == '\0')
    {
        text.remove_suffix(1);
    }
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
    document.Parse<kFlags>(text.data(), text.size());
    return !document.HasParseError();
}

bool ReadFile(const std::string& path, std::string& text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        return false;
    }
    std::ostringstream out;
    out << in.rdbuf();
    if (in.bad())
    {
        return false;
    }
    text = out.str();
    return true;
}

std::string_view GetString(const rapidjson::Value& object, const char* key)
{
    if (!object.IsObject())
    {
        return {};
    }
    const auto it = object.FindMember(key);
    if (it == object.MemberEnd() || !it->value.IsString())
    {
        return {};
    }
    return std::string_view(it->value.GetString(), it->value.GetStringLength());
}

} // namespace vantor::util
