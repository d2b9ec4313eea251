#include "audit/PathRecord.h"

#include "audit/AuparseField.h"
#include "common/Logging.h"
#include "edr/EventException.h"

#include <sys/sysmacros.h>

#include <utility>

namespace vantor::audit::internal
{
namespace
{

PathRecord::NameType ToNameType(std::string_view text)
{
    if (text == "NORMAL")
    {
        return PathRecord::NameType::Normal;
    }
    if (text == "CREATE")
    {
        return PathRecord::NameType::Create;
    }
    if (text == "DELETE")
    {
        return PathRecord::NameType::Delete;
    }
    if (text == "PARENT")
    {
        return PathRecord::NameType::Parent;
    }
    return PathRecord::NameType::Unknown;
}

// "fe:00" (major:minor in hexadecimal).
bool ParseDevice(std::string_view text, dev_t& device)
{
    const auto colon = text.find(':');
    if (colon == std::string_view::npos)
    {
        return false;
    }
    unsigned int major = 0;
    unsigned int minor = 0;
    auto a = std::from_chars(text.data(), text.data() + colon, major, 16);
    auto b = std::from_chars(text.data() + colon + 1, text.data() + text.size(), minor, 16);
    if (a.ec != std::errc() || b.ec != std::errc() || b.ptr != text.data() + text.size())
    {
        return false;
    }
    device = makedev(major, minor);
    return true;
}

void ReadNameType(auparse_state_t* au, PathRecord& record)
{
    const std::string_view text = AuparseField::Raw(au);
    record.nameType = ToNameType(text);
    record.nameTypeText.assign(text);
}

} // namespace

const char* PathRecord::NameTypeText(NameType type)
{
    switch (type)
    {
    case NameType::Normal:
        return "NORMAL";
    case NameType::Create:
        return "CREATE";
    case NameType::Delete:
        return "DELETE";
    case NameType::Parent:
        return "PARENT";
    case NameType::Unknown:
        break;
    }
    return "UNKNOWN";
}

PathRecord PathRecord::Parse(auparse_state_t* au)
{
    PathRecord record;
    bool haveInode = false;
    if (auparse_first_field(au) == 1)
    {
        ReadFields(au, false, record, haveInode);
    }
    return Checked(std::move(record), haveInode);
}

PathRecord PathRecord::ParseJoined(auparse_state_t* au, bool& another)
{
    PathRecord record;
    bool haveInode = false;
    another = ReadFields(au, true, record, haveInode);
    return Checked(std::move(record), haveInode);
}

bool PathRecord::ReadFields(auparse_state_t* au, bool joined, PathRecord& record, bool& haveInode)
{
    bool first = true;
    do
    {
        const char* name = auparse_get_field_name(au);
        if (name == nullptr)
        {
            continue;
        }
        if (joined && !std::exchange(first, false) && AuparseField::Is(name, "item"))
        {
            // The next joined record's first field: left for it.
            return true;
        }
        // Dispatch on the first letter: this runs for every PATH field. A
        // field read here must also be kept by RecordTrimmer.
        switch (name[0])
        {
        case 'i':
            if (AuparseField::Is(name, "item"))
            {
                record.item = AuparseField::Number<uint32_t>(au).value_or(0);
            }
            else if (AuparseField::Is(name, "inode"))
            {
                const auto inode = AuparseField::Number<ino_t>(au);
                if (inode)
                {
                    record.inode = *inode;
                    haveInode = true;
                }
            }
            break;
        case 'n':
            if (AuparseField::Is(name, "name"))
            {
                if (AuparseField::AssignText(au, record.name))
                {
                    record.hasName = true;
                    if (record.name == "/proc/self")
                    {
                        EDR_LOG_DEBUG("Got proc/self in path record");
                    }
                }
            }
            else if (AuparseField::Is(name, "nametype"))
            {
                ReadNameType(au, record);
            }
            break;
        case 'd':
            if (AuparseField::Is(name, "dev"))
            {
                ParseDevice(AuparseField::Raw(au), record.device);
            }
            break;
        case 'm':
            if (AuparseField::Is(name, "mode"))
            {
                const auto mode = AuparseField::Number<mode_t>(au, 8);
                if (mode)
                {
                    record.mode = *mode;
                }
                else
                {
                    EDR_LOG_DEBUG("Unknown mode" << AuparseField::Raw(au) << " in PATH record");
                }
            }
            break;
        case 'o':
            // The owner fields (ouid, ogid) are left alone: no event
            // reports them from the record, so RecordTrimmer drops them.
            if (AuparseField::Is(name, "objtype"))
            {
                // Older kernels call nametype so; both carry the same words.
                ReadNameType(au, record);
            }
            break;
        default:
            break;
        }
    } while (auparse_next_field(au) == 1);
    return false;
}

PathRecord PathRecord::Checked(PathRecord record, bool haveInode)
{
    if (!haveInode && record.nameType == NameType::Unknown)
    {
        // symlink(2) records its target text as an extra, unresolved name.
        record.hasName = false;
        return record;
    }
    if (!haveInode)
    {
        throw edr::EventException("Cannot create PathRecord without inode information");
    }
    return record;
}

void PathRecord::Combine(const PathRecord& other)
{
    if (inode == 0 || other.inode != inode || other.device != device)
    {
        throw edr::EventException("Cannot combine records with missing or different inodes");
    }
    if (other.nameType != nameType)
    {
        throw edr::EventException("Cannot combine records of different objtype");
    }
    if (!hasName && other.hasName)
    {
        name = other.name;
        hasName = true;
    }
}

} // namespace vantor::audit::internal
