#include "ioc/TaggingEngine.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "edr/Event.h"
#include "ioc/CredentialAccessTag.h"
#include "ioc/DefenseEvasionTag.h"
#include "ioc/EventFields.h"
#include "ioc/ExecutionTag.h"
#include "ioc/ExfiltrationTag.h"
#include "ioc/PersistenceTag.h"
#include "ioc/PrivilegeEscalationTag.h"
#include "ioc/TtlProcessTree.h"

#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

namespace vantor::ioc::internal
{

namespace
{

// "<executable name> (<pid>)" as the tag lines name a process.
std::string Describe(const ProcessInfo& process)
{
    const auto slash = process.image.path.rfind('/');
    return process.image.path.substr(slash == std::string::npos ? 0 : slash + 1) + " (" +
           std::to_string(process.pid) + ")";
}

bool DebugEnabled()
{
    return common::Logging::Edr().is(Poco::Message::PRIO_DEBUG);
}

} // namespace

TaggingEngine::TaggingEngine(TtlProcessTree& tree)
    : m_tree(tree)
    , m_tags{std::make_unique<CredentialAccessTag>(), std::make_unique<DefenseEvasionTag>(),
             std::make_unique<ExecutionTag>(),        std::make_unique<ExfiltrationTag>(),
             std::make_unique<PersistenceTag>(),      std::make_unique<PrivilegeEscalationTag>()}
{
}

TaggingEngine::~TaggingEngine() = default;

bool TaggingEngine::IsEnabled() const
{
    return m_enabled;
}

uint64_t TaggingEngine::GetThreshold() const
{
    return m_threshold;
}

bool TaggingEngine::ApplySettings(const std::string& tagsJson)
{
    rapidjson::Document tags;
    if (tagsJson.empty() || !util::ParseJson(tags, tagsJson))
    {
        std::lock_guard lock(m_mutex);
        if (!tagsJson.empty())
        {
            EDR_LOG_ERROR("Failed to apply tag settings: invalid JSON");
        }
        m_enabled = false;
        return false;
    }
    return ApplySettings(tags);
}

bool TaggingEngine::ApplySettings(const rapidjson::Value& tags)
{
    std::lock_guard lock(m_mutex);
    try
    {
        m_enabled = ApplyLocked(tags);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Failed to apply tag settings: " << e.what());
        m_enabled = false;
    }
    return m_enabled;
}

bool TaggingEngine::ApplyLocked(const rapidjson::Value& tags)
{
    if (!tags.IsObject())
    {
        EDR_LOG_ERROR("Failed to apply tag settings: 'tags' is not an object");
        return false;
    }
    const auto threshold = tags.FindMember("thresholdScore");
    if (threshold == tags.MemberEnd())
    {
        EDR_LOG_ERROR("Tag settings does not have threshold score");
        return false;
    }
    if (!threshold->value.IsUint64())
    {
        EDR_LOG_ERROR("Threshold score is not an integer");
        return false;
    }
    if (threshold->value.GetUint64() == 0)
    {
        EDR_LOG_INFO("Tag score threshold is 0. Disabling tagging ...");
        return false;
    }
    m_threshold = threshold->value.GetUint64();
    for (const auto& tag : m_tags)
    {
        const auto member = tags.FindMember(tag->Name().c_str());
        if (member == tags.MemberEnd())
        {
            EDR_LOG_WARNING("Disabling " << tag->Name() << " tag as it is not configured");
            tag->Disable();
        }
        else if (!tag->ApplySettings(member->value))
        {
            EDR_LOG_ERROR("Invalid setting for " << tag->Name());
        }
    }
    return true;
}

int64_t TaggingEngine::ScoreOf(const ProcessInfo& process) const
{
    int64_t score = 0;
    for (const auto& tag : m_tags)
    {
        if (const auto it = process.tags.find(tag->Name()); it != process.tags.end() && it->second > 0)
        {
            score += it->second;
        }
    }
    return score;
}

Verdict TaggingEngine::GetVerdict(const EventPtr& event)
{
    std::lock_guard lock(m_mutex);
    if (!event)
    {
        return Verdict::Clean;
    }
    EDR_LOG_TRACE("Getting tag verdict for event with ID " << event->GetEventId());
    if (!m_enabled)
    {
        EDR_LOG_TRACE("Tagging is disabled");
        return Verdict::Clean;
    }
    const auto pid = EventFields::ProcessId(*event);
    if (!pid)
    {
        return Verdict::Clean;
    }
    // Most events give no tag: those are judged on the tree's own entry, and
    // the process is copied (into the reused m_process) only when a tag
    // applies, from the same look under the tree's lock.
    ProcessInfo& process = m_process;
    const bool logging = DebugEnabled();
    int64_t score = 0;
    size_t next = kTagCount;
    const auto judge = [&](const ProcessInfo& held)
    {
        score = ScoreOf(held);
        next = NextApplicableLocked(*event, held, score, 0);
        if (next < kTagCount || logging)
        {
            process = held;
        }
    };
    const bool judged = event->GetType() != edr::EventType::Running && m_tree.VisitProcess(*pid, judge);
    if (!judged)
    {
        m_tree.GetProcessInfo(*pid, process);
        if (event->GetType() == edr::EventType::Running)
        {
            InheritLocked(process);
        }
        score = ScoreOf(process);
        next = NextApplicableLocked(*event, process, score, 0);
    }
    for (; next < kTagCount; next = NextApplicableLocked(*event, process, score, next + 1))
    {
        const Tag& tag = *m_tags[next];
        if (AddLocked(process, tag))
        {
            score += tag.Score();
            EDR_LOG_DEBUG("Added Tag: " << tag.Name() << ", Updated Score: " << score
                                        << ", for PID: " << process.pid);
            SpreadLocked(process, tag);
        }
    }
    const Verdict verdict = Reached(score) ? Verdict::Suspicious : Verdict::Clean;
    if (logging)
    {
        EDR_LOG_DEBUG("Returning tag verdict '" << ToString(verdict) << "' to process (" << Describe(process)
                                                << " Threshold: " << m_threshold);
    }
    return verdict;
}

bool TaggingEngine::Reached(int64_t score) const
{
    return score >= 0 && static_cast<uint64_t>(score) >= m_threshold;
}

size_t TaggingEngine::NextApplicableLocked(const edr::Event& event, const ProcessInfo& process, int64_t score,
                                           size_t first) const
{
    for (size_t i = first; i < kTagCount && !Reached(score); ++i)
    {
        const Tag& tag = *m_tags[i];
        if (!tag.IsEnabled() || process.HasTag(tag.Name()) || tag.IsExcluded(process))
        {
            continue;
        }
        EDR_LOG_TRACE("Checking for " << tag.Name() << " tag");
        if (tag.IsApplicable(event, process))
        {
            return i;
        }
    }
    return kTagCount;
}

bool TaggingEngine::AddLocked(ProcessInfo& process, const Tag& tag)
{
    if (m_tree.AddTagToProcesses({process.pid}, tag.Name(), tag.Score()).empty())
    {
        return false;
    }
    process.tags[tag.Name()] = tag.Score();
    return true;
}

size_t TaggingEngine::TagIndex(const std::string& name) const
{
    for (size_t i = 0; i < kTagCount; ++i)
    {
        if (m_tags[i]->Name() == name)
        {
            return i;
        }
    }
    return kTagCount;
}

void TaggingEngine::InheritLocked(ProcessInfo& process)
{
    if (process.parentPid <= 0)
    {
        return;
    }
    // The first giver of each tag that the process may receive, parent
    // first, with its name when the log line will be written.
    const bool logging = DebugEnabled();
    std::array<std::optional<std::pair<pid_t, std::string>>, kTagCount> givenBy;
    m_tree.VisitTaggedKin(
        process.pid, process.parentPid > 1,
        [&](const ProcessInfo& giver)
        {
            // A giver holds few tags (its states among them), and a busy
            // parent has thousands of children: look up the giver's tags, not
            // every tactic in each giver.
            for (const auto& held : giver.tags)
            {
                const size_t i = TagIndex(held.first);
                if (i < kTagCount && !givenBy[i] && m_tags[i]->IsEnabled() && !process.HasTag(held.first))
                {
                    givenBy[i].emplace(giver.pid, logging ? Describe(giver) : std::string());
                }
            }
        });
    for (size_t i = 0; i < kTagCount; ++i)
    {
        const Tag& tag = *m_tags[i];
        if (!givenBy[i] || tag.IsExcluded(process) || !AddLocked(process, tag))
        {
            continue;
        }
        const char* kind = givenBy[i]->first == process.parentPid ? "parent" : "sibling";
        EDR_LOG_DEBUG("Adding tag '" << tag.Name() << "' to process (" << Describe(process) << " from "
                                     << kind << " process (" << givenBy[i]->second << ")");
    }
}

void TaggingEngine::SpreadLocked(const ProcessInfo& giver, const Tag& tag)
{
    if (!giver.children.empty())
    {
        EDR_LOG_DEBUG("Applying tag '" << tag.Name() << "' to child processes");
        GiveLocked(giver, tag, std::vector<pid_t>(giver.children.begin(), giver.children.end()));
    }
    if (giver.parentPid > 1)
    {
        const auto siblings = m_tree.GetSiblings(giver.pid);
        if (!siblings.empty())
        {
            EDR_LOG_DEBUG("Applying tag '" << tag.Name() << "' to sibling processes");
            GiveLocked(giver, tag, siblings);
        }
    }
}

void TaggingEngine::GiveLocked(const ProcessInfo& giver, const Tag& tag, const std::vector<pid_t>& receivers)
{
    const bool logging = DebugEnabled();
    std::map<pid_t, std::string> names;
    const auto received = m_tree.AddTagToProcesses(receivers, tag.Name(), tag.Score(),
                                                   [&](const ProcessInfo& receiver)
                                                   {
                                                       if (tag.IsExcluded(receiver))
                                                       {
                                                           return false;
                                                       }
                                                       if (logging)
                                                       {
                                                           names.emplace(receiver.pid, Describe(receiver));
                                                       }
                                                       return true;
                                                   });
    if (logging)
    {
        for (const pid_t pid : received)
        {
            EDR_LOG_DEBUG("Adding tag '" << tag.Name() << "' to process (" << names[pid]
                                         << " from related process (" << Describe(giver) << ")");
        }
    }
}

} // namespace vantor::ioc::internal
