#include "fim/EventRuleManager.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "fim/EventRuleException.h"
#include "fim/ManifestException.h"

#include <rapidjson/error/en.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

namespace vantor::fim::internal
{

namespace
{

// A symlink directory is walked at most this far; a huge tree must not stall
// the loading of the manifest.
constexpr size_t kMaxSymlinkEntries = 10000;

const rapidjson::Value& Mandatory(const rapidjson::Value& object, const char* name)
{
    if (!object.IsObject())
    {
        throw ManifestException(std::string("Missing mandatory element: ") + name);
    }
    const auto it = object.FindMember(name);
    if (it == object.MemberEnd())
    {
        throw ManifestException(std::string("Missing mandatory element: ") + name);
    }
    return it->value;
}

} // namespace

EventRuleManager::EventRuleManager(edr::EventRuleEngine& ruleEngine, std::string tag)
    : m_ruleEngine(ruleEngine)
    , m_tag(std::move(tag))
    , m_rules(std::make_shared<RuleSet>())
{
}

EventRuleManager::~EventRuleManager() = default;

std::optional<std::string> EventRuleManager::LoadManifest(const std::string& path)
{
    std::string reason;
    std::shared_ptr<RuleSet> rules;
    std::string text;
    if (!util::ReadFile(path, text))
    {
        reason = "Failed to read manifest: " + path;
        EDR_LOG_ERROR(reason);
    }
    else
    {
        rapidjson::Document document;
        if (!util::ParseJson(document, text))
        {
            EDR_LOG_ERROR("Failed to parse manifest: "
                          << (document.HasParseError() ? rapidjson::GetParseError_En(document.GetParseError())
                                                       : "nested too deep")
                          << " (offset: " << document.GetErrorOffset() << ")");
            reason = "Invalid manifest json format for: " + path;
            EDR_LOG_ERROR(reason);
        }
        else
        {
            EDR_LOG_INFO("Successfully parsed manifest file");
            try
            {
                rules = std::make_shared<RuleSet>(ParseManifest(document, path));
            }
            catch (const ManifestException& e)
            {
                reason = e.what();
                EDR_LOG_ERROR(reason);
            }
        }
    }
    if (!reason.empty())
    {
        EDR_LOG_ERROR("EventRuleManager: Disabling FIM: " << reason);
        return reason;
    }

    std::vector<std::shared_ptr<EventRule>> resolved;
    for (const auto& rule : rules->rules)
    {
        EDR_LOG_INFO("Adding rule" << rule->GetId() << " with path" << rule->GetPath());
        if (rule->GetKind() == EventRule::Kind::Symlink)
        {
            EDR_LOG_INFO("Adding symlink rule");
            auto targets = ResolveSymlinks(*rule);
            if (targets.empty())
            {
                EDR_LOG_WARNING("Could not create any rules from symlink monitoring path");
            }
            resolved.insert(resolved.end(), targets.begin(), targets.end());
        }
    }
    rules->rules.insert(rules->rules.end(), resolved.begin(), resolved.end());
    Register(rules);
    return std::nullopt;
}

EventRuleManager::RuleSet EventRuleManager::ParseManifest(const rapidjson::Value& manifest,
                                                          const std::string& name)
{
    const auto& data = Mandatory(manifest, "data");
    const auto& fim = Mandatory(data, "fim");
    const auto& version = Mandatory(fim, "policyVersion");
    const auto& rulesJson = Mandatory(fim, "rules");
    if (!version.IsString() || std::string_view(version.GetString(), version.GetStringLength()) != "1.0")
    {
        const std::string text = version.IsString()
                                     ? std::string(version.GetString(), version.GetStringLength())
                                     : std::string("?");
        throw ManifestException("Unknown version [" + text + "] of FIM manifest. Skipping.");
    }
    if (!rulesJson.IsArray())
    {
        throw ManifestException("Parsing failed. 'rules' section is not an array.");
    }

    RuleSet set;
    const auto hashes = fim.FindMember("collectHashes");
    if (hashes != fim.MemberEnd())
    {
        if (hashes->value.IsBool())
        {
            set.collectHashes = hashes->value.GetBool();
        }
        else
        {
            EDR_LOG_ERROR("[" << name << "]: collectHashes is not boolean");
        }
    }

    for (const auto& ruleJson : rulesJson.GetArray())
    {
        EDR_LOG_DEBUG("Parsing Rule: ");
        try
        {
            set.rules.push_back(std::make_shared<EventRule>(ruleJson));
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Rule parsing failed: " << e.what());
        }
    }
    return set;
}

std::vector<std::shared_ptr<EventRule>> EventRuleManager::ResolveSymlinks(const EventRule& rule)
{
    namespace fs = std::filesystem;
    std::vector<std::shared_ptr<EventRule>> out;
    std::error_code ec;
    fs::recursive_directory_iterator it(rule.GetPath(), fs::directory_options::skip_permission_denied, ec);
    if (ec)
    {
        EDR_LOG_ERROR("Poco File Exception for " << rule.GetPath() << ": " << ec.message());
        return out;
    }
    size_t seen = 0;
    for (; it != fs::recursive_directory_iterator(); it.increment(ec))
    {
        if (ec || ++seen > kMaxSymlinkEntries)
        {
            break;
        }
        // Entries directly in the directory are depth 0.
        if (it.depth() > rule.GetRecursiveDepth())
        {
            it.disable_recursion_pending();
            continue;
        }
        if (!it->is_symlink(ec))
        {
            if (it.depth() >= rule.GetRecursiveDepth())
            {
                it.disable_recursion_pending();
            }
            continue;
        }
        const std::string link = it->path().string();
        char buffer[PATH_MAX];
        if (::realpath(link.c_str(), buffer) == nullptr)
        {
            EDR_LOG_WARNING("Cannot resolve symlink " << link);
            continue;
        }
        try
        {
            auto resolved = std::make_shared<EventRule>(rule, std::string(buffer));
            EDR_LOG_INFO("Adding resolved rule" << rule.GetRuleId() << " with path" << resolved->GetPath());
            out.push_back(std::move(resolved));
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Cannot create rule from resolved path " << buffer << ": " << e.what());
        }
    }
    return out;
}

void EventRuleManager::Register(const std::shared_ptr<const RuleSet>& rules)
{
    {
        std::lock_guard lock(m_mutex);
        m_rules = rules;
    }
    try
    {
        m_ruleEngine.DeleteRules(m_tag);
        if (rules->rules.empty())
        {
            EDR_LOG_WARNING("EventRuleManager: No rules to be added.");
            return;
        }
        m_ruleEngine.AddRules(edr::EventRuleEngine::Rules(rules->rules.begin(), rules->rules.end()), m_tag);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("EventRuleManager: Failed to register rules: " << e.what());
    }
}

std::shared_ptr<const EventRuleManager::RuleSet> EventRuleManager::GetRules() const
{
    std::lock_guard lock(m_mutex);
    return m_rules;
}

void EventRuleManager::Clear()
{
    {
        std::lock_guard lock(m_mutex);
        m_rules = std::make_shared<RuleSet>();
    }
    try
    {
        m_ruleEngine.DeleteRules(m_tag);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("EventRuleManager: Failed to delete rules: " << e.what());
    }
}

void EventRuleManager::OnInvalidated()
{
    const auto rules = GetRules();
    EDR_LOG_INFO("EventRuleManager: Rules were invalidated, adding them again");
    if (rules->rules.empty())
    {
        return;
    }
    try
    {
        m_ruleEngine.AddRules(edr::EventRuleEngine::Rules(rules->rules.begin(), rules->rules.end()), m_tag);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("EventRuleManager: Failed to register rules: " << e.what());
    }
}

} // namespace vantor::fim::internal
