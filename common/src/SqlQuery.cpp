#include "common/SqlQuery.h"

#include "common/SqlDataFormatterException.h"

#include <sqlite3.h>

#include <memory>
#include <new>

namespace vantor::common
{

SqlQuery::SqlQuery(std::string text)
    : m_text(std::move(text))
{
}

SqlQuery::SqlQuery(const char* text)
    : m_text(text)
{
}

SqlQuery& SqlQuery::Bind(int64_t value)
{
    m_values.emplace_back(value);
    return *this;
}

SqlQuery& SqlQuery::Bind(std::string_view value)
{
    RefuseNul(value);
    m_values.emplace_back(value);
    return *this;
}

void SqlQuery::RefuseNul(std::string_view value)
{
    if (value.find('\0') != std::string_view::npos)
    {
        // SQLite's quoting works on C strings: the text form would be cut
        // short, so neither form takes such a value.
        throw SqlDataFormatterException("SqlDataFormatter: value holds a NUL byte");
    }
}

std::string SqlQuery::Quote(std::string_view value)
{
    RefuseNul(value);
    const std::string text(value);
    std::unique_ptr<char, decltype(&sqlite3_free)> quoted(sqlite3_mprintf("'%q'", text.c_str()),
                                                          &sqlite3_free);
    if (!quoted)
    {
        throw std::bad_alloc();
    }
    return quoted.get();
}

std::string SqlQuery::ToString() const
{
    std::string text;
    size_t start = 0;
    for (const auto& value : m_values)
    {
        const size_t mark = m_text.find('?', start);
        if (mark == std::string::npos)
        {
            break;
        }
        text.append(m_text, start, mark - start);
        if (const auto* number = std::get_if<int64_t>(&value))
        {
            text += std::to_string(*number);
        }
        else
        {
            text += Quote(std::get<std::string_view>(value));
        }
        start = mark + 1;
    }
    return text.append(m_text, start);
}

std::ostream& operator<<(std::ostream& out, const SqlQuery& query)
{
    if (query.Values().empty())
    {
        return out << query.Text();
    }
    return out << query.ToString();
}

} // namespace vantor::common
