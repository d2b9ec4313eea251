#pragma once

#include "fim/PendingDocument.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vantor::fim::internal
{

// The documents that wait for their object to settle, grouped per object
// path. A group is due a settle time after the last document that asked to
// settle (a writer is then most likely done), but no later than
// kMaxHoldFactor settle times after its first document, so that a file
// written without pause is still reported. A document that does not settle
// joins its path's group (documents of one path keep their order) without
// delaying it. Groups are taken whole, in the order they fall due.
//
// Not thread-safe; DocumentThread guards it.
class PendingDocuments
{
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int kMaxHoldFactor = 10;

    struct Group
    {
        std::string objectPath;
        std::vector<PendingDocument> documents;
    };

    void Add(PendingDocument document, bool settles, Clock::time_point now, Clock::duration settleTime);

    // The group that fell due first, if its time has come by now.
    std::optional<Group> TakeDue(Clock::time_point now);
    // The group that falls due first, whatever its time.
    std::optional<Group> TakeFirst();

    // When the first group falls due.
    std::optional<Clock::time_point> NextDue() const;

    size_t Size() const { return m_size; }
    bool Empty() const { return m_size == 0; }

private:
    struct Pending
    {
        std::vector<PendingDocument> documents;
        Clock::time_point first;
        Clock::time_point due;
        uint64_t sequence = 0;
    };

    using DueKey = std::pair<Clock::time_point, uint64_t>;
    using Groups = std::map<std::string, Pending>;

    Group Take();

    Groups m_groups;
    // (due, sequence) -> group: the order groups fall due; the sequence keeps
    // groups of equal due time in arrival order. Map iterators stay valid
    // until their group is taken.
    std::map<DueKey, Groups::iterator> m_byDue;
    uint64_t m_sequence = 0;
    size_t m_size = 0;
};

} // namespace vantor::fim::internal
