#pragma once

#include <auparse.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace vantor::audit::internal
{

// One PATH record: the name as the call gave it (made absolute later), and
// the identity of the object the kernel resolved.
class PathRecord
{
public:
    enum class NameType : uint8_t
    {
        Unknown,
        Normal,
        Create,
        Delete,
        Parent
    };

    // Reads the current record (a PATH record). Throws EventException
    // "Cannot create PathRecord without inode information".
    static PathRecord Parse(auparse_state_t* au);
    // Reads a PATH record's fields joined to the SYSCALL record (see
    // RecordRegrouper) from the current field, its "item", up to the next
    // "item" field, where another (true) leaves the cursor, or the end.
    static PathRecord ParseJoined(auparse_state_t* au, bool& another);

    static const char* NameTypeText(NameType type);

    // Merges another record of the same object into this one.
    void Combine(const PathRecord& other);

    uint32_t item = 0;
    std::string name;
    bool hasName = false;
    ino_t inode = 0;
    dev_t device = 0;
    mode_t mode = 0;
    NameType nameType = NameType::Unknown;
    // The nametype text as recorded (kept for the rejection texts).
    std::string nameTypeText;

private:
    // Reads the fields from the current one to the end of the record, or
    // (joined) to the next "item" field after the first: true when it
    // stopped there.
    static bool ReadFields(auparse_state_t* au, bool joined, PathRecord& record, bool& haveInode);
    // The record, or the rejection of one without an inode.
    static PathRecord Checked(PathRecord record, bool haveInode);
};

} // namespace vantor::audit::internal
