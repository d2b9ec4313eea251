#pragma once

#include "edr/Event.h"
#include "edr/EventRuleEngine.h"

#include <sys/stat.h>

#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace vantor::fim::test
{

// A file event with settable fields, for feeding the FIM processor; the
// getters of the fields named in unreadable throw "no <field>".
class TestEvent : public edr::Event
{
public:
    TestEvent(edr::EventType type, std::string file)
        : type(type)
        , file(std::move(file))
    {
    }

    std::unique_ptr<Event> Clone() const override { return std::make_unique<TestEvent>(*this); }
    edr::EventType GetType() const override { return type; }
    std::string GetActionName() const override { return "Test"; }
    uint32_t GetEventId() const override { return Read("id", id); }
    pid_t GetActorProcessId() const override { return 4242; }
    std::string GetActorUserName() const override { return Read("user", user); }
    uint32_t GetActorUserId() const override { return 1000; }
    std::string GetActorLoginName() const override { return Read("login", std::string("system-user")); }
    uint32_t GetActorAuid() const override { return 4294967295u; }
    std::string GetFile() const override { return file; }
    std::string GetNewFile() const override { return newFile; }
    uint64_t GetFileSize() const override { return Read("size", uint64_t{7}); }
    uint32_t GetFileType() const override { return directory ? S_IFDIR : S_IFREG; }
    std::string GetImage() const override { return Read("image", image); }
    uint64_t GetTimestamp() const override { return Read("time", timestampMs); }
    bool IsSuccessful() const override { return true; }
    bool HasFileStat() const override { return hasStat; }
    std::string GetCommandLine() const override
    {
        return commandLine ? *commandLine : Event::GetCommandLine();
    }

    template <typename T>
    T Read(const std::string& field, T value) const
    {
        if (unreadable.count(field) > 0)
        {
            throw std::runtime_error("no " + field);
        }
        return value;
    }

    edr::EventType type;
    std::string file;
    std::string newFile;
    std::string user = "alice";
    std::string image = "/usr/bin/vim";
    uint32_t id = 77;
    uint64_t timestampMs = 1714564800000; // 2024-05-01T12:00:00Z
    bool directory = false;
    bool hasStat = true;
    std::optional<std::string> commandLine; // unset: the base getter's answer
    std::set<std::string> unreadable;
};

// A rule engine without capture: records the rules FIM adds and deletes, and
// delivers events to the handlers FIM registered as a real engine would.
class RecordingRuleEngine : public edr::EventRuleEngine
{
public:
    void AddRules(const Rules& rules, const std::string& tag) override
    {
        for (const auto& rule : rules)
        {
            added.push_back(tag + ":" + rule->GetId());
        }
    }
    void DeleteRules(const std::string& tag) override { deleted.push_back(tag); }

    // The event as matched by a rule of the tag.
    void Deliver(const std::string& tag, edr::Event& event) { DispatchEvent({tag}, event); }
    // As when the kernel rules were lost.
    void Invalidate() { InvalidateEventHandlers(); }

    std::vector<std::string> added;   // "tag:rule id" per added rule
    std::vector<std::string> deleted; // tags
};

} // namespace vantor::fim::test
