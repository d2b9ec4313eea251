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
// event handler's event is gone once the handler returns, so this holds a
// copy of it, and the rule set whose rules it matched.
struct PendingDocument
{
    std::unique_ptr<edr::Event> event;
    std::shared_ptr<const EventRuleManager::RuleSet> ruleSet;
    // The rules that passed, in rule order; the document's action picks
    // among them.
    std::vector<const EventRule*> rules;
    edr::EventType type = edr::EventType::Create;
    // The path the document reports.
    std::string imagePath;
    // Where the object is now: its content is read there, and documents are
    // ordered and settled per this path. A rename's destination.
    std::string objectPath;
    // Whose last known state is the "before" of the document: the object
    // path, or a rename's source.
    std::string previousPath;
    // Destination of a rename, else empty.
    std::string newPath;
    bool isDirectory = false;
    // The document carries content or hash, or needs the settled content to
    // tell a content change from a change of timestamps.
    bool readsContent = false;
    // The object as the handler saw it; nothing when it was gone.
    std::optional<FileState> observed;
};

} // namespace vantor::fim::internal
