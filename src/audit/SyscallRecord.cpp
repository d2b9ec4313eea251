#include "audit/SyscallRecord.h"

#include "audit/AuparseField.h"
#include "audit/SyscallArguments.h"
#include "audit/SyscallRecordException.h"

namespace vantor::audit::internal
{
namespace
{

template <typename T>
T Required(auparse_state_t* au, const char* name, int base = 10)
{
    const auto value = AuparseField::Number<T>(au, base);
    if (!value)
    {
        throw SyscallRecordException(std::string("Failed to parse field ") + name + " in syscall record");
    }
    return *value;
}

} // namespace

SyscallRecord SyscallRecord::Parse(auparse_state_t* au, std::string& text)
{
    SyscallRecord record;
    bool haveSyscall = false;
    bool havePid = false;
    bool haveComm = false;
    bool haveExe = false;
    if (auparse_first_field(au) == 1)
    {
        do
        {
            const char* name = auparse_get_field_name(au);
            if (name == nullptr)
            {
                continue;
            }
            if (name[0] == 'i' && AuparseField::Is(name, "item"))
            {
                // Where the fields of PATH records joined to this one begin
                // (RecordRegrouper): the cursor is left on it.
                record.pathsJoined = true;
                break;
            }
            // Dispatch on the first letter: this runs for every event. A field
            // read here must also be kept by RecordTrimmer.
            switch (name[0])
            {
            case 'a':
                if (name[1] >= '0' && name[1] <= '3' && name[2] == '\0')
                {
                    // An argument the syscall does not read is left alone, as
                    // RecordTrimmer leaves it out.
                    const auto index = static_cast<unsigned>(name[1] - '0');
                    if (!haveSyscall || SyscallArguments::IsRead(record.syscall, index))
                    {
                        record.args[index] = Required<uint64_t>(au, name, 16);
                    }
                }
                else if (AuparseField::Is(name, "auid"))
                {
                    record.auid = Required<uint32_t>(au, name);
                }
                break;
            case 'c':
                if (AuparseField::Is(name, "comm"))
                {
                    // Required, but no event reads it.
                    haveComm = AuparseField::HasText(au) || haveComm;
                }
                break;
            case 'e':
                if (AuparseField::Is(name, "exit"))
                {
                    record.exit = Required<int64_t>(au, name);
                }
                else if (AuparseField::Is(name, "euid"))
                {
                    record.euid = Required<uint32_t>(au, name);
                }
                else if (const size_t at = text.size();
                         AuparseField::Is(name, "exe") && AuparseField::AppendText(au, text))
                {
                    // A later exe field replaces an earlier one.
                    record.exeAt = at;
                    record.exeSize = text.size() - at;
                    haveExe = true;
                }
                break;
            case 'i':
                if (AuparseField::Is(name, "items"))
                {
                    record.items = Required<uint32_t>(au, name);
                }
                break;
            case 'p':
                if (AuparseField::Is(name, "pid"))
                {
                    record.pid = Required<pid_t>(au, name);
                    havePid = true;
                }
                else if (AuparseField::Is(name, "ppid"))
                {
                    record.ppid = Required<pid_t>(au, name);
                }
                break;
            case 's':
                if (AuparseField::Is(name, "syscall"))
                {
                    record.syscall = Required<int>(au, name);
                    haveSyscall = true;
                }
                else if (AuparseField::Is(name, "success"))
                {
                    record.success = AuparseField::Raw(au) == "yes";
                }
                break;
            case 'u':
                if (AuparseField::Is(name, "uid"))
                {
                    record.uid = Required<uint32_t>(au, name);
                }
                break;
            default:
                break;
            }
        } while (auparse_next_field(au) == 1);
    }
    if (!haveComm || !haveExe)
    {
        throw SyscallRecordException("Failed to find process name in syscall record");
    }
    if (!haveSyscall)
    {
        throw SyscallRecordException("Failed to find syscall in syscall record");
    }
    if (!havePid)
    {
        throw SyscallRecordException("Failed to find pid in syscall record");
    }
    return record;
}

} // namespace vantor::audit::internal
