#include "edr/AHSRecord.h"

namespace vantor::edr
{

std::optional<AHSRecordType> AHSRecord::TypeOf(int64_t statusCode)
{
    if (statusCode < 1000 || statusCode > 5999)
    {
        return std::nullopt;
    }
    return static_cast<AHSRecordType>(statusCode / 1000);
}

const char* AHSRecord::TypeName(AHSRecordType type)
{
    switch (type)
    {
    case AHSRecordType::Configuration:
        return "Configuration";
    case AHSRecordType::Upload:
        return "Upload";
    case AHSRecordType::Loss:
        return "Loss";
    case AHSRecordType::ResourceLimit:
        return "ResourceLimit";
    case AHSRecordType::KernelRules:
        return "KernelRules";
    }
    return "Unknown";
}

} // namespace vantor::edr
