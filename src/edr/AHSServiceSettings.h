#pragma once

#include "edr/CommonConfig.h"
#include "edr/Config.h"

#include <chrono>
#include <string>

namespace vantor::edr
{

// Where and how often the health-status records go: the back end's
// service URL with the status route, every interval.
struct AHSServiceSettings
{
    static constexpr const char* kRoute = "/edr/status";
    static constexpr std::chrono::seconds kDefaultInterval{300};

    std::string url;
    std::chrono::seconds interval = kDefaultInterval;

    // The URL from "service_url" (without its trailing slashes) and kRoute;
    // the interval from "status_upload_interval", kDefaultInterval when that
    // is absent or 0.
    static AHSServiceSettings From(const CommonConfig& common, const EDR::Config& edr);
};

} // namespace vantor::edr
