#pragma once

#include "edr/Event.h"
#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/EventRuleManager.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vantor::common
{
class SpoolStorage;
class SqlStorage;
} // namespace vantor::common

namespace vantor::fim::internal
{

// The FIM rule-matched handler: re-checks the event against every FIM rule
// whose path covers it, turns an event that still matches into one JSON
// event document and queues it to the spool. Events of the baseline kind run
// the baseline pass instead.
//
// Called on the event processing thread (and for a baseline on the caller's
// thread); it keeps nothing between calls.
class EventProcessor
{
public:
    // Event category of the baseline pseudo event.
    static constexpr uint32_t kBaselineCategory = 15;
    // Largest content (bytes) put into a document; the limit is inclusive.
    static constexpr uint64_t kMaxContentSize = 51200;

    enum class ContentStatus
    {
        ReadSuccessful,
        ReadFailure,
        MaxSizeLimitReached
    };

    struct Content
    {
        ContentStatus status = ContentStatus::ReadFailure;
        uint64_t size = 0;
        std::string data;   // only when asked for and within the limit
        std::string sha256; // lower-case hex; only when asked for and read whole
    };

    // The manager and the spool must outlive the processor; baseline may be
    // null (no baseline store).
    EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                   common::SqlStorage* baseline);
    ~EventProcessor();

    EventProcessor(const EventProcessor&) = delete;
    EventProcessor& operator=(const EventProcessor&) = delete;

    void HandleEvent(edr::Event& event);

    // Post-processing of one rule: depth, exclusions, inclusions, actions.
    static bool PostProcess(const EventRule& rule, const edr::Event& event, const std::string& path,
                            bool isDirectory);

    // Depth of path below the rule's directory: 0 for an entry directly in
    // it, 1 one directory further down, ...; -1 for the directory itself
    // and for paths outside it.
    static int PathDepth(const std::string& rulePath, const std::string& path);

    // Whether the rule's path is the path or a directory above it.
    static bool Covers(const EventRule& rule, const std::string& path);

    // The event document; throws when a mandatory field of the event cannot
    // be read. Strings that are not valid UTF-8 are written with U+FFFD in
    // place of the invalid bytes.
    struct DocumentInput
    {
        std::string path;
        bool isDirectory = false;
        std::vector<const EventRule*> rules; // those that passed, in order
        bool collectHashes = false;
        std::string action;
    };
    // content: already read (baseline pass), or null to read it here when a
    // rule tracks content or hashes are collected.
    static std::string BuildDocument(const edr::Event& event, const DocumentInput& input,
                                     const Content* content = nullptr);

    // Reads a file once for its content (up to the limit) and/or its
    // SHA-256; never follows a final symlink.
    static Content ReadContent(const std::string& path, bool wantData, bool wantHash);

    static const char* ContentStatusText(ContentStatus status);

    // The notify word of an event type; for an attribute change it depends
    // on which of the two words the matching rules asked for.
    static std::string ActionWord(edr::EventType type, const std::vector<const EventRule*>& rules);

private:
    void RunBaseline(const edr::Event& event);
    using EventManagerRuleSet = EventRuleManager::RuleSet;
    void BaselineFile(const std::string& path, const edr::Event& event, const EventManagerRuleSet& rules);
    void Spool(std::string document);

    const EventRuleManager& m_ruleManager;
    common::SpoolStorage& m_spool;
    common::SqlStorage* m_baseline;
    BaselineEventSqlDataFormatter m_baselineFormatter;
};

} // namespace vantor::fim::internal
