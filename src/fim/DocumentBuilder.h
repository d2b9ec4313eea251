#pragma once

#include "fim/ContentReader.h"
#include "fim/EventRule.h"
#include "fim/FileStateStore.h"
#include "fim/PendingDocuments.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vantor::fim::internal
{

// Turns settled events into documents and keeps the last known state of
// each object in the store.
//
// For a group of one object path it reads the object once (content and
// hash as the rules ask), then builds each document in order: its "before"
// is the stored state for the first one (or the source of a rename) and the
// state the handler saw at the previous event for the others; its "after"
// is the settled state when the document reads content, otherwise the state
// the handler saw. The action word is settled here:
// - an open for writing whose content hash is unchanged is a change of
//   timestamps alone, "modifyMetadata"; an unknown hash counts as a content
//   change, "modifyContent";
// - an attribute change that left permission, owner and group as they were
//   but moved the modification time is "modifyMetadata"; otherwise the word
//   the rules ask for (EventDocument::ActionWord).
// Only rules whose notify list holds the word are associated; with none,
// there is no document. The last state of the group is stored (removed for
// a delete, moved for a rename).
//
// Used by one thread at a time (the document thread, or the caller once
// that has stopped).
class DocumentBuilder
{
public:
    using DocumentSink = std::function<void(std::string document)>;

    // The largest file hashed only to tell a content change from a change
    // of timestamps (hashes asked for by the manifest have no limit).
    static constexpr uint64_t kMaxCompareHashSize = 16 * 1024 * 1024;

    // The store must outlive the builder.
    DocumentBuilder(FileStateStore& store, DocumentSink sink);

    void BuildGroup(PendingDocuments::Group& group);
    // Runs builds (calls of BuildGroup) with their store statements in one
    // transaction; a failure of the store leaves the documents to show what
    // is not known as "Unknown".
    void InOneTransaction(const std::function<void()>& builds) { m_store.RunInTransaction(builds); }

    // The baseline document of one file, with its state and content status
    // stored; rules are those that reach the file.
    void BuildBaseline(const std::string& path, const std::vector<const EventRule*>& rules,
                       bool collectHashes);

    // Reads what the rules ask of the file at path: content when a rule
    // tracks it, the hash when hashes are collected or a rule reports
    // metadata changes (then only up to kMaxCompareHashSize, judged by
    // observed, the object's state just taken).
    static ContentReader::Content ReadFor(const std::string& path, const std::vector<const EventRule*>& rules,
                                          bool collectHashes, const std::optional<FileState>& observed);

    // Objects whose content could not be read when a document needed it
    // (the document says READ_FAILURE), and documents that could not be
    // built (logged, and lost); readable from any thread.
    uint64_t GetUnreadableCount() const { return m_unreadable.load(std::memory_order_relaxed); }
    uint64_t GetFailedCount() const { return m_failed.load(std::memory_order_relaxed); }

    // The state with the hash of content, when it has one.
    static std::optional<FileState> WithHash(std::optional<FileState> state,
                                             const ContentReader::Content& content);

private:
    void BuildOne(const PendingDocument& document, const std::string& objectPath,
                  const std::optional<FileState>& before, const std::optional<FileState>& after,
                  const ContentReader::Content* content);
    static std::string ActionOf(const PendingDocument& document, const std::optional<FileState>& before,
                                const std::optional<FileState>& after);

    // Counts a content that could not be read.
    void CountRead(const ContentReader::Content& content);

    FileStateStore& m_store;
    DocumentSink m_sink;
    std::atomic<uint64_t> m_unreadable{0};
    std::atomic<uint64_t> m_failed{0};
};

} // namespace vantor::fim::internal
