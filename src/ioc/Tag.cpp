#include "ioc/Tag.h"

#include "common/Logging.h"

#include <limits>
#include <stdexcept>

namespace vantor::ioc::internal
{

Tag::Tag(std::string name)
    : m_name(std::move(name))
{
}

bool Tag::IsExcluded(const ProcessInfo& process) const
{
    return !process.image.path.empty() && m_exclusions.MatchesAny(process.image.path);
}

size_t Tag::AddPattern(const char* key, const char* defaultPattern)
{
    PatternSlot slot{key, {}, {}};
    if (!slot.defaultPattern.Add(defaultPattern))
    {
        // The defaults are fixed texts: this is a build that broke them.
        throw std::logic_error(m_name + " tag: default " + key + " does not compile");
    }
    slot.pattern = slot.defaultPattern;
    m_patterns.push_back(std::move(slot));
    return m_patterns.size() - 1;
}

bool Tag::Matches(size_t slot, const std::string& value) const
{
    return m_patterns[slot].pattern.Matches(0, value);
}

void Tag::ApplyOwnSettings(const rapidjson::Value&) {}

bool Tag::ApplySettings(const rapidjson::Value& settings)
{
    if (!settings.IsObject())
    {
        EDR_LOG_ERROR("Invalid setting json for" << m_name);
        Disable();
        return false;
    }
    try
    {
        const int64_t score = ReadScore(settings);
        RegexPatterns exclusions = ReadExclusions(settings);
        std::vector<RegexPatterns> patterns;
        patterns.reserve(m_patterns.size());
        for (const auto& slot : m_patterns)
        {
            patterns.push_back(ReadPattern(settings, slot));
        }

        m_score = score;
        m_exclusions = std::move(exclusions);
        for (size_t i = 0; i < m_patterns.size(); ++i)
        {
            m_patterns[i].pattern = std::move(patterns[i]);
        }
        ApplyOwnSettings(settings);
        if (score == 0)
        {
            EDR_LOG_INFO("Disabling " << m_name << " tag with score 0");
        }
        return true;
    }
    catch (const std::invalid_argument& e)
    {
        EDR_LOG_ERROR("Failed to update " << m_name << " tag: " << e.what());
        return false;
    }
}

int64_t Tag::ReadScore(const rapidjson::Value& settings) const
{
    const auto score = settings.FindMember("score");
    // 32 bits keep the sum of all tags' scores far from overflowing.
    if (score == settings.MemberEnd() || !score->value.IsUint())
    {
        throw std::invalid_argument("Score is absent or invalid for " + m_name + " tag");
    }
    return score->value.GetUint();
}

RegexPatterns Tag::ReadExclusions(const rapidjson::Value& settings) const
{
    RegexPatterns exclusions;
    const auto member = settings.FindMember("exclusions");
    if (member == settings.MemberEnd())
    {
        return exclusions;
    }
    if (!member->value.IsArray())
    {
        throw std::invalid_argument(m_name + " tag has invalid exclusions definition");
    }
    const auto& list = member->value;
    for (rapidjson::SizeType i = 0; i < list.Size(); ++i)
    {
        if (!list[i].IsString())
        {
            EDR_LOG_ERROR("Invalid exclusion at index " << i);
        }
        else if (!exclusions.Add(std::string(list[i].GetString(), list[i].GetStringLength())))
        {
            EDR_LOG_ERROR("Invalid regex in exclusion at index " << i << " for " << m_name);
        }
    }
    return exclusions;
}

RegexPatterns Tag::ReadPattern(const rapidjson::Value& settings, const PatternSlot& slot) const
{
    const auto member = settings.FindMember(slot.key);
    if (member != settings.MemberEnd() && member->value.IsString() && member->value.GetStringLength() > 0)
    {
        RegexPatterns pattern;
        if (pattern.Add(std::string(member->value.GetString(), member->value.GetStringLength())))
        {
            return pattern;
        }
    }
    EDR_LOG_WARNING(slot.key << " is empty or invalid. Using default regex.");
    return slot.defaultPattern;
}

} // namespace vantor::ioc::internal
