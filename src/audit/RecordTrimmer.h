#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::audit
{

// Leaves out of an event's records what no event builder reads, so that
// libauparse, which splits and copies every field of every record it gets,
// has less to parse:
//  - records of a type that no builder reads (BPRM_FCAPS, AVC, ...) in an
//    event that a SYSCALL record started, unless they end the event (the
//    caller decides);
//  - the fields of SYSCALL and PATH records that no builder reads (arch,
//    gid, tty, ses, key, ouid, ogid, rdev, cap_fp, ...), and the arguments a0..a3
//    that the record's syscall does not read (SyscallArguments). The fields
//    kept are those that SyscallRecord and PathRecord parse: a field they
//    come to read must be added here too.
// The header of a record (node, type, stamp) and the records of every other
// type are kept as they are. So is a record that does not look as the
// kernel writes it (fields not separated by single spaces, a field without
// "=", a quote other than one pair around a value, a single quote, a NUL
// byte, no field kept at all): libauparse then gets what it would have got.
//
// Stateless and thread-safe.
class RecordTrimmer
{
public:
    // Whether a builder reads records of this type in a syscall event.
    static bool IsRead(int type);

    // Appends the record line of the given type to out, its unread fields
    // left out, and a line end; answers whether it was trimmed (false: kept
    // as it came). fieldsAt is the offset in line just past the record's
    // stamp "audit(...)". Costs no allocation beyond out's growth.
    static bool Append(int type, std::string_view line, size_t fieldsAt, std::string& out);

    // Appends only the read fields of a PATH record, each after a space, when
    // it is written as the kernel writes it and its first kept field is
    // "item" (where a PATH record's fields begin); false, out as it was,
    // otherwise.
    static bool AppendPathFields(std::string_view line, size_t fieldsAt, std::string& out);

    // The raw value of a record that holds exactly one field, of the given
    // name, written as the kernel writes it (by the rules above); nothing
    // otherwise. libauparse would give that same value for the field.
    static std::optional<std::string_view> SoleValue(std::string_view line, size_t fieldsAt,
                                                     std::string_view name);
};

} // namespace vantor::audit
