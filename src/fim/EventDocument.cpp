#include "fim/EventDocument.h"

#include "common/Logging.h"
#include "common/util/TimeFormat.h"
#include "fim/AccountNames.h"
#include "fim/DocumentWriter.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <map>

namespace vantor::fim::internal
{

namespace
{

using ContentStatus = ContentReader::ContentStatus;
constexpr const char* kUnknown = DocumentWriter::kUnknown;

void WriteSize(DocumentWriter& w, const std::optional<FileState>& state)
{
    if (state)
    {
        w.Key("size");
        w.Uint64(state->size);
    }
    else
    {
        w.Member("size", kUnknown);
    }
}

// "old" and "new" of the change: the two names of a rename, otherwise the
// sizes.
void WriteOperation(DocumentWriter& w, const edr::Event& event, const EventDocument::Input& input)
{
    w.Key("operation");
    w.StartObject();
    if (!input.newPath.empty())
    {
        w.Key("old");
        w.StartObject();
        w.PathMember("path", input.oldPath);
        w.EndObject();
        w.Key("new");
        w.StartObject();
        w.PathMember("path", input.newPath);
        w.EndObject();
        w.EndObject();
        return;
    }
    w.Key("old");
    w.StartObject();
    WriteSize(w, input.before);
    w.EndObject();
    w.Key("new");
    w.StartObject();
    if (input.after)
    {
        WriteSize(w, input.after);
    }
    else if (!input.isDirectory && input.content != nullptr &&
             input.content->status != ContentStatus::ReadFailure)
    {
        w.Key("size");
        w.Uint64(input.content->size);
    }
    else if (input.action == "delete" || !event.HasFileStat())
    {
        w.Member("size", kUnknown);
    }
    else
    {
        // The size the event saw when it was made.
        w.NumberOrUnknown("size", [&] { return event.GetFileSize(); });
    }
    w.EndObject();
    w.EndObject();
}

void WriteSettings(DocumentWriter& w, const char* key, const std::optional<FileState>& state)
{
    w.Key(key);
    w.StartObject();
    w.Member("permission", state ? EventDocument::Permission(state->mode) : kUnknown);
    w.Member("owner", state ? AccountNames::UserName(state->uid) : kUnknown);
    w.Member("group", state ? AccountNames::GroupName(state->gid) : kUnknown);
    w.EndObject();
}

void WriteActor(DocumentWriter& w, const edr::Event& event)
{
    w.Key("actor");
    w.StartObject();
    w.NumberOrUnknown("processID", [&] { return event.GetActorProcessId(); });
    w.StringOrUnknown("userName", [&] { return event.GetActorUserName(); });
    w.NumberOrUnknown("userID", [&] { return event.GetActorUserId(); });
    w.StringOrUnknown("auditUserName", [&] { return event.GetActorLoginName(); });
    w.NumberOrUnknown("auditUserID", [&] { return event.GetActorAuid(); });
    w.StringOrUnknown("procTitle",
                      [&]
                      {
                          try
                          {
                              return event.GetCommandLine();
                          }
                          catch (const std::exception&)
                          {
                              return event.GetImage();
                          }
                      });
    w.EndObject();
}

} // namespace

std::string EventDocument::Permission(uint32_t mode)
{
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & 07777));
    return text.data();
}

EventRule::Action EventDocument::NotifyCode(const std::string& word)
{
    static const std::map<std::string, EventRule::Action> kCodes = {
        {"create", EventRule::kCreate},
        {"delete", EventRule::kDelete},
        {"read", EventRule::kRead},
        {"modifyContent", EventRule::kModifyContent},
        {"modifyMetadata", EventRule::kModifyMetadata},
        {"modifySecuritySettings", EventRule::kModifySecuritySettings},
        {"rename", EventRule::kRename}};
    const auto it = kCodes.find(word);
    return it != kCodes.end() ? it->second : 0;
}

std::string EventDocument::ActionWord(edr::EventType type, const RuleList& rules)
{
    switch (type)
    {
    case edr::EventType::Create:
        return "create";
    case edr::EventType::Delete:
        return "delete";
    case edr::EventType::Read:
        return "read";
    case edr::EventType::Write:
        return "modifyContent";
    case edr::EventType::Rename:
        return "rename";
    case edr::EventType::Attribute:
        for (const auto* rule : rules)
        {
            if (rule->GetNotifyActions().count(EventRule::kModifySecuritySettings))
            {
                return "modifySecuritySettings";
            }
        }
        return "modifyMetadata";
    default:
        return kUnknown;
    }
}

std::string EventDocument::Build(const edr::Event& event, const Input& input)
{
    bool trackContent = false;
    for (const auto* rule : input.rules)
    {
        trackContent = trackContent || rule->TracksContentChange();
    }
    // Mandatory fields first: a failure here drops the document.
    const bool success = event.IsSuccessful();
    const uint64_t seconds = event.GetTimestamp() / 1000;
    const uint32_t eventId = event.GetEventId();
    const ContentReader::Content* content = input.isDirectory ? nullptr : input.content;

    // One writer per thread: its buffer is reused by the next document.
    thread_local DocumentWriter w;
    w.Reset();
    w.StartObject();
    w.Member("successStatus", success ? "yes" : "no");
    w.Member("timestamp",
             util::FormatIsoTime(std::chrono::system_clock::time_point(std::chrono::seconds(seconds))));
    w.Key("eventId");
    w.Uint64(eventId);
    w.Member("eventAction", input.action);
    w.Member("eventClass", "Disk");
    w.Member("eventType", input.isDirectory ? "Directory" : "File");
    w.PathMember("imagePath", input.path);
    if (input.collectHashes)
    {
        const std::string hash = content != nullptr && !content->sha256.empty() ? content->sha256 : kUnknown;
        EDR_LOG_DEBUG("PATH: " << input.path << " SHA256: " << hash);
        w.Member("fileContentHash", hash);
    }
    if (trackContent)
    {
        w.Member("fileContent", content != nullptr ? std::string_view(content->data) : std::string_view());
        w.Member("contentStatus", ContentReader::ContentStatusText(
                                      content != nullptr ? content->status : ContentStatus::ReadFailure));
    }
    WriteOperation(w, event, input);
    if (input.action == "modifyMetadata" || input.action == "modifySecuritySettings")
    {
        w.Key("securitySettings");
        w.StartObject();
        WriteSettings(w, "new", input.after);
        WriteSettings(w, "old", input.before);
        w.EndObject();
    }
    w.Key("associatedRules");
    w.StartArray();
    for (const auto* rule : input.rules)
    {
        w.String(rule->GetRuleId());
    }
    w.EndArray();
    WriteActor(w, event);
    w.EndObject();
    return w.Take();
}

} // namespace vantor::fim::internal
