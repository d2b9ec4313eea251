#include "common/util/Json.h"

#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

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
    // Writing a value out again recurses once per level, and configurations
    // and manifests are written out: a document deeper than any the daemon
    // reads is refused here, for every caller at once.
    return !document.HasParseError() && NestsWithin(document, kMaxJsonDepth);
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

bool NestsWithin(const rapidjson::Value& value, std::size_t maxDepth)
{
    // Containers still to look into, with their depth below value.
    std::vector<std::pair<const rapidjson::Value*, std::size_t>> pending{{&value, 0}};
    const auto add = [&pending](const rapidjson::Value& child, std::size_t depth)
    {
        if (child.IsArray() || child.IsObject())
        {
            pending.emplace_back(&child, depth);
        }
    };
    while (!pending.empty())
    {
        const auto [current, depth] = pending.back();
        pending.pop_back();
        if (depth > maxDepth)
        {
            return false;
        }
        if (current->IsArray())
        {
            for (const auto& element : current->GetArray())
            {
                add(element, depth + 1);
            }
        }
        else if (current->IsObject())
        {
            for (const auto& member : current->GetObject())
            {
                add(member.value, depth + 1);
            }
        }
    }
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
