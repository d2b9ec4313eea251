#pragma once

#include "edr/EventRule.h"

#include <memory>
#include <string>
#include <vector>

namespace vantor::test
{

class TestRule : public edr::EventRule
{
public:
    TestRule(std::string id, uint32_t type, std::vector<std::string> paths, ActionSet actions,
             ActionSet directoryActions = {})
        : m_id(std::move(id))
        , m_type(type)
        , m_paths(std::move(paths))
        , m_actions(std::move(actions))
        , m_directoryActions(std::move(directoryActions))
    {
    }

    const std::string& GetId() const override { return m_id; }
    uint32_t GetType() const override { return m_type; }
    std::vector<std::string> GetPaths() const override { return m_paths; }
    const ActionSet& GetActions() const override { return m_actions; }
    const ActionSet& GetDirectoryActions() const override { return m_directoryActions; }

private:
    std::string m_id;
    uint32_t m_type;
    std::vector<std::string> m_paths;
    ActionSet m_actions;
    ActionSet m_directoryActions;
};

inline std::shared_ptr<edr::EventRule> MakeRule(std::string id, uint32_t type, std::vector<std::string> paths,
                                                edr::EventRule::ActionSet actions,
                                                edr::EventRule::ActionSet directoryActions = {})
{
    return std::make_shared<TestRule>(std::move(id), type, std::move(paths), std::move(actions),
                                      std::move(directoryActions));
}

} // namespace vantor::test
