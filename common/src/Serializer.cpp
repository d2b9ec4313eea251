#include "common/Serializer.h"

#include <stdexcept>

namespace vantor::common
{

void Serializer::AppendInt64(std::string& buffer, int64_t value)
{
    auto bits = static_cast<uint64_t>(value);
    char bytes[8];
    for (char& byte : bytes)
    {
        byte = static_cast<char>(bits & 0xFFU);
        bits >>= 8;
    }
    buffer.append(bytes, sizeof(bytes));
}

void Serializer::AppendString(std::string& buffer, std::string_view value)
{
    AppendInt64(buffer, static_cast<int64_t>(value.size()));
    buffer.append(value);
}

int64_t Serializer::GetInt64()
{
    if (m_data.size() < 8)
    {
        throw std::out_of_range("Serializer: Insufficient bytes to get data");
    }
    uint64_t bits = 0;
    for (size_t i = 8; i-- > 0;)
    {
        bits = (bits << 8) | static_cast<unsigned char>(m_data[i]);
    }
    m_data.remove_prefix(8);
    return static_cast<int64_t>(bits);
}

std::string_view Serializer::GetString()
{
    const auto length = static_cast<uint64_t>(GetInt64());
    if (length > m_data.size())
    {
        throw std::out_of_range("Serializer: Insufficient bytes to get string");
    }
    const std::string_view value = m_data.substr(0, length);
    m_data.remove_prefix(length);
    return value;
}

} // namespace vantor::common
