// libFuzzer entry point: any bytes as a FIM spool file, read and turned into
// an upload payload by the FIM upload schedule. A file damaged on disk or
// planted there is deleted as corrupt with the parser's message, never sent
// and never a crash; a file that parses becomes a payload, whose upload is
// refused (see SpoolFuzzTarget).

#include "fim/Component.h"
#include "fim/Config.h"
#include "fim/UploadSchedule.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tests/fuzz/SpoolFuzzTarget.h"

#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

namespace
{

std::unique_ptr<vantor::fim::Config> g_config;
std::unique_ptr<vantor::test::SpoolFuzzTarget> g_target;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    rapidjson::Document json;
    json.Parse(R"({"event_file_name":"fim_events","service_url":"https://fim.invalid/events",)"
               R"("upload_interval":300})");
    g_config = std::make_unique<vantor::fim::Config>(json);
    g_target = std::make_unique<vantor::test::SpoolFuzzTarget>(
        g_config->EventFileName(), vantor::fim::Component::kMaxSpoolFiles,
        [](vantor::common::SpoolStorage& spool, std::shared_ptr<vantor::common::HttpUploader> uploader) {
            return std::make_unique<vantor::fim::internal::UploadSchedule>(*g_config, spool,
                                                                           std::move(uploader));
        });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_target->Run(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
