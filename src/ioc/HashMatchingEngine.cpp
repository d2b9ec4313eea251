#include "ioc/HashMatchingEngine.h"

#include "common/HashGeneratorException.h"
#include "common/Logging.h"
#include "common/util/Digest.h"
#include "ioc/EventFields.h"
#include "ioc/Manifest.h"
#include "ioc/TtlProcessTree.h"

#include <algorithm>

namespace vantor::ioc::internal
{

namespace
{

// Events after which a file's content may differ from its stored hash.
bool ChangesFile(edr::EventType type)
{
    switch (type)
    {
    case edr::EventType::Create:
    case edr::EventType::Write:
    case edr::EventType::Delete:
    case edr::EventType::Rename:
        return true;
    default:
        return false;
    }
}

std::optional<int> StoredVerdict(const ProcessInfo& process)
{
    const auto it = process.verdicts.find(HashMatchingEngine::kVerdictKey);
    return it == process.verdicts.end() ? std::nullopt : std::optional<int>(it->second);
}

} // namespace

HashMatchingEngine::HashMatchingEngine(TtlProcessTree& tree, HashFunction hash)
    : m_tree(tree)
    , m_hash(std::move(hash))
    , m_maxFileSize(Manifest::kDefaultMaxFileSizeToProcess)
{
}

Sha256Hash HashMatchingEngine::DefaultHash(const std::string& path, uint64_t maxSize)
{
    return util::Digest::HexOfFile(util::Digest::Algorithm::Sha256, path, maxSize);
}

void HashMatchingEngine::Reset(const std::vector<std::string>& knownProcessPaths, uint64_t maxFileSize)
{
    std::lock_guard lock(m_mutex);
    m_knownPaths = std::unordered_set<std::string>(knownProcessPaths.begin(), knownProcessPaths.end());
    m_maxFileSize = maxFileSize;
    m_hashes.clear();
}

std::optional<Sha256Hash> HashMatchingEngine::GetHash(const std::string& path)
{
    std::lock_guard lock(m_mutex);
    const auto it = m_hashes.find(path);
    return it == m_hashes.end() ? std::nullopt : std::optional<Sha256Hash>(it->second);
}

void HashMatchingEngine::ReadImage(const std::string& path, bool running, Lineage& lineage) const
{
    lineage.hashed = m_hashes.count(path) != 0;
    if (m_knownPaths.count(path) != 0)
    {
        lineage.pathVerdict = Verdict::CleanWithoutHash;
    }
    else
    {
        lineage.pathVerdict = lineage.hashed ? Verdict::Clean : Verdict::Unknown;
    }
    if (running && !lineage.hashed)
    {
        lineage.image = path;
    }
}

Verdict HashMatchingEngine::GetVerdict(const EventPtr& event)
{
    const edr::EventType type = event->GetType();
    const pid_t pid = event->GetActorProcessId();
    const bool running = type == edr::EventType::Running;
    std::lock_guard lock(m_mutex);
    if (ChangesFile(type))
    {
        Forget(*event);
    }
    const Lineage lineage = ReadLineage(*event, running);
    if (!running)
    {
        if (lineage.stored)
        {
            return VerdictFromInt(*lineage.stored);
        }
        if (lineage.known)
        {
            EDR_LOG_DEBUG("Adding verdict '" << ToString(lineage.pathVerdict) << "' to process " << pid);
            m_tree.SetVerdict(pid, kVerdictKey, static_cast<int>(lineage.pathVerdict));
        }
        return lineage.pathVerdict;
    }
    if (!lineage.image.empty())
    {
        Hash(lineage.image, lineage.pathVerdict);
    }
    if (!lineage.known)
    {
        EDR_LOG_DEBUG("Adding verdict: " << ToString(lineage.pathVerdict) << " for unknown process");
        return lineage.pathVerdict;
    }
    EDR_LOG_DEBUG("Adding verdict: " << ToString(lineage.pathVerdict)
                                     << (lineage.hashed ? ". Hash found for process: "
                                                        : ". Hash not found for process: ")
                                     << pid);
    return Decide(lineage, pid);
}

HashMatchingEngine::Lineage HashMatchingEngine::ReadLineage(const edr::Event& event, bool running) const
{
    Lineage lineage;
    const pid_t pid = event.GetActorProcessId();
    const auto read = [&](const ProcessInfo& process)
    {
        if (process.pid != pid)
        {
            lineage.parentStored = StoredVerdict(process);
            return false;
        }
        lineage.known = true;
        lineage.parentPid = process.parentPid;
        lineage.stored = StoredVerdict(process);
        ReadImage(process.image.path, running, lineage);
        // The parent matters only to a new process.
        return running;
    };
    if (pid > 0 && m_tree.VisitLineage(pid, read))
    {
        return lineage;
    }
    if (const auto image = EventFields::Image(event))
    {
        ReadImage(*image, running, lineage);
    }
    return lineage;
}

void HashMatchingEngine::Forget(const edr::Event& event)
{
    // Only a rename has a new name; other events would throw at the question.
    const auto newFile =
        event.GetType() == edr::EventType::Rename ? EventFields::NewFile(event) : std::nullopt;
    for (const auto& path : {EventFields::File(event), newFile})
    {
        if (path && m_hashes.erase(*path) != 0)
        {
            EDR_LOG_TRACE("Forgetting the hash of " << *path);
        }
    }
}

void HashMatchingEngine::Hash(const std::string& path, Verdict pathVerdict)
{
    try
    {
        m_hashes.emplace(path, m_hash(path, m_maxFileSize));
    }
    catch (const std::exception& e)
    {
        if (pathVerdict == Verdict::CleanWithoutHash)
        {
            throw common::HashGeneratorException("Failed to generate hash for known process: " + path + ": " +
                                                 e.what());
        }
        EDR_LOG_DEBUG("Failed to generate hash of " << path << ": " << e.what());
    }
}

Verdict HashMatchingEngine::Decide(const Lineage& lineage, pid_t pid)
{
    Verdict verdict = lineage.pathVerdict;
    if (lineage.parentStored)
    {
        const Verdict parent = VerdictFromInt(*lineage.parentStored);
        if (parent >= Verdict::Unknown && parent > verdict)
        {
            verdict = parent;
            EDR_LOG_DEBUG("Adding verdict: " << ToString(verdict)
                                             << " from parent process: " << lineage.parentPid);
        }
    }
    if (lineage.stored)
    {
        const Verdict stored = VerdictFromInt(*lineage.stored);
        if (stored > verdict)
        {
            verdict = stored;
            EDR_LOG_DEBUG("Adding verdict: " << ToString(verdict) << " from existing process");
        }
    }
    EDR_LOG_DEBUG("Adding verdict '" << ToString(verdict) << "' to process " << pid);
    m_tree.SetVerdict(pid, kVerdictKey, static_cast<int>(verdict));
    return verdict;
}

} // namespace vantor::ioc::internal
