#pragma once

#include "edr/Event.h"
#include "fim/EventRuleManager.h"
#include "fim/FileState.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantor::fim::internal
{

// One event that passed post-processing and waits for its document. The
// event handler's event is gone once the handler returns, so this holds what
// the document reads of it (DocumentEvent), and the rule set whose rules it
// matched. The paths are kept once each: the event's path and a rename's
// destination; the others are one of the two.
struct PendingDocument
{
    std::unique_ptr<edr::Event> event;
    std::shared_ptr<const EventRuleManager::RuleSet> ruleSet;
    // The rules that passed, in rule order; the document's action picks
    // among them.
    std::vector<const EventRule*> rules;
    // The event's path: a rename's source.
    std::string path;
    // Destination of a rename, else empty.
    std::string newPath;
    // The object as the handler saw it, without a hash (it has none then):
    // a FileState less its empty hash text, since many documents wait.
    struct Observation
    {
        uint64_t size = 0;
        int64_t modificationTimeNs = 0;
        uint32_t mode = 0;
        uint32_t uid = 0;
        uint32_t gid = 0;
        bool known = false; // false: the object was gone
    } observation;
    edr::EventType type = edr::EventType::Create;
    // The document reports path (a rule watches it), else the object path.
    bool imageAtPath = true;
    bool isDirectory = false;
    // The document carries content or hash, or needs the settled content to
    // tell a content change from a change of timestamps.
    bool readsContent = false;

    void SetObserved(const std::optional<FileState>& state)
    {
        observation =
            state ? Observation{state->size, state->modificationTimeNs, state->mode, state->uid, state->gid,
                                true}
                  : Observation{};
    }
    std::optional<FileState> Observed() const
    {
        if (!observation.known)
        {
            return std::nullopt;
        }
        return FileState{observation.size,
                         observation.mode,
                         observation.uid,
                         observation.gid,
                         observation.modificationTimeNs,
                         {}};
    }

    // The path the document reports.
    const std::string& ImagePath() const { return imageAtPath ? path : ObjectPath(); }
    // Where the object is now: its content is read there, and documents are
    // ordered and settled per this path. A rename's destination.
    const std::string& ObjectPath() const { return newPath.empty() ? path : newPath; }
    // Whose last known state is the "before" of the document: the object
    // path, or a rename's source.
    const std::string& PreviousPath() const { return path; }
};

} // namespace vantor::fim::internal
