#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vantor::audit
{

// The values of an event's one-field records that the intake took out of its
// records before libauparse saw them. libauparse's cost is mostly per record,
// and a CWD or PROCTITLE record, nearly one per event each, holds nothing but
// its one value. Values are raw, as in the record text (quoted or hex); the
// views are valid while the event is built.
struct SetAsideRecords
{
    // The event's stamp serial: the values belong to that event only.
    uint64_t serial = 0;
    // The first CWD record's value. Only one that decodes without
    // libauparse (see AuparseField::DecodesAlone) is set aside.
    std::optional<std::string_view> cwd;
    std::optional<std::string_view> proctitle;
};

} // namespace vantor::audit
