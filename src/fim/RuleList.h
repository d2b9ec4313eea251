#pragma once

#include "fim/EventRule.h"

#include <cstddef>
#include <initializer_list>
#include <vector>

namespace vantor::fim::internal
{

// The rules that a waiting document matched, in rule order. Most documents
// match one rule, which is held without a heap block; more are held in one
// vector.
//
// Not thread-safe.
class RuleList
{
public:
    RuleList() = default;
    RuleList(std::initializer_list<const EventRule*> rules)
    {
        for (const EventRule* rule : rules)
        {
            push_back(rule);
        }
    }

    void push_back(const EventRule* rule)
    {
        if (m_many.empty() && m_one == nullptr)
        {
            m_one = rule;
            return;
        }
        if (m_many.empty())
        {
            m_many.push_back(m_one);
        }
        m_many.push_back(rule);
    }

    const EventRule* const* begin() const { return m_many.empty() ? &m_one : m_many.data(); }
    const EventRule* const* end() const { return begin() + size(); }
    size_t size() const { return m_many.empty() ? (m_one != nullptr ? 1 : 0) : m_many.size(); }
    bool empty() const { return size() == 0; }

private:
    // The only rule; with more, they are all in m_many.
    const EventRule* m_one = nullptr;
    std::vector<const EventRule*> m_many;
};

} // namespace vantor::fim::internal
