#include "ioc/RegexPatterns.h"

#include "common/Logging.h"
#include "ioc/EventRuleException.h"

#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>

namespace vantor::ioc::internal
{

RegexPatterns RegexPatterns::Parse(const rapidjson::Value& patterns, const std::string& error)
{
    if (!patterns.IsArray())
    {
        throw EventRuleException(error);
    }
    RegexPatterns result;
    for (const auto& pattern : patterns.GetArray())
    {
        if (!pattern.IsString() || pattern.GetStringLength() == 0)
        {
            throw EventRuleException(error);
        }
        if (!result.Add(std::string(pattern.GetString(), pattern.GetStringLength())))
        {
            throw EventRuleException(error);
        }
    }
    return result;
}

bool RegexPatterns::Add(std::string text)
{
    try
    {
        auto expression = std::make_shared<const Poco::RegularExpression>(text);
        m_patterns.push_back({std::move(text), std::move(expression)});
        return true;
    }
    catch (const Poco::Exception& e)
    {
        EDR_LOG_ERROR("Poco RegularExpression exception occurred: " << e.displayText());
        return false;
    }
}

bool RegexPatterns::Matches(size_t index, const std::string& value) const
{
    try
    {
        return m_patterns.at(index).expression->match(value);
    }
    catch (const Poco::Exception& e)
    {
        EDR_LOG_ERROR("Poco RegularExpression exception occurred: " << e.displayText());
        return false;
    }
}

bool RegexPatterns::MatchesAny(const std::string& value) const
{
    for (size_t i = 0; i < m_patterns.size(); ++i)
    {
        if (Matches(i, value))
        {
            return true;
        }
    }
    return false;
}

} // namespace vantor::ioc::internal
