#include "ioc/EventRuleManager.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "ioc/Manifest.h"
#include "ioc/ManifestException.h"
#include "ioc/ProcessRule.h"

#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>

namespace vantor::ioc::internal
{

bool EventRuleManager::LoadManifests(const std::vector<Ioc::Config::Manifest>& manifests)
{
    auto policy = std::make_shared<Policy>();
    policy->maxFileSizeToProcess = Manifest::kDefaultMaxFileSizeToProcess;
    std::optional<bool> heuristics;
    std::set<std::string> ids;
    std::string reason = "No manifest is configured";
    size_t loaded = 0;
    for (const auto& entry : manifests)
    {
        EDR_LOG_INFO("EventRuleManager: Loading manifest " << entry.path << " (type '" << entry.type << "')");
        Manifest manifest;
        try
        {
            std::string text;
            if (!util::ReadFile(entry.path, text))
            {
                throw ManifestException("Failed to read manifest file: " + entry.path);
            }
            manifest = Manifest::Parse(text);
        }
        catch (const ManifestException& e)
        {
            reason = e.what();
            EDR_LOG_ERROR("EventRuleManager: Manifest " << entry.path << " refused: " << reason);
            continue;
        }
        ++loaded;
        policy->policyId = manifest.policyId;
        policy->productId = manifest.productId;
        if (manifest.gatewayUrl)
        {
            policy->gatewayUrl = *manifest.gatewayUrl;
        }
        policy->maxFileSizeToProcess = manifest.maxFileSizeToProcess.value_or(policy->maxFileSizeToProcess);
        policy->sendMetadata = manifest.sendMetadata.value_or(policy->sendMetadata);
        if (manifest.tags)
        {
            policy->tags = *manifest.tags;
            policy->taggingEnabled = manifest.taggingEnabled;
        }
        for (auto& path : manifest.knownProcessPaths)
        {
            if (std::find(policy->knownProcessPaths.begin(), policy->knownProcessPaths.end(), path) ==
                policy->knownProcessPaths.end())
            {
                policy->knownProcessPaths.push_back(std::move(path));
            }
        }
        for (auto& rule : manifest.rules)
        {
            if (!ids.insert(rule->GetId()).second)
            {
                EDR_LOG_ERROR("EventRuleManager: Skipping rule " << rule->GetId() << " of " << entry.path
                                                                 << ": an earlier rule has the same id");
                continue;
            }
            policy->rules->push_back(std::move(rule));
        }
        if (manifest.heuristicsEnabled)
        {
            heuristics = manifest.heuristicsEnabled;
        }
    }

    std::lock_guard lock(m_mutex);
    if (loaded == 0)
    {
        EDR_LOG_ERROR("EventRuleManager: Disabling EDR: " << reason);
        m_policy.reset();
        return false;
    }
    m_heuristicsEnabled = heuristics.value_or(m_heuristicsEnabled);
    m_policy = std::move(policy);
    EDR_LOG_INFO("EventRuleManager: Loaded " << loaded << " of " << manifests.size() << " manifests with "
                                             << m_policy->rules->size() << " rules");
    return true;
}

void EventRuleManager::Clear()
{
    std::lock_guard lock(m_mutex);
    m_policy.reset();
}

std::shared_ptr<const EventRuleManager::Policy> EventRuleManager::EmptyPolicy()
{
    static const auto empty = []
    {
        auto policy = std::make_shared<Policy>();
        policy->maxFileSizeToProcess = Manifest::kDefaultMaxFileSizeToProcess;
        return policy;
    }();
    return empty;
}

std::shared_ptr<const EventRuleManager::Policy> EventRuleManager::Current() const
{
    std::lock_guard lock(m_mutex);
    return m_policy ? m_policy : EmptyPolicy();
}

bool EventRuleManager::IsLoaded() const
{
    std::lock_guard lock(m_mutex);
    return m_policy != nullptr;
}

bool EventRuleManager::HasGatewayUrl() const
{
    return !Current()->gatewayUrl.empty();
}

std::string EventRuleManager::GetGatewayUrl() const
{
    const auto policy = Current();
    if (policy->gatewayUrl.empty())
    {
        throw std::runtime_error("EventRuleManager: Gateway URL does not exist");
    }
    return policy->gatewayUrl;
}

bool EventRuleManager::IsHeuristicsEnabled() const
{
    std::lock_guard lock(m_mutex);
    return m_heuristicsEnabled;
}

bool EventRuleManager::IsSendMetadata() const
{
    return Current()->sendMetadata;
}

bool EventRuleManager::IsTaggingEnabled() const
{
    return Current()->taggingEnabled;
}

uint64_t EventRuleManager::GetMaxFileSizeToProcess() const
{
    return Current()->maxFileSizeToProcess;
}

std::vector<std::string> EventRuleManager::GetKnownProcessPaths() const
{
    return Current()->knownProcessPaths;
}

std::string EventRuleManager::GetTaggingSettings() const
{
    return Current()->tags;
}

std::string EventRuleManager::GetPolicyId() const
{
    return Current()->policyId;
}

std::string EventRuleManager::GetProductId() const
{
    return Current()->productId;
}

std::shared_ptr<const EventRuleManager::Rules> EventRuleManager::GetRules() const
{
    const auto policy = Current();
    // Shares the policy's ownership: the rules live as long as the answer.
    return {policy, policy->rules.get()};
}

edr::EventRuleEngine::Rules EventRuleManager::GetAuditRules() const
{
    const auto rules = GetRules();
    edr::EventRuleEngine::Rules audit;
    std::vector<std::shared_ptr<const ProcessRule>> processRules;
    for (const auto& rule : *rules)
    {
        switch (rule->GetType())
        {
        case edr::EventRule::FilePathRule:
        case edr::EventRule::DirectoryPathRule:
        case edr::EventRule::NetworkRule:
            audit.push_back(rule);
            break;
        case edr::EventRule::ProcessRule:
            processRules.push_back(std::static_pointer_cast<const ProcessRule>(rule));
            break;
        default:
            break; // whitelist rules need no kernel rule
        }
    }
    if (processRules.size() == 1)
    {
        audit.push_back(std::const_pointer_cast<ProcessRule>(processRules.front()));
    }
    else if (processRules.size() > 1)
    {
        audit.push_back(ProcessRule::Merge(kMergedProcessRuleId, processRules));
    }
    return audit;
}

} // namespace vantor::ioc::internal
