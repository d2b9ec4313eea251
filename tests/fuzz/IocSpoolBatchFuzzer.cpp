// libFuzzer entry point: any bytes as an IOC spool file, read by the IOC
// upload schedule, which sends only a whole serialized event batch. A file
// that is not one is deleted as corrupt, never sent and never a crash; a
// batch that parses becomes a payload, whose upload is refused (see
// SpoolFuzzTarget).

#include "ioc/Component.h"
#include "ioc/Config.h"
#include "ioc/UploadSchedule.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tests/fuzz/SpoolFuzzTarget.h"

#include <google/protobuf/stubs/logging.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

namespace
{

std::unique_ptr<vantor::ioc::Ioc::Config> g_config;
std::unique_ptr<vantor::test::SpoolFuzzTarget> g_target;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    // libprotobuf writes its own complaints (a string that is not UTF-8) to
    // stderr; a refused batch is all that matters here.
    google::protobuf::SetLogHandler(nullptr);
    g_config = std::make_unique<vantor::ioc::Ioc::Config>(
        R"({"service_url":"https://ioc.invalid/events","upload_interval":300})");
    g_target = std::make_unique<vantor::test::SpoolFuzzTarget>(
        vantor::ioc::Component::kDefaultEventFileName, vantor::ioc::Component::kMaxSpoolFiles,
        [](vantor::common::SpoolStorage& spool, std::shared_ptr<vantor::common::HttpUploader> uploader)
        {
            return std::make_unique<vantor::ioc::internal::UploadSchedule>(*g_config, "customer", "agent",
                                                                           spool, std::move(uploader));
        });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_target->Run(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
