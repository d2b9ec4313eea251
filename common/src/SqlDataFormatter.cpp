#include "common/SqlDataFormatter.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"

#include <sqlite3.h>

#include <memory>
#include <new>

namespace vantor::common
{

SqlDataFormatter::~SqlDataFormatter() = default;

void SqlDataFormatter::AppendInt64(int64_t value)
{
    Serializer::AppendInt64(m_buffer, value);
}

void SqlDataFormatter::AppendString(std::string_view value)
{
    Serializer::AppendString(m_buffer, value);
}

std::string SqlDataFormatter::TakeBuffer()
{
    std::string taken;
    taken.swap(m_buffer);
    return taken;
}

std::string SqlDataFormatter::GetSchemaVersionQuery() const
{
    return {};
}

void SqlDataFormatter::Start()
{
    if (!m_buffer.empty())
    {
        throw SqlDataFormatterException("SqlDataFormatter::Start: A transaction is already in progress");
    }
}

std::vector<std::string> SqlDataFormatter::GetUpgradeStatements(int64_t /*currentVersion*/) const
{
    return {};
}

std::string SqlDataFormatter::QuoteText(std::string_view value)
{
    if (value.find('\0') != std::string_view::npos)
    {
        // SQLite's quoting works on C strings: the value would be cut short.
        throw SqlDataFormatterException("SqlDataFormatter: value holds a NUL byte");
    }
    const std::string text(value);
    std::unique_ptr<char, decltype(&sqlite3_free)> quoted(sqlite3_mprintf("'%q'", text.c_str()),
                                                          &sqlite3_free);
    if (!quoted)
    {
        throw std::bad_alloc();
    }
    return quoted.get();
}

} // namespace vantor::common
