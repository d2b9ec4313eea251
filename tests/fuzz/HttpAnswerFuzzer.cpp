// libFuzzer entry point: any bytes as the LZMA-compressed body of a back-end
// answer, decompressed with a bound and parsed as JSON as an answer is. A
// body that is not a complete .xz stream, or that expands beyond the bound
// (an LZMA bomb: the seeds hold 1 MiB of zeros in under 300 bytes), is
// refused without using more memory than the bound. The bound is the
// caller's: a small one keeps every bomb cheap to refuse, so that the
// fuzzer spends its time on new inputs rather than on decompressing.

#include "common/util/Json.h"
#include "common/util/Lzma.h"
#include "tests/fuzz/FuzzSupport.h"

#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace
{
constexpr std::size_t kBound = 64 * 1024;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string body;
    try
    {
        body =
            vantor::util::LzmaDecompress(std::string_view(reinterpret_cast<const char*>(data), size), kBound);
    }
    catch (const vantor::util::LzmaException&)
    {
        return 0;
    }
    if (body.size() > kBound)
    {
        // The bound is what keeps a hostile answer from exhausting memory.
        std::abort();
    }
    rapidjson::Document answer;
    vantor::util::ParseJson(answer, body);
    return 0;
}
