// libFuzzer entry point: raw audit text, cut into two chunks at a position
// taken from the first byte, through an AuparseFeed and a flush.

#include "../src/audit/RecordingEventBuilder.h"

#include "audit/AuparseFeed.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    const size_t cut = 1 + (size > 1 ? data[0] % size : 0);
    vantor::test::RecordingEventBuilder builder;
    vantor::audit::AuparseFeed feed(builder);
    feed.Feed(data + 1, cut - 1);
    feed.Feed(data + cut, size - cut);
    feed.Flush();
    return 0;
}
