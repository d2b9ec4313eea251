#include "fim/EventDocument.h"

#include "common/Logging.h"
#include "common/util/TimeFormat.h"
#include "fim/AccountNames.h"
#include "fim/DocumentWriter.h"

#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <optional>

namespace vantor::fim::internal
{

namespace
{

using ContentStatus = ContentReader::ContentStatus;
constexpr const char* kUnknown = DocumentWriter::kUnknown;

std::string Permission(mode_t mode)
{
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & 07777));
    return text.data();
}

// "old" and "new" of the change: the two names of a rename, otherwise the
// sizes (the event carries only the state after the change).
void WriteOperation(DocumentWriter& w, const edr::Event& event, std::optional<edr::EventType> type,
                    const std::string& path, const ContentReader::Content* content)
{
    w.Key("operation");
    w.StartObject();
    if (type == edr::EventType::Rename)
    {
        w.Key("old");
        w.StartObject();
        w.Member("path", path);
        w.EndObject();
        w.Key("new");
        w.StartObject();
        w.StringOrUnknown("path", [&] { return event.GetNewFile(); });
        w.EndObject();
    }
    else
    {
        w.Key("old");
        w.StartObject();
        w.Member("size", kUnknown);
        w.EndObject();
        w.Key("new");
        w.StartObject();
        if (type == edr::EventType::Delete)
        {
            w.Member("size", kUnknown);
        }
        else if (content != nullptr && content->status != ContentStatus::ReadFailure)
        {
            w.Key("size");
            w.Uint64(content->size);
        }
        else
        {
            w.NumberOrUnknown("size", [&] { return event.GetFileSize(); });
        }
        w.EndObject();
    }
    w.EndObject();
}

// The settings now on disk; the old ones are not known to the event.
void WriteSecuritySettings(DocumentWriter& w, const std::string& path)
{
    struct stat info
    {
    };
    const bool known = ::lstat(path.c_str(), &info) == 0;
    w.Key("securitySettings");
    w.StartObject();
    w.Key("new");
    w.StartObject();
    w.Member("permission", known ? Permission(info.st_mode) : kUnknown);
    w.Member("owner", known ? AccountNames::UserName(info.st_uid) : kUnknown);
    w.Member("group", known ? AccountNames::GroupName(info.st_gid) : kUnknown);
    w.EndObject();
    w.Key("old");
    w.StartObject();
    w.Member("permission", kUnknown);
    w.Member("owner", kUnknown);
    w.Member("group", kUnknown);
    w.EndObject();
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

std::string EventDocument::ActionWord(edr::EventType type, const std::vector<const EventRule*>& rules)
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

std::string EventDocument::Build(const edr::Event& event, const Input& input,
                                 const ContentReader::Content* content)
{
    bool trackContent = false;
    for (const auto* rule : input.rules)
    {
        trackContent = trackContent || rule->TracksContentChange();
    }
    std::optional<edr::EventType> type;
    try
    {
        type = event.GetType();
    }
    catch (const std::exception&)
    {
        // Pseudo events (baseline) carry no type.
    }
    // Mandatory fields first: a failure here drops the document.
    const bool success = event.IsSuccessful();
    const uint64_t seconds = event.GetTimestamp() / 1000;
    const uint32_t eventId = event.GetEventId();

    ContentReader::Content read;
    if (content == nullptr && (trackContent || input.collectHashes) && !input.isDirectory)
    {
        read = ContentReader::Read(input.path, trackContent, input.collectHashes);
        content = &read;
    }

    DocumentWriter w;
    w.StartObject();
    w.Member("successStatus", success ? "yes" : "no");
    w.Member("timestamp",
             util::FormatIsoTime(std::chrono::system_clock::time_point(std::chrono::seconds(seconds))));
    w.Key("eventId");
    w.Uint64(eventId);
    w.Member("eventAction", input.action);
    w.Member("eventClass", "Disk");
    w.Member("eventType", input.isDirectory ? "Directory" : "File");
    w.Member("imagePath", input.path);
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
    WriteOperation(w, event, type, input.path, content);
    if (type == edr::EventType::Attribute)
    {
        WriteSecuritySettings(w, input.path);
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
    return w.Text();
}

} // namespace vantor::fim::internal
