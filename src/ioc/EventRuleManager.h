#pragma once

#include "edr/EventRuleEngine.h"
#include "ioc/Config.h"
#include "ioc/Rule.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::ioc::internal
{

// Holds the IOC policy made of the configured manifests and answers for it.
//
// Several manifests combine into one policy, read in the order of the
// configuration's list:
//  - each manifest is taken or refused as a whole (ManifestException); a
//    refused one is logged and the others still count;
//  - the rules add up in list order; a rule whose id an earlier rule already
//    has is logged and left out (the id names the rule in logs and in the
//    kernel);
//  - "knownProcessPaths" add up;
//  - every other setting ("policyId", "productId", "gateway_url",
//    "maxFileSizeToProcess", "sendMetadata", "tags", "heuristicsEnabled")
//    is taken from the last manifest that gives it, so a later manifest
//    overrides an earlier one. "maxFileSizeToProcess" also limits the typing
//    done by the file rules of its own manifest.
//
// The heuristics switch keeps its value across loads unless a manifest gives
// one. The policy is replaced whole, so readers on other threads always see
// one consistent policy. Thread-safe.
class EventRuleManager
{
public:
    using Rules = std::vector<std::shared_ptr<Rule>>;

    // The one process rule handed to the audit rule engine when several
    // process rules are loaded (it keeps one per tag).
    static constexpr const char* kMergedProcessRuleId = "ioc-process-rules";

    // Reads and combines the manifests; answers whether at least one loaded.
    // When none did, logs "EventRuleManager: Disabling EDR: " + the last
    // reason and holds no policy.
    bool LoadManifests(const std::vector<Ioc::Config::Manifest>& manifests);
    // Forgets the policy.
    void Clear();

    bool IsLoaded() const;
    bool HasGatewayUrl() const;
    // Throws std::runtime_error "EventRuleManager: Gateway URL does not exist"
    // when no loaded manifest gave one.
    std::string GetGatewayUrl() const;
    bool IsHeuristicsEnabled() const;
    bool IsSendMetadata() const;
    bool IsTaggingEnabled() const;
    uint64_t GetMaxFileSizeToProcess() const;
    std::vector<std::string> GetKnownProcessPaths() const;
    // The "tags" object as JSON text; empty when no manifest gave one.
    std::string GetTaggingSettings() const;
    std::string GetPolicyId() const;
    std::string GetProductId() const;

    // The rules of the policy, in order (for the filtering of events).
    std::shared_ptr<const Rules> GetRules() const;
    // What the kernel must report for the policy: the file, directory and
    // network rules, and one process rule (merged when there are several).
    edr::EventRuleEngine::Rules GetAuditRules() const;

private:
    struct Policy
    {
        std::string policyId;
        std::string productId;
        std::string gatewayUrl;
        uint64_t maxFileSizeToProcess = 0;
        bool sendMetadata = false;
        std::vector<std::string> knownProcessPaths;
        std::string tags;
        bool taggingEnabled = false;
        std::shared_ptr<Rules> rules = std::make_shared<Rules>();
    };

    static std::shared_ptr<const Policy> EmptyPolicy();
    std::shared_ptr<const Policy> Current() const;

    mutable std::mutex m_mutex;
    std::shared_ptr<const Policy> m_policy;
    bool m_heuristicsEnabled = false;
};

} // namespace vantor::ioc::internal
