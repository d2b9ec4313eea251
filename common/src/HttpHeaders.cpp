#include "common/HttpHeaders.h"

#include <algorithm>
#include <stdexcept>
#include <strings.h>

namespace vantor::common
{
namespace
{

bool SameName(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

void Check(std::string_view name, std::string_view value)
{
    if (!HttpHeaders::IsValidName(name))
    {
        throw std::invalid_argument("AddHeader: Invalid header key");
    }
    if (!HttpHeaders::IsValidValue(value))
    {
        throw std::invalid_argument("AddHeader: Invalid header value");
    }
}

} // namespace

bool HttpHeaders::IsValidName(std::string_view name)
{
    static constexpr std::string_view kSeparators = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::all_of(name.begin(), name.end(),
                                        [](char c)
                                        {
                                            const auto u = static_cast<unsigned char>(c);
                                            return (u >= '0' && u <= '9') || (u >= 'a' && u <= 'z') ||
                                                   (u >= 'A' && u <= 'Z') ||
                                                   kSeparators.find(c) != std::string_view::npos;
                                        });
}

bool HttpHeaders::IsValidValue(std::string_view value)
{
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

void HttpHeaders::Set(std::string name, std::string value)
{
    Check(name, value);
    for (auto& entry : m_entries)
    {
        if (SameName(entry.first, name))
        {
            entry.second = std::move(value);
            return;
        }
    }
    m_entries.emplace_back(std::move(name), std::move(value));
}

void HttpHeaders::Append(std::string name, std::string value)
{
    Check(name, value);
    m_entries.emplace_back(std::move(name), std::move(value));
}

bool HttpHeaders::Remove(std::string_view name)
{
    const auto before = m_entries.size();
    std::erase_if(m_entries, [&](const Entry& e) { return SameName(e.first, name); });
    return m_entries.size() != before;
}

bool HttpHeaders::Has(std::string_view name) const
{
    return std::any_of(m_entries.begin(), m_entries.end(),
                       [&](const Entry& e) { return SameName(e.first, name); });
}

std::optional<std::string> HttpHeaders::Get(std::string_view name) const
{
    for (const auto& entry : m_entries)
    {
        if (SameName(entry.first, name))
        {
            return entry.second;
        }
    }
    return std::nullopt;
}

} // namespace vantor::common
