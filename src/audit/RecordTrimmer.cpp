#include "audit/RecordTrimmer.h"

#include "audit/AuparseField.h"
#include "audit/SyscallArguments.h"

#include <libaudit.h>

#include <array>
#include <cstring>
#include <optional>

namespace vantor::audit
{

namespace
{

// The fields SyscallRecord::Parse reads: of the arguments a0..a3 those
// that the syscall named before them reads (all of them when none was).
class IsReadSyscallField
{
public:
    bool operator()(std::string_view name, std::string_view value)
    {
        switch (name.size())
        {
        case 2:
            return name[0] == 'a' && name[1] >= '0' && name[1] <= '3' &&
                   (!m_syscall || SyscallArguments::IsRead(*m_syscall, static_cast<unsigned>(name[1] - '0')));
        case 3:
            return name == "pid" || name == "uid" || name == "exe";
        case 4:
            return name == "exit" || name == "auid" || name == "euid" || name == "ppid" || name == "comm";
        case 5:
            return name == "items";
        case 7:
            if (name == "syscall")
            {
                // As SyscallRecord::Parse reads it; a value it refuses
                // refuses the event whatever else is kept.
                m_syscall = internal::AuparseField::Number<int64_t>(value);
                return true;
            }
            return name == "success";
        default:
            return false;
        }
    }

private:
    std::optional<int64_t> m_syscall;
};

// The fields PathRecord::Parse reads.
bool IsReadPathField(std::string_view name, std::string_view /*value*/)
{
    switch (name.size())
    {
    case 3:
        return name == "dev";
    case 4:
        return name == "item" || name == "name" || name == "mode";
    case 5:
        return name == "inode";
    case 7:
        return name == "objtype";
    case 8:
        return name == "nametype";
    default:
        return false;
    }
}

// libauparse strips a leading "(" off a name, and skips "msg=": names of
// other characters than these are not the kernel's.
constexpr auto kNameCharacters = []
{
    std::array<bool, 256> table{};
    for (int c = 'a'; c <= 'z'; ++c)
    {
        table[static_cast<size_t>(c)] = true;
    }
    for (int c = '0'; c <= '9'; ++c)
    {
        table[static_cast<size_t>(c)] = true;
    }
    table['_'] = true;
    return table;
}();

std::string_view WithoutLineEnd(std::string_view line)
{
    return !line.empty() && line.back() == '\n' ? line.substr(0, line.size() - 1) : line;
}

// Appends the header (unless withHeader is false) and the fields that
// isRead(name, raw value) keeps, in their order, each after a space; false
// (out as it was) when the record is not of the expected form or keeps no
// field.
template <typename IsRead>
bool AppendReadFields(std::string_view line, size_t fieldsAt, std::string& out, IsRead&& isRead,
                      bool withHeader = true)
{
    // "...audit(...): name=value name="value" ..."
    const char* const begin = line.data();
    const char* const end = begin + line.size();
    if (line.size() < fieldsAt + 3 || line[fieldsAt] != ':' || line[fieldsAt + 1] != ' ' ||
        std::memchr(begin, '\0', line.size()) != nullptr ||
        std::memchr(begin + fieldsAt, '\'', line.size() - fieldsAt) != nullptr)
    {
        return false;
    }
    const size_t start = out.size();
    if (withHeader)
    {
        out.append(begin, fieldsAt + 1);
    }
    // Kept fields are copied in runs, each with the space before it.
    const char* run = nullptr;
    bool kept = false;
    // One pass over the characters: fields are short, and a library search
    // per field costs more than it saves.
    for (const char* at = begin + fieldsAt + 2;;)
    {
        const char* equals = at;
        while (equals < end && kNameCharacters[static_cast<unsigned char>(*equals)])
        {
            ++equals;
        }
        const char* fieldEnd = equals + 1;
        bool wellFormed = equals != at && equals != end && *equals == '=';
        if (wellFormed && fieldEnd < end && *fieldEnd == '"')
        {
            // Only a value quoted whole, with no quote or space within.
            ++fieldEnd;
            while (fieldEnd < end && *fieldEnd != '"' && *fieldEnd != ' ')
            {
                ++fieldEnd;
            }
            wellFormed = fieldEnd < end && *fieldEnd == '"' && (fieldEnd + 1 == end || fieldEnd[1] == ' ');
            ++fieldEnd;
        }
        else if (wellFormed)
        {
            while (fieldEnd < end && *fieldEnd != ' ' && *fieldEnd != '"')
            {
                ++fieldEnd;
            }
            wellFormed = fieldEnd == end || *fieldEnd == ' ';
        }
        if (!wellFormed)
        {
            out.resize(start);
            return false;
        }
        if (isRead(std::string_view(at, static_cast<size_t>(equals - at)),
                   std::string_view(equals + 1, static_cast<size_t>(fieldEnd - equals - 1))))
        {
            run = run != nullptr ? run : at - 1;
            kept = true;
        }
        else if (run != nullptr)
        {
            out.append(run, at - 1);
            run = nullptr;
        }
        if (fieldEnd >= end)
        {
            break;
        }
        at = fieldEnd + 1;
    }
    if (run != nullptr)
    {
        out.append(run, end);
    }
    if (!kept)
    {
        out.resize(start);
    }
    return kept;
}

} // namespace

bool RecordTrimmer::IsRead(int type)
{
    return type == AUDIT_SYSCALL || type == AUDIT_PATH || type == AUDIT_CWD || type == AUDIT_PROCTITLE ||
           type == AUDIT_EXECVE || type == AUDIT_SOCKADDR;
}

bool RecordTrimmer::Append(int type, std::string_view line, size_t fieldsAt, std::string& out)
{
    line = WithoutLineEnd(line);
    const bool trimmed =
        (type == AUDIT_SYSCALL && AppendReadFields(line, fieldsAt, out, IsReadSyscallField())) ||
        (type == AUDIT_PATH && AppendReadFields(line, fieldsAt, out, &IsReadPathField));
    if (!trimmed)
    {
        out.append(line);
    }
    out.push_back('\n');
    return trimmed;
}

bool RecordTrimmer::AppendPathFields(std::string_view line, size_t fieldsAt, std::string& out)
{
    line = WithoutLineEnd(line);
    const size_t start = out.size();
    if (!AppendReadFields(line, fieldsAt, out, &IsReadPathField, false))
    {
        return false;
    }
    if (std::string_view(out).substr(start).starts_with(" item="))
    {
        return true;
    }
    out.resize(start);
    return false;
}

std::optional<std::string_view> RecordTrimmer::SoleValue(std::string_view line, size_t fieldsAt,
                                                         std::string_view name)
{
    line = WithoutLineEnd(line);
    // ": name=value", the value without a space, a NUL byte or a single
    // quote, and quoted whole or not at all.
    if (line.size() < fieldsAt + 2 || line.compare(fieldsAt, 2, ": ") != 0 ||
        line.find('\0') != std::string_view::npos)
    {
        return std::nullopt;
    }
    std::string_view field = line.substr(fieldsAt + 2);
    if (!field.starts_with(name) || field.size() <= name.size() || field[name.size()] != '=')
    {
        return std::nullopt;
    }
    const std::string_view value = field.substr(name.size() + 1);
    // A PROCTITLE value is long: a library search per character class
    // beats a loop over its characters.
    const auto has = [value](char c) { return value.find(c) != std::string_view::npos; };
    if (value.empty() || has(' ') || has('\''))
    {
        return std::nullopt;
    }
    // Quoted whole (the next quote is the last character), or not at all.
    if (value.front() == '"' ? value.find('"', 1) != value.size() - 1 : has('"'))
    {
        return std::nullopt;
    }
    return value;
}

} // namespace vantor::audit
