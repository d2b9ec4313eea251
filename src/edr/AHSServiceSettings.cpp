#include "edr/AHSServiceSettings.h"

namespace vantor::edr
{

AHSServiceSettings AHSServiceSettings::From(const CommonConfig& common, const EDR::Config& edr)
{
    AHSServiceSettings settings;
    settings.url = common.ServiceUrl();
    while (!settings.url.empty() && settings.url.back() == '/')
    {
        settings.url.pop_back();
    }
    settings.url += kRoute;
    if (const uint64_t interval = edr.StatusUploadInterval(); interval != 0)
    {
        settings.interval = std::chrono::seconds(interval);
    }
    return settings;
}

} // namespace vantor::edr
