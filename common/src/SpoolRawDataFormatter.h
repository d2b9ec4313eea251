#pragma once

#include "common/SpoolDataFormatter.h"

namespace vantor::common
{

// Spools records as they are: a file holds the records of one cache, back to
// back. For components whose records are already serialised and
// self-delimiting.
class SpoolRawDataFormatter : public SpoolDataFormatter
{
public:
    std::size_t Append(std::string_view record) override;
    void Serialize(std::string& out) override;
    void Reset() override;

private:
    std::string m_cache;
};

} // namespace vantor::common
