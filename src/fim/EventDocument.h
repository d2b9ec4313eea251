#pragma once

#include "edr/Event.h"
#include "fim/ContentReader.h"
#include "fim/EventRule.h"

#include <string>
#include <vector>

namespace vantor::fim::internal
{

// Builds the JSON event document of one event: "successStatus",
// "timestamp", "eventId", "eventAction", "eventClass", "eventType",
// "imagePath", then "fileContentHash" (when hashes are collected),
// "fileContent" and "contentStatus" (when a rule tracks content),
// "operation", "securitySettings" (attribute changes), "associatedRules"
// and "actor". Strings that are not valid UTF-8 are written with U+FFFD in
// place of the invalid bytes.
//
// Stateless; callable from any thread.
class EventDocument
{
public:
    struct Input
    {
        std::string path;
        bool isDirectory = false;
        std::vector<const EventRule*> rules; // those that passed, in order
        bool collectHashes = false;
        std::string action;
    };

    // Throws when a mandatory field of the event (success, time, id) cannot
    // be read; other fields that cannot be read are written as "Unknown".
    // content: already read (baseline pass), or null to read the file here
    // when a rule tracks content or hashes are collected.
    static std::string Build(const edr::Event& event, const Input& input,
                             const ContentReader::Content* content = nullptr);

    // The notify word of an event type; for an attribute change it depends
    // on which of the two words the matching rules asked for.
    static std::string ActionWord(edr::EventType type, const std::vector<const EventRule*>& rules);
};

} // namespace vantor::fim::internal
