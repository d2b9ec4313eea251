#include "edr/Trie.h"

#include "common/Logging.h"

#include <stdexcept>
#include <utility>
#include <vector>

namespace vantor::edr
{

namespace
{

bool IsValidPath(std::string_view path)
{
    return !path.empty() && path.front() == '/';
}

// Hands out the components of a path one at a time, skipping empty ones.
class PathComponents
{
public:
    explicit PathComponents(std::string_view path)
        : m_rest(path)
    {
    }

    bool Next(std::string_view& component)
    {
        const size_t start = m_rest.find_first_not_of('/');
        if (start == std::string_view::npos)
        {
            m_rest = {};
            return false;
        }
        m_rest.remove_prefix(start);
        const size_t end = m_rest.find('/');
        component = m_rest.substr(0, end);
        m_rest.remove_prefix(end == std::string_view::npos ? m_rest.size() : end);
        return true;
    }

private:
    std::string_view m_rest;
};

} // namespace

Trie::Trie()
    : m_root(std::make_unique<Node>())
{
}

Trie::~Trie()
{
    // Tear the tree down iteratively: a rule path with very many components
    // must not turn into as many nested destructor calls.
    std::vector<std::unique_ptr<Node>> pending;
    pending.push_back(std::move(m_root));
    while (!pending.empty())
    {
        std::unique_ptr<Node> node = std::move(pending.back());
        pending.pop_back();
        for (auto& [name, child] : node->children)
        {
            pending.push_back(std::move(child));
        }
    }
}

void Trie::Insert(std::string_view path, const std::string& value)
{
    if (!IsValidPath(path))
    {
        throw std::runtime_error("Trie::Insert: path is empty or invalid");
    }
    if (value.empty())
    {
        throw std::runtime_error("Trie::Insert: value is empty");
    }
    Node* node = m_root.get();
    PathComponents components(path);
    std::string_view component;
    while (components.Next(component))
    {
        auto it = node->children.find(component);
        if (it == node->children.end())
        {
            it = node->children.emplace(std::string(component), std::make_unique<Node>()).first;
        }
        node = it->second.get();
    }
    node->values.insert(value);
}

bool Trie::Delete(std::string_view path, const std::string& value)
{
    if (!IsValidPath(path))
    {
        throw std::runtime_error("Trie::Delete: path is empty or invalid");
    }
    if (value.empty())
    {
        throw std::runtime_error("Trie::Delete: value is empty");
    }

    // The walked nodes with the component that leads to each of them, so that
    // emptied nodes can be pruned bottom-up afterwards.
    std::vector<std::pair<Node*, std::string_view>> walked;
    Node* node = m_root.get();
    PathComponents components(path);
    std::string_view component;
    while (components.Next(component))
    {
        auto it = node->children.find(component);
        if (it == node->children.end())
        {
            EDR_LOG_WARNING("Trie::Delete: Failed to find the value '" << value << "' in path: " << path);
            return false;
        }
        walked.emplace_back(node, component);
        node = it->second.get();
    }

    if (node->values.erase(value) == 0)
    {
        EDR_LOG_WARNING("Trie::Delete: Failed to find value '" << value << "' with tag: " << value);
        return false;
    }
    EDR_LOG_DEBUG("Trie::Delete: Deleted tag '" << value << "' from " << path);

    while (!walked.empty())
    {
        auto [parent, key] = walked.back();
        auto child = parent->children.find(key);
        if (!child->second->values.empty() || !child->second->children.empty())
        {
            break;
        }
        // The prefix of the path that leads to this node, as it was given.
        const std::string_view nodePath =
            path.substr(0, static_cast<size_t>(key.data() - path.data()) + key.size());
        EDR_LOG_DEBUG("Trie::Delete: Deleted node at " << nodePath);
        parent->children.erase(child);
        walked.pop_back();
    }
    return true;
}

template <typename Visit>
bool Trie::Walk(std::string_view path, const char* caller, Visit&& visit) const
{
    if (!IsValidPath(path))
    {
        throw std::runtime_error(std::string(caller) + ": path is empty or invalid");
    }
    const Node* node = m_root.get();
    PathComponents components(path);
    std::string_view component;
    for (;;)
    {
        if (!visit(*node))
        {
            return false;
        }
        if (!components.Next(component))
        {
            return true;
        }
        const auto it = node->children.find(component);
        if (it == node->children.end())
        {
            return true;
        }
        node = it->second.get();
    }
}

Trie::Values Trie::GetValues(std::string_view path) const
{
    Values result;
    result.max_load_factor(1.0F);
    Walk(path, "Trie::GetValues",
         [&](const Node& node)
         {
             result.insert(node.values.begin(), node.values.end());
             return true;
         });
    return result;
}

bool Trie::HasValues(std::string_view path) const
{
    // The walk stops at the first node with a tag.
    return !Walk(path, "Trie::HasValues", [](const Node& node) { return node.values.empty(); });
}

size_t Trie::GetNodeCount() const
{
    size_t count = 0;
    std::vector<const Node*> pending{m_root.get()};
    while (!pending.empty())
    {
        const Node* node = pending.back();
        pending.pop_back();
        for (const auto& [name, child] : node->children)
        {
            ++count;
            pending.push_back(child.get());
        }
    }
    return count;
}

} // namespace vantor::edr
