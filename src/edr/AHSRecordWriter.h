#pragma once

#include "edr/AHSRecord.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace vantor::common
{
class SqlStorage;
} // namespace vantor::common

namespace vantor::edr
{

// Writes health-status records into the store, stamped with the time of the
// write. Whoever has something to tell about its health (the daemon, FIM, the
// loss sampler) is handed one writer; a record that cannot be stored is
// logged, never thrown, since a failing store must not stop the work it
// reports on.
//
// Thread-safe (the store serialises its writes).
class AHSRecordWriter
{
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;
    // One member of the additional fields: a number or a text.
    using Field = std::pair<const char*, std::variant<uint64_t, std::string>>;

    static constexpr const char* kDbFileName = "EDRStatus.db";

    // Throws std::invalid_argument "AHSRecordWriter: 'store' cannot be null".
    explicit AHSRecordWriter(std::shared_ptr<common::SqlStorage> store, Clock clock = {});

    // Answers whether the record was stored.
    bool Write(const std::string& contextId, int64_t statusCode, AHSState state,
               const std::vector<Field>& fields = {});

    // The fields as a JSON object, members in the given order; "" when
    // there are none.
    static std::string FieldsJson(const std::vector<Field>& fields);

    const std::shared_ptr<common::SqlStorage>& Store() const { return m_store; }

private:
    const std::shared_ptr<common::SqlStorage> m_store;
    const Clock m_clock;
};

} // namespace vantor::edr
