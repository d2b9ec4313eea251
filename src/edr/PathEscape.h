#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vantor::edr
{

// The text form of a host path (or name, argument) wherever text must be
// valid UTF-8: FIM's JSON documents and IOC's protobuf string fields. Linux
// names are bytes, not text; so a path is written so that it stays valid
// UTF-8 and every byte can be recovered:
//
// - each byte that does not belong to a valid UTF-8 sequence is written as
//   the four characters \xNN (a backslash, "x", two upper-case hex digits);
// - a backslash of the name itself is written as two backslashes;
// - everything else is written as it is.
//
// So "\x" can only come from an escaped byte and "\\" only from a real
// backslash: two different paths never share a text form. In the JSON of a
// document the backslash is escaped once more, so a name byte 0xFF reads
// "\\xFF" in the raw document text.
//
// Stateless; callable from any thread.
class PathEscape
{
public:
    static std::string Escape(std::string_view path);
    // The same into out (its content replaced, its capacity reused), for
    // writers that refill the same strings.
    static void EscapeTo(std::string_view path, std::string& out);
    // Whether the text form differs from the path at all (most paths are
    // written as they are, with no copy).
    static bool NeedsEscape(std::string_view path);

    // The bytes of an escaped path; nothing when the text is not a form that
    // Escape makes (a lone backslash, "\x" without two hex digits, an invalid
    // UTF-8 byte).
    static std::optional<std::string> Unescape(std::string_view text);
};

} // namespace vantor::edr
