#pragma once

#include <auparse.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::audit::internal
{

// Reading the current field of a libauparse record. Numbers are parsed from
// the raw text (no interpretation, no allocation); strings are decoded
// (quoted or hex-encoded) through auparse_interpret_field and copied.
class AuparseField
{
public:
    template <typename T>
    static std::optional<T> Number(auparse_state_t* au, int base = 10)
    {
        const char* raw = auparse_get_field_str(au);
        if (raw == nullptr)
        {
            return std::nullopt;
        }
        const char* end = raw + std::strlen(raw);
        T value{};
        auto [ptr, ec] = std::from_chars(raw, end, value, base);
        if (ec != std::errc() || ptr != end)
        {
            return std::nullopt;
        }
        return value;
    }

    static std::string_view Raw(auparse_state_t* au)
    {
        const char* raw = auparse_get_field_str(au);
        return raw == nullptr ? std::string_view() : std::string_view(raw);
    }

    // The decoded text; nullopt when the field is missing or "(null)".
    static std::optional<std::string> Text(auparse_state_t* au)
    {
        const std::string_view raw = Raw(au);
        if (raw.empty() || raw == "(null)")
        {
            return std::nullopt;
        }
        const char* text = auparse_interpret_field(au);
        if (text == nullptr)
        {
            return std::nullopt;
        }
        return std::string(text);
    }

    static bool Is(const char* name, const char* wanted) { return std::strcmp(name, wanted) == 0; }
};

} // namespace vantor::audit::internal
