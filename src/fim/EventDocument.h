#pragma once

#include "edr/Event.h"
#include "fim/ContentReader.h"
#include "fim/EventRule.h"
#include "fim/FileState.h"
#include "fim/RuleList.h"

#include <optional>
#include <string>
#include <vector>

namespace vantor::fim::internal
{

// Builds the JSON event document of one event: "successStatus",
// "timestamp", "eventId", "eventAction", "eventClass", "eventType",
// "imagePath", then "fileContentHash" (when hashes are collected),
// "fileContent" and "contentStatus" (when a rule tracks content),
// "operation", "securitySettings" (metadata and security-setting changes),
// "associatedRules" and "actor".
//
// "operation" holds the old and new path of a rename, otherwise the old
// and new size; "securitySettings" the old and new permission, owner and
// group. Old values come from the last known state of the object, new ones
// from its state after the change; what is not known is "Unknown". Paths
// are written in the escaped form of PathEscape.
//
// Stateless and without I/O but account lookups; callable from any thread.
class EventDocument
{
public:
    struct Input
    {
        std::string path; // "imagePath"
        bool isDirectory = false;
        std::vector<const EventRule*> rules; // those that passed, in order
        bool collectHashes = false;
        std::string action;
        // Both set for a rename.
        std::string oldPath;
        std::string newPath;
        std::optional<FileState> before;
        std::optional<FileState> after;
        // Content read for the document; null when nothing was read.
        const ContentReader::Content* content = nullptr;
    };

    // Throws when a mandatory field of the event (success, time, id) cannot
    // be read; other fields that cannot be read are written as "Unknown".
    static std::string Build(const edr::Event& event, const Input& input);

    // The notify word of an event type when nothing tells more; for an
    // attribute change it depends on which of the two words the matching
    // rules asked for.
    static std::string ActionWord(edr::EventType type, const RuleList& rules);

    // The notify code of a notify word; 0 for another word.
    static EventRule::Action NotifyCode(const std::string& word);

    // The text form of a permission: four octal digits ("0644").
    static std::string Permission(uint32_t mode);
};

} // namespace vantor::fim::internal
