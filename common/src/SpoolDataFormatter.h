#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vantor::common
{

// A component's serialiser of the records it spools. The formatter holds the
// in-memory cache: records are appended one by one and the whole cache is
// serialised into one spool file when the spool flushes it.
class SpoolDataFormatter
{
public:
    virtual ~SpoolDataFormatter() = default;

    // Adds one record to the cache and answers how many bytes the serialised
    // cache grew by. Throws for a record the formatter refuses; the cache is
    // then unchanged.
    virtual std::size_t Append(std::string_view record) = 0;
    // The same for a record that its writer made in the form the formatter
    // takes (SpoolStorage::Origin::Own): a formatter may skip its checks.
    virtual std::size_t AppendOwn(std::string_view record) { return Append(record); }

    // Writes the serialised cache into out (replacing its content). The cache
    // itself is kept until Reset(). Throws when the cache cannot be serialised.
    virtual void Serialize(std::string& out) = 0;

    // Drops the cache.
    virtual void Reset() = 0;
};

} // namespace vantor::common
