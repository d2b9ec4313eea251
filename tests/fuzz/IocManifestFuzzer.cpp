// libFuzzer entry point: any text as an IOC manifest (with its rules, their
// regular expressions and its tag settings) and as the tagging engine's
// settings on their own. A manifest the back end got wrong, or that someone
// tampered with, is refused with an exception, never with a crash.

#include "ioc/Manifest.h"
#include "ioc/TaggingEngine.h"
#include "ioc/TtlProcessTree.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static vantor::ioc::TtlProcessTree tree;
    static vantor::ioc::internal::TaggingEngine tagging(tree);

    const std::string_view text(reinterpret_cast<const char*>(data), size);
    vantor::test::Refusable(
        [&]
        {
            const auto manifest = vantor::ioc::internal::Manifest::Parse(text);
            if (manifest.tags)
            {
                tagging.ApplySettings(*manifest.tags);
            }
        });
    tagging.ApplySettings(std::string(text));
    return 0;
}
