// libFuzzer entry point: raw audit text, cut into two chunks at a position
// taken from the first byte, through an AuparseFeed with the real event
// builder and a flush. Every event built is read through the getters that
// consumers call first; a hostile event may refuse them with an exception,
// never with a crash.

#include "audit/AuditEventBuilder.h"
#include "audit/AuparseFeed.h"
#include "common/Logging.h"
#include "edr/LibMagicWrapper.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>

namespace
{

using vantor::edr::Event;

// An operation the class does not carry, or a value it cannot give, is
// refused with an exception.
using vantor::test::Refusable;

void Read(const Event& event)
{
    Refusable([&] { return event.GetType(); });
    Refusable([&] { return event.GetActionName(); });
    Refusable([&] { return event.GetEventId(); });
    Refusable([&] { return event.GetCategory(); });
    Refusable([&] { return event.GetTimestamp(); });
    Refusable([&] { return event.GetActorProcessId(); });
    Refusable([&] { return event.GetActorParentProcessId(); });
    Refusable([&] { return event.GetActorUserId(); });
    Refusable([&] { return event.GetActorEuid(); });
    Refusable([&] { return event.GetActorAuid(); });
    Refusable([&] { return event.GetImage(); });
    Refusable([&] { return event.GetFile(); });
    Refusable([&] { return event.GetNewFile(); });
    Refusable([&] { return event.GetFileType(); });
    Refusable([&] { return event.GetParentInode(); });
    Refusable([&] { return event.GetCwd(); });
    Refusable([&] { return event.GetCommandLine(); });
    Refusable([&] { return event.GetActorProcessArguments(); });
    Refusable([&] { return event.GetSecondaryImage(); });
    Refusable([&] { return event.GetNetworkAddress(); });
    Refusable([&] { return event.GetNetworkPort(); });
    Refusable([&] { return event.IsSuccessful(); });
    Refusable([&] { return event.IsThread(); });
    Refusable([&] { return event.Clone(); });
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
