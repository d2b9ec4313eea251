#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vantor::common
{

// The byte form in which records and rows travel between the SQL storage and
// its formatters:
//  - a 64-bit integer: 8 bytes, least significant first;
//  - a string: its length as such an integer, then its bytes (no terminator).
// Appending is static; reading walks a view of serialised bytes, which must
// outlive the Serializer.
class Serializer
{
public:
    static void AppendInt64(std::string& buffer, int64_t value);
    static void AppendString(std::string& buffer, std::string_view value);

    explicit Serializer(std::string_view data)
        : m_data(data)
    {
    }

    // Throw std::out_of_range "Serializer: Insufficient bytes to get data"
    // (integer or length) or "Serializer: Insufficient bytes to get string".
    int64_t GetInt64();
    std::string_view GetString();

    bool AtEnd() const { return m_data.empty(); }
    size_t Remaining() const { return m_data.size(); }

private:
    std::string_view m_data;
};

} // namespace vantor::common
