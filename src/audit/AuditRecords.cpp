#include "audit/AuditRecords.h"

#include "audit/AuparseField.h"
#include "common/Logging.h"
#include "edr/EventException.h"

#include <libaudit.h>

#include <algorithm>

namespace vantor::audit::internal
{

void AuditRecords::Parse(auparse_state_t* au, unsigned wanted, const SetAsideRecords& aside)
{
    // Room for a usual executable and directory and the raw command line (at
    // most 256 hex digits) at once, not much more than they would take apart.
    m_text.reserve(320);
    if (aside.serial == auparse_get_serial(au))
    {
        if (aside.cwd && (wanted & kCwd) != 0)
        {
            // A set-aside value came first among the event's CWD records.
            ++cwdCount;
            KeepCwd(*aside.cwd);
        }
        if (aside.proctitle && (wanted & kProctitle) != 0)
        {
            KeepProctitle(*aside.proctitle);
        }
    }
    const unsigned count = auparse_get_num_records(au);
    unsigned syscalls = 0;
    for (unsigned i = 0; i < count; ++i)
    {
        if (auparse_goto_record_num(au, i) != 1)
        {
            throw edr::EventException("Failed to parse record number");
        }
        switch (auparse_get_type(au))
        {
        case AUDIT_SYSCALL:
            if (++syscalls > 1)
            {
                throw edr::EventException("Multiple syscall records found in event");
            }
            syscall = SyscallRecord::Parse(au, m_text);
            if ((wanted & kPath) != 0 && paths.empty())
            {
                // items counts the PATH records that follow: one allocation
                // instead of growth (the count is capped against a hostile value).
                paths.reserve(std::min<uint32_t>(syscall.items, 16));
            }
            for (bool another = syscall.pathsJoined; another && (wanted & kPath) != 0;)
            {
                AddPath([&] { return PathRecord::ParseJoined(au, another); });
            }
            break;
        case AUDIT_PATH:
            if ((wanted & kPath) != 0)
            {
                AddPath([&] { return PathRecord::Parse(au); });
            }
            break;
        case AUDIT_CWD:
            if ((wanted & kCwd) != 0 && auparse_first_field(au) == 1)
            {
                do
                {
                    const char* name = auparse_get_field_name(au);
                    if (name != nullptr && AuparseField::Is(name, "cwd") && cwdCount++ == 0)
                    {
                        KeepCwd(au);
                    }
                } while (auparse_next_field(au) == 1);
            }
            break;
        case AUDIT_PROCTITLE:
            if ((wanted & kProctitle) != 0)
            {
                const char* raw = auparse_find_field(au, "proctitle");
                KeepProctitle(raw != nullptr ? raw : "");
            }
            break;
        case AUDIT_EXECVE:
            if ((wanted & kExecve) != 0)
            {
                ParseExecve(au);
            }
            break;
        case AUDIT_SOCKADDR:
            if ((wanted & kSockaddr) != 0)
            {
                ParseSockaddr(au);
            }
            break;
        default:
            break;
        }
    }
    if (syscalls == 0)
    {
        throw edr::EventException("Missing SYSCALL record for event");
    }
}

template <typename Source>
void AuditRecords::KeepCwd(const Source& source)
{
    m_cwdAt = m_text.size();
    AuparseField::AppendText(source, m_text);
    m_cwdSize = m_text.size() - m_cwdAt;
}

template <typename ParseOne>
void AuditRecords::AddPath(ParseOne&& parse)
{
    try
    {
        PathRecord path = parse();
        if (path.inode != 0 || path.nameType != PathRecord::NameType::Unknown)
        {
            paths.push_back(std::move(path));
        }
    }
    catch (const edr::EventException& e)
    {
        throw edr::EventException(std::string("Failed to parse Path record: ") + e.what());
    }
}

void AuditRecords::KeepProctitle(std::string_view raw)
{
    m_proctitleAt = m_text.size();
    m_text.append(raw);
    m_proctitleSize = raw.size();
}

std::string AuditRecords::Proctitle() const
{
    std::string title;
    DecodeProctitle(TextAt(m_proctitleAt, m_proctitleSize), title);
    return title;
}

void AuditRecords::DecodeProctitle(std::string_view raw, std::string& bytes)
{
    if (raw.empty() || raw == "(null)")
    {
        return;
    }
    const size_t start = bytes.size();
    if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"')
    {
        bytes.append(raw.substr(1, raw.size() - 2));
    }
    else
    {
        if (raw.size() % 2 != 0 || !AuparseField::AppendHexBytes(raw, bytes) || bytes.size() == start)
        {
            // Not the kernel's encoding: keep the text as it came.
            bytes.resize(start);
            bytes.append(raw);
        }
    }
    // A title cut at the kernel's limit may end on NULs of empty arguments.
    const size_t last = bytes.find_last_not_of('\0');
    bytes.resize(last == std::string::npos || last < start ? start : last + 1);
}

std::vector<std::string> AuditRecords::SplitArguments(std::string_view text)
{
    std::vector<std::string> arguments;
    while (!text.empty())
    {
        const size_t nul = text.find('\0');
        arguments.emplace_back(text.substr(0, nul));
        text.remove_prefix(nul == std::string_view::npos ? text.size() : nul + 1);
    }
    return arguments;
}

void AuditRecords::ParseExecve(auparse_state_t* au)
{
    if (auparse_first_field(au) != 1)
    {
        return;
    }
    do
    {
        const char* name = auparse_get_field_name(au);
        if (name == nullptr)
        {
            continue;
        }
        if (AuparseField::Is(name, "argc"))
        {
            argc = AuparseField::Number<uint32_t>(au);
            if (argc)
            {
                // The count comes from the kernel, but keep a hostile value
                // from reserving absurd memory.
                arguments.reserve(std::min<uint32_t>(*argc, 4096));
            }
            continue;
        }
        if (name[0] != 'a')
        {
            continue;
        }
        // "aN" is one argument; a long one is split into "aN_len" and
        // "aN[k]" pieces, appended in order.
        uint32_t index = 0;
        const char* end = name + std::strlen(name);
        auto [ptr, ec] = std::from_chars(name + 1, end, index);
        if (ec != std::errc() || ptr == name + 1 || index > 1000000)
        {
            continue;
        }
        if (*ptr == '_')
        {
            continue;
        }
        if (arguments.size() <= index)
        {
            arguments.resize(index + 1);
        }
        AuparseField::AppendText(au, arguments[index]);
    } while (auparse_next_field(au) == 1);
}

void AuditRecords::ParseSockaddr(auparse_state_t* au)
{
    if (auparse_first_field(au) != 1 || auparse_find_field(au, "saddr") == nullptr)
    {
        sockaddrInvalid = true;
        return;
    }
    const char* text = auparse_interpret_field(au);
    if (text == nullptr)
    {
        sockaddrInvalid = true;
        return;
    }
    // "{ saddr_fam=inet laddr=127.0.0.1 lport=47011 }"
    SockAddr result;
    std::string_view rest(text);
    while (!rest.empty())
    {
        const auto start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos)
        {
            break;
        }
        rest.remove_prefix(start);
        const auto stop = rest.find(' ');
        const std::string_view token = rest.substr(0, stop);
        rest.remove_prefix(stop == std::string_view::npos ? rest.size() : stop);
        if (token == "{" || token == "}")
        {
            continue;
        }
        const auto eq = token.find('=');
        const std::string_view key = token.substr(0, eq);
        const std::string_view value =
            eq == std::string_view::npos ? std::string_view() : token.substr(eq + 1);
        if (key == "saddr_fam")
        {
            result.family.assign(value);
        }
        else if (key == "laddr")
        {
            result.address.assign(value);
        }
        else if (key == "lport")
        {
            uint16_t port = 0;
            auto [ptr, ec] = std::from_chars(value.data(), value.data() + value.size(), port);
            if (ec == std::errc() && ptr == value.data() + value.size())
            {
                result.port = port;
            }
        }
        else
        {
            EDR_LOG_DEBUG("Unknown token in SOCKADDR record: " << token);
        }
    }
    sockaddr = std::move(result);
}

} // namespace vantor::audit::internal
