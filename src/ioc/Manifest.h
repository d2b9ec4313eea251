#pragma once

#include "ioc/Rule.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::ioc::internal
{

// One IOC manifest as read: its identity, its "globalSettings", its rules and
// its heuristics switch. Settings the manifest leaves out (or gives with the
// wrong type) stay empty, so that whoever combines manifests can tell them
// from values that were given.
//
// Reading order and texts:
//  - the document must be a JSON object ("Parsing failed. Manifest is not a
//    JSON object"); "policyVersion", "policyId", "productId" (strings) and
//    "globalSettings" (an object) must be present ("Missing mandatory
//    element: " + name, also for a member of the wrong type);
//  - the version is checked against "2.0.0" (CheckVersion);
//  - "globalSettings": "gateway_url", "maxFileSizeToProcess", "sendMetadata",
//    "knownProcessPaths", "tags";
//  - "rules" must be an array ("Parsing failed. 'rules' section is not an
//    array."), each rule an object with a string "ruleType" ("Parsing failed.
//    'rule' section does not contain ruleType as string"); a rule of another
//    type, or one its class refuses, is logged and skipped;
//  - "heuristicsEnabled" when it is a boolean.
struct Manifest
{
    static constexpr const char* kSupportedVersion = "2.0.0";
    // Larger files are not typed (nor, later, hashed).
    static constexpr uint64_t kDefaultMaxFileSizeToProcess = 50ULL * 1024 * 1024;

    std::string policyVersion;
    std::string policyId;
    std::string productId;
    std::optional<std::string> gatewayUrl;
    std::optional<uint64_t> maxFileSizeToProcess;
    std::optional<bool> sendMetadata;
    std::vector<std::string> knownProcessPaths;
    // The "tags" object as JSON text, for the tagging engine.
    std::optional<std::string> tags;
    bool taggingEnabled = false;
    std::vector<std::shared_ptr<Rule>> rules;
    std::optional<bool> heuristicsEnabled;

    // Throws ManifestException with the texts above.
    static Manifest Parse(std::string_view text);

    // Both versions are split at their first "." into a major and a minor
    // number (the minor's conversion stops at the next "."; without a dot the
    // major is 0 and the whole text is the minor). The manifest is refused
    // when the supported minor is greater than its minor; the majors are
    // deliberately not compared. Throws ManifestException "Parsing failed.
    // Unsupported manifest version provided", or "Exception in converting
    // manifest policyVersion to integer, error: " + reason.
    static void CheckVersion(const std::string& version);

private:
    void ReadGlobalSettings(const rapidjson::Value& settings);
    void ReadKnownProcessPaths(const rapidjson::Value& settings);
    void ReadTags(const rapidjson::Value& settings);
    void ReadRules(const rapidjson::Value& rules);
};

} // namespace vantor::ioc::internal
