// libFuzzer entry point: raw audit text, cut into two chunks at a position
// taken from the first byte, through an AuparseFeed with the real event
// builder and a flush. Every event built is read through the getters that
// consumers call first; a hostile event may refuse them with an exception,
// never with a crash.

#include "audit/AuditEventBuilder.h"
#include "audit/AuparseFeed.h"
#include "common/Logging.h"
#include "edr/LibMagicWrapper.h"
#include "tests/fuzz/QuietLogs.h"


#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>

namespace
{

using vantor::edr::Event;

template <typename Get>
void Touch(Get get)
{
    try
    {
        get();
    }
    catch (const std::exception&)
    {
        // An operation the class does not carry, or a value it cannot give.
    }
}

void Read(const Event& event)
{
    Touch([&] { return event.GetType(); });
    Touch([&] { return event.GetActionName(); });
    Touch([&] { return event.GetEventId(); });
    Touch([&] { return event.GetCategory(); });
    Touch([&] { return event.GetTimestamp(); });
    Touch([&] { return event.GetActorProcessId(); });
    Touch([&] { return event.GetActorParentProcessId(); });
    Touch([&] { return event.GetActorUserId(); });
    Touch([&] { return event.GetActorEuid(); });
    Touch([&] { return event.GetActorAuid(); });
    Touch([&] { return event.GetImage(); });
    Touch([&] { return event.GetFile(); });
    Touch([&] { return event.GetNewFile(); });
    Touch([&] { return event.GetFileType(); });
    Touch([&] { return event.GetParentInode(); });
    Touch([&] { return event.GetCwd(); });
    Touch([&] { return event.GetCommandLine(); });
    Touch([&] { return event.GetActorProcessArguments(); });
    Touch([&] { return event.GetSecondaryImage(); });
    Touch([&] { return event.GetNetworkAddress(); });
    Touch([&] { return event.GetNetworkPort(); });
    Touch([&] { return event.IsSuccessful(); });
    Touch([&] { return event.IsThread(); });
    Touch([&] { return event.Clone(); });
}

void ReadAll(const vantor::audit::AuparseFeed::Events& events)
{
    for (const auto& event : events)
    {
        Read(*event);
    }
}

std::shared_ptr<const vantor::edr::LibMagicWrapper> g_magic;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    g_magic = std::make_shared<const vantor::edr::LibMagicWrapper>("/usr/share/misc/magic.mgc");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The whole input is fed, so that a committed capture is a seed as it
    // stands; its first byte only chooses the cut.
    const size_t cut = size > 0 ? data[0] % (size + 1) : 0;
    vantor::audit::AuditEventBuilder builder(g_magic);
    vantor::audit::AuparseFeed feed(builder);
    ReadAll(feed.Feed(data, cut));
    ReadAll(feed.Feed(data + cut, size - cut));
    ReadAll(feed.Flush());
    return 0;
}
