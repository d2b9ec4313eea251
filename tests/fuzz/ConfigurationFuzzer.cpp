// libFuzzer entry point: any text as the agent's configuration file and as a
// FIM manifest. Each section goes through the constructor the daemon builds
// it with, and a manifest through the FIM rule parser: wrong types, missing
// keys and odd values are refused with an exception, never with a crash.

#include "edr/CommonConfig.h"
#include "edr/Config.h"
#include "fim/Config.h"
#include "fim/EventRuleManager.h"
#include "ioc/Config.h"
#include "tests/fuzz/FuzzSupport.h"

#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    rapidjson::Document root;
    root.Parse(reinterpret_cast<const char*>(data), size);
    if (root.HasParseError())
    {
        return 0;
    }
    const auto section = [&](const char* name) -> const rapidjson::Value&
    { return root.IsObject() && root.HasMember(name) ? root[name] : root; };
    vantor::test::Refusable([&] { vantor::edr::CommonConfig common(section("common_config")); });
    vantor::test::Refusable([&] { vantor::edr::EDR::Config edr(section("edr_config")); });
    vantor::test::Refusable([&] { vantor::fim::Config fim(section("fim_config")); });
    vantor::test::Refusable([&] { vantor::ioc::Ioc::Config ioc(section("ioc_config")); });
    vantor::test::Refusable([&] { vantor::fim::internal::EventRuleManager::ParseManifest(root, "fuzz"); });
    return 0;
}
