#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vantor::common
{

// Ordered header list with case-insensitive names, shared by requests and
// responses. Names are checked against the token syntax so that no caller
// can inject a header line.
class HttpHeaders
{
public:
    using Entry = std::pair<std::string, std::string>;

    // Throws std::invalid_argument "AddHeader: Invalid header key" for an
    // empty or malformed name and "AddHeader: Invalid header value" for a
    // value holding a line break or NUL. Replaces a header of the same name.
    void Set(std::string name, std::string value);
    // Adds without replacing (responses may repeat a header).
    void Append(std::string name, std::string value);
    bool Remove(std::string_view name);
    bool Has(std::string_view name) const;
    std::optional<std::string> Get(std::string_view name) const;
    void Clear() { m_entries.clear(); }

    const std::vector<Entry>& Entries() const { return m_entries; }

    static bool IsValidName(std::string_view name);
    static bool IsValidValue(std::string_view value);

private:
    std::vector<Entry> m_entries;
};

} // namespace vantor::common
