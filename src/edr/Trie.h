#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace vantor::edr
{

// Maps absolute file-system paths to the tags that watch them. A tag attached
// to a directory covers everything below it, so a lookup answers the union of
// the tags on every prefix of the path. Paths are split on "/" and empty
// components are dropped, so "/var//log" and "/var/log" are the same node.
// Nothing is matched by pattern here; watchers filter further themselves.
//
// Not thread-safe: the owner (the audit event router) locks around it.
class Trie
{
public:
    using Values = std::unordered_set<std::string>;

    Trie();
    ~Trie();

    Trie(const Trie&) = delete;
    Trie& operator=(const Trie&) = delete;

    // Throws std::runtime_error for a path that is empty or not absolute, and
    // for an empty tag.
    void Insert(std::string_view path, const std::string& value);

    // Removes the tag from the path's node and prunes nodes left with neither
    // tags nor children. Answers whether the tag was there. Same checks as
    // Insert.
    bool Delete(std::string_view path, const std::string& value);

    // Tags of the root and of every node along the path.
    Values GetValues(std::string_view path) const;
    // Whether GetValues would answer any tag; builds no set. Same checks.
    bool HasValues(std::string_view path) const;

    // Number of nodes below the root; lets callers see that deletes prune.
    size_t GetNodeCount() const;

private:
    struct StringHash
    {
        using is_transparent = void;
        size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
    };

    struct Node
    {
        std::unordered_map<std::string, std::unique_ptr<Node>, StringHash, std::equal_to<>> children;
        Values values;
    };

    // Visits the root and each node along the path, as long as visit answers
    // true; answers whether the walk went to its end (the last node found, or
    // no child for the next component) rather than being stopped. Throws, as
    // caller, for a path that is empty or not absolute. Defined where it is
    // used: visit is inlined (a lookup is asked of every file event).
    template <typename Visit>
    bool Walk(std::string_view path, const char* caller, Visit&& visit) const;

    std::unique_ptr<Node> m_root;
};

} // namespace vantor::edr
