#pragma once

#include "edr/Event.h"
#include "fim/EventRuleManager.h"
#include "fim/FileState.h"
#include "fim/RuleList.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantor::fim::internal
{

// One event that passed post-processing and waits for its document. The
// event handler's event is gone once the handler returns, so this holds what
// the document reads of it (DocumentEvent), and the rule set whose rules it
// matched. The object path is held once per group of waiting documents:
// a document hands it to its group (PendingDocuments::Add), and then keeps
// only a rename's source when that differs.
struct PendingDocument
{
    std::unique_ptr<edr::Event> event;
    std::shared_ptr<const EventRuleManager::RuleSet> ruleSet;
    // The rules that passed, in rule order; the document's action picks
    // among them.
    RuleList rules;
    // Where the object is now: the event's path or a rename's destination.
    // Documents are grouped and settled per this path, and the object's
    // content is read there. Empty once handed to the group.
    std::string objectPath;
    // The event's path when it is not the object path (a rename's source),
    // else null: few documents have one.
    std::unique_ptr<const std::string> source;
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
    // The event named a destination (a rename): the document shows the old
    // and the new path.
    bool renamed = false;

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

    // Whose last known state is the "before" of the document: the object
    // path, or a rename's source.
    const std::string& PreviousPath(const std::string& objectPathOfGroup) const
    {
        return source ? *source : objectPathOfGroup;
    }
    // The path the document reports: the event's path when a rule watches
    // it (imageAtPath), else the object path.
    const std::string& ImagePath(const std::string& objectPathOfGroup) const
    {
        return imageAtPath ? PreviousPath(objectPathOfGroup) : objectPathOfGroup;
    }
};

} // namespace vantor::fim::internal
