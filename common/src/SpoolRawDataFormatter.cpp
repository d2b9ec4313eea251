#include "common/SpoolRawDataFormatter.h"

namespace vantor::common
{

std::size_t SpoolRawDataFormatter::Append(std::string_view record)
{
    m_cache.append(record);
    return record.size();
}

void SpoolRawDataFormatter::Serialize(std::string& out)
{
    out.assign(m_cache);
}

void SpoolRawDataFormatter::Reset()
{
    // clear() keeps the capacity for the next cache.
    m_cache.clear();
}

} // namespace vantor::common
