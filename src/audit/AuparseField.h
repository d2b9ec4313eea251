#pragma once

#include "common/util/WholeNumber.h"

#include <auparse.h>

#include <algorithm>
#include <cstdint>
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
        return raw == nullptr ? std::nullopt : Number<T>(std::string_view(raw), base);
    }

    // A raw field text that is a number and nothing else; also for texts
    // read before libauparse sees them.
    template <typename T>
    static std::optional<T> Number(std::string_view text, int base = 10)
    {
        T value{};
        return util::ParseWholeNumber(text, value, base) ? std::optional<T>(value) : std::nullopt;
    }

    static std::string_view Raw(auparse_state_t* au)
    {
        const char* raw = auparse_get_field_str(au);
        return raw == nullptr ? std::string_view() : std::string_view(raw);
    }

    // The decoded text; nullopt when the field is missing or "(null)".
    static std::optional<std::string> Text(auparse_state_t* au)
    {
        std::string text;
        if (!AppendText(au, text))
        {
            return std::nullopt;
        }
        return text;
    }

    // Appends the current field's decoded text to out; false (out untouched)
    // when the field is missing, "(null)" or undecodable.
    // For a text field the result is what auparse_interpret_field gives in
    // raw escape mode: the common forms (a quoted text, an even run of hex
    // digits) are decoded here without the library's allocation, any other
    // form goes to the library.
    static bool AppendText(auparse_state_t* au, std::string& out)
    {
        const std::string_view raw = Raw(au);
        const Form form = FormOf(raw);
        if (form == Form::Missing)
        {
            return false;
        }
        if (AppendForm(form, raw, out))
        {
            return true;
        }
        const char* text = auparse_interpret_field(au);
        if (text == nullptr)
        {
            return false;
        }
        out.append(text);
        return true;
    }

    // Whether a raw value is of a common form, which the overload below
    // decodes as the library would, without the library.
    static bool DecodesAlone(std::string_view raw) { return IsCommon(FormOf(raw)); }

    // Appends the decoded text of a raw value of a common form; false (out
    // untouched) for any other.
    static bool AppendText(std::string_view raw, std::string& out)
    {
        return AppendForm(FormOf(raw), raw, out);
    }

    // Whether AppendText would give a text, without decoding the common forms.
    static bool HasText(auparse_state_t* au)
    {
        const Form form = FormOf(Raw(au));
        return IsCommon(form) || (form == Form::Other && auparse_interpret_field(au) != nullptr);
    }

    // Replaces out with the decoded text; false (out untouched) as above.
    static bool AssignText(auparse_state_t* au, std::string& out)
    {
        const size_t before = out.size();
        if (!AppendText(au, out))
        {
            return false;
        }
        out.erase(0, before);
        return true;
    }

    // Inline, char by char up to the literal's NUL: every field of every
    // record is matched against a few names, and a call to strcmp costs more
    // than the comparison. A shorter name differs at its own NUL, so nothing
    // past it is read.
    template <size_t N>
    static bool Is(const char* name, const char (&wanted)[N])
    {
        for (size_t i = 0; i < N; ++i)
        {
            if (name[i] != wanted[i])
            {
                return false;
            }
        }
        return true;
    }

    // The value of one hex digit; -1 for any other character.
    static int HexDigit(char c)
    {
        if (c >= '0' && c <= '9')
        {
            return c - '0';
        }
        if (c >= 'A' && c <= 'F')
        {
            return c - 'A' + 10;
        }
        if (c >= 'a' && c <= 'f')
        {
            return c - 'a' + 10;
        }
        return -1;
    }

    // Appends the bytes of a run of hex digit pairs, NUL bytes included;
    // false (out untouched) when a character is no hex digit. A trailing odd
    // digit is left out.
    static bool AppendHexBytes(std::string_view raw, std::string& out)
    {
        const size_t start = out.size();
        out.reserve(start + raw.size() / 2);
        for (size_t i = 0; i + 1 < raw.size(); i += 2)
        {
            const int high = HexDigit(raw[i]);
            const int low = HexDigit(raw[i + 1]);
            if (high < 0 || low < 0)
            {
                out.resize(start);
                return false;
            }
            out.push_back(static_cast<char>(high * 16 + low));
        }
        return true;
    }

private:
    enum class Form
    {
        Missing,
        Quoted,
        Hex,
        Other
    };

    static bool IsCommon(Form form) { return form == Form::Quoted || form == Form::Hex; }

    // Decodes the common forms; false for the others.
    static bool AppendForm(Form form, std::string_view raw, std::string& out)
    {
        switch (form)
        {
        case Form::Quoted:
            out.append(raw.substr(1, raw.find('"', 1) - 1));
            return true;
        case Form::Hex:
        {
            // Cut at the first NUL byte, as the library's C string is.
            const size_t start = out.size();
            AppendHexBytes(raw, out);
            out.resize(std::min(out.find('\0', start), out.size()));
            return true;
        }
        default:
            return false;
        }
    }

    // Quoted: with its closing quote. Hex: an even run of hex digits; one
    // with a leading "00" (an abstract socket name, which the library treats
    // on its own) is left to the library.
    static Form FormOf(std::string_view raw)
    {
        if (raw.empty() || raw == "(null)")
        {
            return Form::Missing;
        }
        if (raw.front() == '"')
        {
            return raw.find('"', 1) != std::string_view::npos ? Form::Quoted : Form::Other;
        }
        if (raw.size() % 2 != 0 || (raw[0] == '0' && raw[1] == '0'))
        {
            return Form::Other;
        }
        for (const char c : raw)
        {
            if (HexDigit(c) < 0)
            {
                return Form::Other;
            }
        }
        return Form::Hex;
    }
};

} // namespace vantor::audit::internal
