#pragma once

#include <rapidjson/document.h>

#include <memory>
#include <string>
#include <vector>

namespace Poco
{
class RegularExpression;
}

namespace vantor::ioc::internal
{

// A list of Perl-compatible regular expressions (Poco's PCRE), each matched
// against the whole of a value: "10\.0\..*" matches "10.0.3.4" but not
// "110.0.3.4". An error while matching is logged as "Poco RegularExpression
// exception occurred: " + its text and counts as no match.
//
// Built by Parse or Add, then only read: matching is safe from any thread.
class RegexPatterns
{
public:
    RegexPatterns() = default;

    // Compiles a JSON array of non-empty strings. Throws EventRuleException
    // with error for anything else, or for a pattern that does not compile.
    static RegexPatterns Parse(const rapidjson::Value& patterns, const std::string& error);
    // Compiles one more pattern; one that does not compile is logged as Parse
    // logs it, answers false and leaves the list as it was.
    bool Add(std::string text);

    bool Empty() const { return m_patterns.empty(); }
    size_t Size() const { return m_patterns.size(); }
    const std::string& Text(size_t index) const { return m_patterns[index].text; }

    bool Matches(size_t index, const std::string& value) const;
    bool MatchesAny(const std::string& value) const;

private:
    struct Pattern
    {
        std::string text;
        std::shared_ptr<const Poco::RegularExpression> expression;
    };

    std::vector<Pattern> m_patterns;
};

} // namespace vantor::ioc::internal
