#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vantor::common
{

// One SQL statement whose values are bound to its '?' placeholders, in
// order, rather than written into its text. The same text then serves every
// value, so a connection can compile it once and keep it.
//
// Text values are views: the query must not outlive the strings it was
// given. A value holding a NUL byte is refused (SqlDataFormatterException),
// as it is when written into the text.
//
// Not thread-safe; a value type.
class SqlQuery
{
public:
    using Value = std::variant<int64_t, std::string_view>;

    // A statement without bound values. Implicit: plain statement text is a
    // query.
    SqlQuery(std::string text);
    SqlQuery(const char* text);

    SqlQuery& Bind(int64_t value);
    SqlQuery& Bind(std::string_view value);

    const std::string& Text() const { return m_text; }
    const std::vector<Value>& Values() const { return m_values; }

    // The text with each value written in place of its placeholder as an SQL
    // literal (text quoted with SQLite's own quoting): the statement as it
    // would read with the values spelled out, for logs and text forms. The
    // placeholders must be the only '?' of the text.
    std::string ToString() const;

    // The value as an SQL string literal ('...' with quotes doubled).
    // Throws SqlDataFormatterException for a value holding a NUL byte.
    static std::string Quote(std::string_view value);

private:
    static void RefuseNul(std::string_view value);

    std::string m_text;
    std::vector<Value> m_values;
};

std::ostream& operator<<(std::ostream& out, const SqlQuery& query);

} // namespace vantor::common
