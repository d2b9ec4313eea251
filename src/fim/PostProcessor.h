#pragma once

#include "edr/Event.h"
#include "fim/EventRule.h"

#include <string>

namespace vantor::fim::internal
{

// The full check of an event against one FIM rule whose path covers it
// (the engine routes by path alone): the depth below the rule's directory,
// the exclusion filters, the inclusion filters and the notify actions.
//
// Stateless; callable from any thread.
class PostProcessor
{
public:
    // Whether the event at path (the event's path, or a rename's destination)
    // still matches the rule. Logs why a rule fails.
    static bool Passes(const EventRule& rule, const edr::Event& event, const std::string& path,
                       bool isDirectory);

    // The check of a file found on disk by the baseline pass: the rule's
    // path covers it within the rule's depth, and the path parts of the
    // filters let it through (a filter that also asks about the actor or
    // the time cannot exclude a file that no actor touched).
    static bool PassesForBaseline(const EventRule& rule, const std::string& path, bool isDirectory);

    // Depth of path below the rule's directory: 0 for an entry directly in
    // it, 1 one directory further down, ...; -1 for the directory itself
    // and for paths outside it.
    static int PathDepth(const std::string& rulePath, const std::string& path);

    // Whether the rule's path is the path or a directory above it.
    static bool Covers(const EventRule& rule, const std::string& path);

private:
    // Whether one of the notify codes may answer to the event type; which
    // one does is settled when the document is built.
    static bool ActionMatches(edr::EventType type, const edr::EventRule::ActionSet& notify);
};

} // namespace vantor::fim::internal
