#include "audit/AuditEventBuilder.h"
#include "audit/AuditRecords.h"
#include "audit/AuparseField.h"
#include "audit/CloneEvent.h"
#include "audit/RenameEvent.h"
#include "tests/src/audit/AuditFixture.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>
#include <libaudit.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace vantor::audit
{
namespace
{

const std::string kData = test::kCaptureData;

constexpr auto* Fixture = &test::AuditFixture;

using test::Replace;
using vantor::test::ExpectThrowText;

// The outcome of building one audit event of the text.
struct Built
{
    int syscall = -1;
    EventBuilder::Events events;
    std::string error;
};

// Feeds the records through libauparse and builds every event whose SYSCALL
// record names the wanted call (any call when -1) as eventClass.
std::vector<Built> Build(const std::string& text, AuditEventClass eventClass, int wanted,
                         AuditEventBuilder::StatGate gate = {})
{
    auto magic = std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc");
    AuditEventBuilder builder(magic, std::move(gate));
    std::vector<Built> result;
    auparse_state_t* au = auparse_init(AUSOURCE_BUFFER, text.c_str());
    auparse_set_escape_mode(au, AUPARSE_ESC_RAW);
    while (auparse_next_event(au) > 0)
    {
        auparse_first_record(au);
        if (auparse_get_type(au) != AUDIT_SYSCALL)
        {
            continue;
        }
        const char* call = auparse_find_field(au, "syscall");
        const int number = call != nullptr ? std::stoi(call) : -1;
        if (wanted != -1 && number != wanted)
        {
            continue;
        }
        Built built;
        built.syscall = number;
        try
        {
            builder.BuildSyscallEvent(eventClass, au, {}, built.events);
        }
        catch (const std::exception& e)
        {
            built.error = e.what();
        }
        result.push_back(std::move(built));
    }
    auparse_destroy(au);
    return result;
}

// The single event of the first matching audit event; fails on a rejection.
std::unique_ptr<edr::Event> One(const std::string& text, AuditEventClass eventClass, int syscall)
{
    auto built = Build(text, eventClass, syscall);
    if (built.empty())
    {
        ADD_FAILURE() << "no event for syscall " << syscall;
        return nullptr;
    }
    EXPECT_EQ(built.front().error, "");
    if (built.front().events.empty())
    {
        return nullptr;
    }
    return std::move(built.front().events.front());
}

std::string Rejection(const std::string& text, AuditEventClass eventClass, int syscall)
{
    auto built = Build(text, eventClass, syscall);
    return built.empty() ? "no event" : built.front().error;
}

TEST(AuditEventBuilderTest, FileEventsCarryAbsolutePathsActorsAndActions)
{
    auto create = One(Fixture("create"), AuditEventClass::ReadWrite, 257);
    ASSERT_TRUE(create);
    EXPECT_EQ(create->GetType(), edr::EventType::Create);
    EXPECT_EQ(create->GetActionName(), "Create");
    EXPECT_EQ(create->GetFile(), kData + "/created.txt");
    EXPECT_EQ(create->GetCwd(), kData);
    EXPECT_EQ(create->GetActorUserId(), 0U);
    EXPECT_EQ(create->GetActorEuid(), 0U);
    EXPECT_EQ(create->GetActorUserName(), "root");
    EXPECT_EQ(create->GetActorAuid(), 4294967295U);
    EXPECT_EQ(create->GetActorLoginName(), "system-user");
    EXPECT_GT(create->GetActorProcessId(), 0);
    EXPECT_GT(create->GetActorParentProcessId(), 0);
    EXPECT_EQ(create->GetImage(), "/tmp/corvid-audit-capture/bin/workload");
    EXPECT_TRUE(create->IsSuccessful());
    EXPECT_GT(create->GetEventId(), 0U);
    EXPECT_GT(create->GetTimestamp(), 1600000000000ULL);
    EXPECT_EQ(create->GetCategory(), static_cast<uint32_t>(edr::EventCategory::File));
    ExpectThrowText<edr::EventException>([&] { create->GetNetworkPort(); },
                                         "GetNetworkPort is not implemented");
    ExpectThrowText<edr::EventException>([&] { create->GetNewFile(); }, "GetNewFile not implemented");
    // The capture directory is gone: the event is built without a stat.
    ExpectThrowText<edr::EventException>([&] { create->GetFileSize(); },
                                         "File stat does not exist for Create event with ID ");
    EXPECT_FALSE(create->HasFileStat()) << "consumers skip the getters that would throw";

    const std::string existing = kData + "/existing.txt";
    for (const auto& [name, eventClass, call, type, file] :
         std::vector<std::tuple<const char*, AuditEventClass, int, edr::EventType, std::string>>{
             {"open_read", AuditEventClass::ReadWrite, 2, edr::EventType::Read, existing},
             {"open_write", AuditEventClass::ReadWrite, 2, edr::EventType::Write, ""},
             {"open_rdwr", AuditEventClass::ReadWrite, 257, edr::EventType::Write, ""},
             {"open_absolute", AuditEventClass::ReadWrite, 2, edr::EventType::Read, existing},
             {"openat_creat", AuditEventClass::Create, 257, edr::EventType::Create,
              kData + "/openat_new.txt"},
             {"mkdir", AuditEventClass::Create, 83, edr::EventType::Create, kData + "/new_dir"},
             {"symlink", AuditEventClass::Create, 88, edr::EventType::Create, kData + "/new_symlink"}})
    {
        auto event = One(Fixture(name), eventClass, call);
        ASSERT_TRUE(event) << name;
        EXPECT_EQ(event->GetType(), type) << name;
        EXPECT_EQ(file.empty() ? "" : event->GetFile(), file) << name;
    }
    EXPECT_EQ(One(Fixture("open_write"), AuditEventClass::ReadWrite, 2)->GetActionName(), "Write");
    EXPECT_TRUE(One(Fixture("symlink"), AuditEventClass::Create, 88)->IsSymlink());
    for (auto [name, call] : {std::pair{"chmod", 90}, {"fchmodat", 268}, {"chown", 92}, {"lchown", 94}})
    {
        auto attribute = One(Fixture(name), AuditEventClass::Attribute, call);
        ASSERT_TRUE(attribute) << name;
        EXPECT_EQ(attribute->GetActionName(), "Change");
        EXPECT_EQ(attribute->GetType(), edr::EventType::Attribute);
    }
    for (auto [name, call] : {std::pair{"unlink", 87}, {"unlinkat", 263}, {"rmdir", 84}})
    {
        auto removed = One(Fixture(name), AuditEventClass::Delete, call);
        ASSERT_TRUE(removed) << name;
        EXPECT_EQ(removed->GetType(), edr::EventType::Delete);
        ExpectThrowText<edr::EventException>([&] { removed->GetFileSize(); },
                                             "File stat information is not available");
        EXPECT_FALSE(removed->HasFileStat());
    }
    EXPECT_EQ(One(Fixture("unlink"), AuditEventClass::Delete, 87)->GetFile(), kData + "/to_unlink.txt");
}

TEST(AuditEventBuilderTest, HostileNamesAreDecodedToTheirBytes)
{
    auto built = Build(Fixture("hostile"), AuditEventClass::ReadWrite, 257);
    ASSERT_EQ(built.size(), 4U);
    std::vector<std::string> files;
    for (auto& b : built)
    {
        ASSERT_EQ(b.error, "");
        files.push_back(b.events.front()->GetFile());
    }
    EXPECT_EQ(files, (std::vector<std::string>{kData + "/quote\"name.txt", kData + "/name with spaces.txt",
                                               kData + "/bad\xff\xfe.txt", kData + "/new\nline.txt"}));
}

TEST(AuditEventBuilderTest, RenameOverAnExistingFileAlsoDeletesTheTarget)
{
    auto plain = Build(Fixture("rename"), AuditEventClass::Rename, 82);
    ASSERT_EQ(plain.size(), 1U);
    ASSERT_EQ(plain[0].events.size(), 1U);
    EXPECT_EQ(plain[0].events[0]->GetFile(), kData + "/rename_src.txt");
    EXPECT_EQ(plain[0].events[0]->GetNewFile(), kData + "/rename_dst.txt");

    auto over = Build(Fixture("rename_over"), AuditEventClass::Rename, 82);
    ASSERT_EQ(over.size(), 1U);
    ASSERT_EQ(over[0].events.size(), 2U) << over[0].error;
    EXPECT_EQ(over[0].events[0]->GetType(), edr::EventType::Rename);
    EXPECT_EQ(over[0].events[1]->GetType(), edr::EventType::Delete);
    EXPECT_EQ(over[0].events[1]->GetFile(), kData + "/over_dst.txt");
    EXPECT_EQ(over[0].events[1]->GetEventId(), over[0].events[0]->GetEventId());
    auto copy = over[0].events[1]->Clone();
    over[0].events.clear();
    EXPECT_EQ(copy->GetFile(), kData + "/over_dst.txt");

    auto two = Build(Fixture("renameat2"), AuditEventClass::Rename, 316);
    ASSERT_EQ(two.size(), 1U);
    EXPECT_EQ(two[0].events.size(), 1U);
}

TEST(AuditEventBuilderTest, ProcessAndNetworkEvents)
{
    const std::string execve = Fixture("execve");
    auto running = One(execve, AuditEventClass::Running, 59);
    ASSERT_TRUE(running);
    EXPECT_EQ(running->GetActorProcessArguments(),
              (std::vector<std::string>{"/bin/sh", "./script.sh", "first arg", "second"}));
    EXPECT_EQ(running->GetSecondaryImage(), kData + "/script.sh");
    EXPECT_EQ(running->GetImage(), "/usr/bin/dash");
    EXPECT_EQ(running->GetActionName(), "Execve");
    EXPECT_EQ(running->GetCategory(), static_cast<uint32_t>(edr::EventCategory::Process));

    auto clone = One(execve, AuditEventClass::Clone, 56);
    ASSERT_TRUE(clone);
    auto* cloneEvent = dynamic_cast<internal::CloneEvent*>(clone.get());
    ASSERT_NE(cloneEvent, nullptr);
    EXPECT_EQ(cloneEvent->GetChildProcessId(), running->GetActorProcessId());
    auto fork = Build(Fixture("fork"), AuditEventClass::Clone, 57);
    ASSERT_EQ(fork.size(), 1U);
    EXPECT_EQ(fork[0].error, "");
    EXPECT_EQ(One(execve, AuditEventClass::Exit, 231)->GetType(), edr::EventType::Exit);

    auto bind = One(Fixture("network4"), AuditEventClass::Network, 49);
    ASSERT_TRUE(bind);
    EXPECT_EQ(bind->GetType(), edr::EventType::Bind);
    EXPECT_EQ(bind->GetNetworkAddress(), "127.0.0.1");
    EXPECT_EQ(bind->GetNetworkPort(), 47011);
    auto connect6 = One(Fixture("network6"), AuditEventClass::Network, 42);
    ASSERT_TRUE(connect6);
    EXPECT_EQ(connect6->GetActionName(), "Connect");
    EXPECT_EQ(connect6->GetNetworkAddress(), "::1");
    EXPECT_EQ(connect6->GetNetworkPort(), 47012);
    ExpectThrowText<edr::EventException>([&] { connect6->GetFile(); }, "GetFile not implemented");
}

TEST(AuditEventBuilderTest, TheProcessTitleIsTheDecodedProctitleRecord)
{
    // Hex-encoded by the kernel, arguments separated by NUL.
    auto create = One(Fixture("create"), AuditEventClass::ReadWrite, 257);
    ASSERT_TRUE(create);
    EXPECT_EQ(create->GetCommandLine(), test::kCaptureWorkload + " create");
    EXPECT_EQ(create->GetActorProcessArguments(),
              (std::vector<std::string>{test::kCaptureWorkload, "create"}));
    EXPECT_FALSE(create->HasProcess()) << "no process tree has named the actor";

    // An argument with a space; the script's own event, not the execve.
    const std::string execve = Fixture("execve");
    auto opened = One(execve, AuditEventClass::ReadWrite, 257);
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->GetImage(), "/usr/bin/dash");
    EXPECT_EQ(opened->GetCommandLine(), "/bin/sh ./script.sh first arg second");
    EXPECT_EQ(opened->GetActorProcessArguments(),
              (std::vector<std::string>{"/bin/sh", "./script.sh", "first arg", "second"}));
    EXPECT_EQ(One(execve, AuditEventClass::Running, 59)->GetCommandLine(),
              "/bin/sh ./script.sh first arg second");
    EXPECT_EQ(One(Fixture("network4"), AuditEventClass::Network, 42)->GetCommandLine(),
              test::kCaptureWorkload + " network4");
    EXPECT_EQ(One(Fixture("fork"), AuditEventClass::Clone, 57)->GetCommandLine(),
              test::kCaptureWorkload + " fork");

    // A title without special characters comes quoted.
    const std::string chmod = Fixture("chmod");
    const size_t title = chmod.find("proctitle=") + 10;
    const std::string quoted =
        chmod.substr(0, title) + "\"/usr/bin/chmod\"" + chmod.substr(chmod.find('\n', title));
    EXPECT_EQ(One(quoted, AuditEventClass::Attribute, 90)->GetCommandLine(), "/usr/bin/chmod");

    // Without the record, and without a process tree, nothing names it.
    auto untitled =
        One(test::WithoutRecords(Fixture("create"), "PROCTITLE"), AuditEventClass::ReadWrite, 257);
    ASSERT_TRUE(untitled);
    ExpectThrowText<edr::EventException>([&] { untitled->GetCommandLine(); },
                                         "GetCommandLine not implemented");
    ExpectThrowText<edr::EventException>([&] { untitled->GetActorProcessArguments(); },
                                         "GetActorProcessArguments is not implemented");
}

TEST(AuditEventBuilderTest, ProctitleValuesDecodeToTheirArguments)
{
    using internal::AuditRecords;
    using Arguments = std::vector<std::string>;
    // Appended to what the buffer holds, which it leaves alone.
    const auto decode = [](std::string_view raw)
    {
        std::string text = "exe";
        AuditRecords::DecodeProctitle(raw, text);
        EXPECT_EQ(text.substr(0, 3), "exe") << raw;
        return AuditRecords::SplitArguments(std::string_view(text).substr(3));
    };
    // Cut at the kernel's limit inside a run of empty arguments.
    EXPECT_EQ(decode("61620063000000"), (Arguments{"ab", "c"}));
    EXPECT_EQ(decode("6100006200"), (Arguments{"a", "", "b"}));
    EXPECT_EQ(decode("\"sshd\""), (Arguments{"sshd"}));
    EXPECT_EQ(decode("(null)"), Arguments{});
    EXPECT_EQ(decode("0000"), Arguments{});
    // Not the kernel's encoding: kept as it came rather than lost.
    EXPECT_EQ(decode("6G"), (Arguments{"6G"}));
    EXPECT_EQ(decode("616"), (Arguments{"616"}));
}

TEST(AuditEventBuilderTest, TextFieldsDecodeAsTheLibraryInterpretsThem)
{
    // Quoted, hex (upper and lower case, NUL inside, bytes above 0x7f) and
    // forms the library treats on its own, in every text field read.
    const std::vector<std::string> values = {"\"/tmp/a\"", "\"\"",     "\"open", "2F746D702F6120622E747874",
                                             "2f746d70",   "61006263", "0061",   "616",
                                             "6G",         "FF80C3A9", "(null)"};
    std::string text;
    uint32_t serial = 1;
    for (const auto& value : values)
    {
        const std::string stamp = " msg=audit(1700000000.000:" + std::to_string(serial++) + "): ";
        text += "type=SYSCALL" + stamp + "arch=c000003e syscall=2 success=yes exit=3 a0=0 a1=0 a2=0 a3=0 " +
                "items=1 ppid=1 pid=2 auid=0 uid=0 gid=0 euid=0 comm=" + value + " exe=" + value + "\n";
        text += "type=CWD" + stamp + "cwd=" + value + "\n";
        text += "type=PATH" + stamp + "item=0 name=" + value +
                " inode=1 dev=00:01 mode=0100644 nametype=NORMAL\n";
        text += "type=EXECVE" + stamp + "argc=1 a0=" + value + "\n";
    }
    auparse_state_t* au = auparse_init(AUSOURCE_BUFFER, text.c_str());
    auparse_set_escape_mode(au, AUPARSE_ESC_RAW);
    const std::set<std::string> textFields = {"comm", "exe", "cwd", "name", "a0"};
    size_t compared = 0;
    while (auparse_next_event(au) > 0)
    {
        auparse_first_record(au);
        do
        {
            if (auparse_first_field(au) != 1)
            {
                continue;
            }
            do
            {
                const std::string name = auparse_get_field_name(au);
                if (textFields.count(name) == 0 || (name == "a0" && auparse_get_type(au) != AUDIT_EXECVE))
                {
                    continue;
                }
                const std::string raw = auparse_get_field_str(au);
                const char* interpreted = auparse_interpret_field(au);
                const std::optional<std::string> expected =
                    raw == "(null)" || interpreted == nullptr ? std::nullopt : std::optional(interpreted);
                EXPECT_EQ(internal::AuparseField::Text(au), expected) << name << "=" << raw;
                EXPECT_EQ(internal::AuparseField::HasText(au), expected.has_value()) << name << "=" << raw;
                ++compared;
            } while (auparse_next_field(au) == 1);
        } while (auparse_next_record(au) == 1);
    }
    auparse_destroy(au);
    EXPECT_EQ(compared, values.size() * 5);
}

// The fixture's records moved to a directory of this test whose files exist:
// each "name=<kData-relative name> inode=<recorded>" names the real file.
std::string OnRealFiles(std::string text, const vantor::test::TempDir& dir,
                        const std::vector<std::pair<std::string, std::string>>& nameAndInode)
{
    text = Replace(text, kData, dir.Path());
    for (const auto& [name, inode] : nameAndInode)
    {
        struct stat st
        {
        };
        EXPECT_EQ(::stat((dir.Path() + "/" + name).c_str(), &st), 0) << name;
        char device[32];
        std::snprintf(device, sizeof device, "%02x:%02x", major(st.st_dev), minor(st.st_dev));
        text = Replace(text, "inode=" + inode + " dev=fe:00",
                       "inode=" + std::to_string(st.st_ino) + " dev=" + device);
    }
    return text;
}

TEST(AuditEventBuilderTest, OnlyFileEventsThatSomeRuleRoutesAreStatted)
{
    vantor::test::TempDir dir;
    dir.Write("existing.txt", "twelve bytes");
    dir.Write("rename_dst.txt", "moved");
    const std::string chmod = OnRealFiles(Fixture("chmod"), dir, {{"existing.txt", "10953698"}});
    const std::string rename = OnRealFiles(Fixture("rename"), dir, {{"rename_dst.txt", "10953700"}});
    const auto routing = [](std::string routed)
    { return [routed](std::string_view path) { return path == routed; }; };
    const auto statted =
        [](const std::string& text, AuditEventClass eventClass, int call, AuditEventBuilder::StatGate gate)
    {
        auto built = Build(text, eventClass, call, std::move(gate));
        EXPECT_EQ(built.size(), 1U);
        EXPECT_EQ(built.at(0).error, "");
        return !built.at(0).events.empty() && built.at(0).events.front()->HasFileStat();
    };

    EXPECT_TRUE(statted(chmod, AuditEventClass::Attribute, 90, {})) << "no gate: every file is statted";
    EXPECT_TRUE(statted(chmod, AuditEventClass::Attribute, 90, routing(dir.Path() + "/existing.txt")));
    EXPECT_FALSE(statted(chmod, AuditEventClass::Attribute, 90, routing(dir.Path() + "/other.txt")));
    // A rename goes where its source or its destination goes; the stat is
    // the destination's either way.
    EXPECT_TRUE(statted(rename, AuditEventClass::Rename, 82, routing(dir.Path() + "/rename_src.txt")));
    EXPECT_TRUE(statted(rename, AuditEventClass::Rename, 82, routing(dir.Path() + "/rename_dst.txt")));
    EXPECT_FALSE(statted(rename, AuditEventClass::Rename, 82, routing("/elsewhere")));
    // The stat is the test's file's: the records name it.
    auto ungated = One(chmod, AuditEventClass::Attribute, 90);
    ASSERT_TRUE(ungated);
    EXPECT_EQ(ungated->GetFileSize(), 12U);
}

// The fixture with one argument of its first SYSCALL record replaced.
std::string WithArgument(std::string text, const std::string& name, const std::string& value)
{
    const size_t at = text.find(" " + name + "=") + name.size() + 2;
    text.replace(at, text.find(' ', at) - at, value);
    return text;
}

TEST(AuditEventBuilderTest, OnlyTheArgumentsACallReadsAreParsed)
{
    const auto refusal = [](const std::string& name)
    { return "SyscallRecordException: Failed to parse field " + name + " in syscall record"; };
    // clone's flags, open's access mode: read, so a garbled one refuses the event.
    EXPECT_EQ(Rejection(WithArgument(Fixture("thread"), "a0", "zz"), AuditEventClass::Clone, 56),
              refusal("a0"));
    EXPECT_EQ(Rejection(WithArgument(Fixture("open_read"), "a1", "zz"), AuditEventClass::ReadWrite, 2),
              refusal("a1"));
    // The rest is not looked at, as the records handed to libauparse leave it out.
    EXPECT_EQ(Rejection(WithArgument(Fixture("open_read"), "a0", "zz"), AuditEventClass::ReadWrite, 2), "");
    EXPECT_EQ(Rejection(WithArgument(Fixture("chmod"), "a1", "zz"), AuditEventClass::Attribute, 90), "");
    // Before the call is named, every argument is read.
    std::string early = Fixture("chmod");
    early.replace(early.find(" syscall=90 "), 1, " a3=zz ");
    EXPECT_EQ(Rejection(early, AuditEventClass::Attribute, 90), refusal("a3"));
}

TEST(AuditEventBuilderTest, RejectsEventsThatDoNotFitTheirClass)
{
    for (const auto& [name, eventClass, call, message] :
         std::vector<std::tuple<const char*, AuditEventClass, int, std::string>>{
             {"thread", AuditEventClass::Clone, 56, "Thread events are not tracked"},
             {"truncate", AuditEventClass::ReadWrite, 76, "Invalid syscall for Write event: 76"},
             {"ftruncate", AuditEventClass::ReadWrite, 77, "Invalid syscall for Write event: 77"},
             {"open_read", AuditEventClass::Create, 2, "open() must specify O_CREAT for Create event"},
             {"open_rdwr", AuditEventClass::Create, 257,
              "openat()/open_by_handle_at() must specify O_CREAT for Create event"},
             {"chmod", AuditEventClass::Exit, 90, "Invalid syscall for Exit event: 90"},
             {"network4", AuditEventClass::Network, 43, "Invalid SOCKADDR record in Network event"},
             {"execveat", AuditEventClass::Running, 322, "Invalid syscall for Running event: 322"}})
    {
        EXPECT_EQ(Rejection(Fixture(name), eventClass, call), message) << name;
    }

    // Handcrafted from real records.
    const std::string chmod = Fixture("chmod");
    const std::string firstSyscall = chmod.substr(0, chmod.find('\n') + 1);
    EXPECT_EQ(Rejection(firstSyscall + chmod, AuditEventClass::Attribute, 90),
              "Multiple syscall records found in event");
    const std::string noCwd = test::WithoutRecords(Fixture("create"), "CWD");
    EXPECT_EQ(Rejection(noCwd, AuditEventClass::ReadWrite, 257), "Missing CWD with relative path");
    EXPECT_EQ(Rejection(Replace(chmod, "comm=\"workload\"", "comm=(null)"), AuditEventClass::Attribute, 90),
              "SyscallRecordException: Failed to find process name in syscall record");

    // A chmod whose file was replaced before it could be examined.
    vantor::test::TempDir dir;
    dir.Write("existing.txt", "another file");
    const std::string moved = Replace(chmod, kData, dir.Path());
    ASSERT_NE(moved.find(dir.Path()), std::string::npos);
    EXPECT_EQ(Rejection(moved, AuditEventClass::Attribute, 90).substr(0, 5 + dir.Path().size() + 13),
              "File " + dir.Path() + "/existing.txt");
    EXPECT_NE(
        Rejection(moved, AuditEventClass::Attribute, 90).find("differs from the object of the audit event"),
        std::string::npos);
}

} // namespace
} // namespace vantor::audit
