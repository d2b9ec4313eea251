#include "fim/DocumentBuilder.h"

#include "common/Logging.h"
#include "fim/BaselineEvent.h"
#include "fim/EventDocument.h"

#include <algorithm>

namespace vantor::fim::internal
{

namespace
{

bool AnyRule(const std::vector<const EventRule*>& rules, EventRule::Action action)
{
    return std::any_of(rules.begin(), rules.end(),
                       [action](const EventRule* rule)
                       { return rule->GetNotifyActions().count(action) != 0; });
}

// The hash of a state that was not read is still the stored one when
// nothing that a write changes has moved.
void KeepKnownHash(FileState& state, const std::optional<FileState>& stored)
{
    if (state.sha256.empty() && stored && !stored->sha256.empty() && stored->size == state.size &&
        stored->modificationTimeNs == state.modificationTimeNs)
    {
        state.sha256 = stored->sha256;
    }
}

} // namespace

DocumentBuilder::DocumentBuilder(FileStateStore& store, DocumentSink sink)
    : m_store(store)
    , m_sink(std::move(sink))
{
}

ContentReader::Content DocumentBuilder::ReadFor(const std::string& path,
                                                const std::vector<const EventRule*>& rules,
                                                bool collectHashes, const std::optional<FileState>& observed)
{
    const bool trackContent = std::any_of(rules.begin(), rules.end(),
                                          [](const EventRule* rule) { return rule->TracksContentChange(); });
    bool wantHash = collectHashes;
    if (!wantHash && AnyRule(rules, EventRule::kModifyMetadata))
    {
        wantHash = observed && observed->size <= kMaxCompareHashSize;
    }
    return ContentReader::Read(path, trackContent, wantHash);
}

std::optional<FileState> DocumentBuilder::WithHash(std::optional<FileState> state,
                                                   const ContentReader::Content& content)
{
    if (state && content.status != ContentReader::ContentStatus::ReadFailure && content.size == state->size)
    {
        state->sha256 = content.sha256;
    }
    return state;
}

void DocumentBuilder::BuildGroup(PendingDocuments::Group& group)
{
    const auto& documents = group.documents;
    if (documents.empty())
    {
        return;
    }
    std::vector<const EventRule*> rules;
    bool collectHashes = false;
    bool reads = false;
    for (const auto& document : documents)
    {
        if (document.readsContent && !document.isDirectory)
        {
            reads = true;
            rules.insert(rules.end(), document.rules.begin(), document.rules.end());
        }
        collectHashes = collectHashes || (document.ruleSet && document.ruleSet->collectHashes);
    }
    // The object is read once for the whole group: every document of it
    // tells what the writers left.
    std::optional<ContentReader::Content> content;
    std::optional<FileState> settled;
    if (reads)
    {
        const auto observed = FileState::Observe(group.objectPath);
        content = ReadFor(group.objectPath, rules, collectHashes, observed);
        CountRead(*content);
        settled = WithHash(observed, *content);
    }

    // The stored state of the object is read at most once: until the group
    // is done only other paths (a rename's source) leave the store.
    std::optional<std::optional<FileState>> stored;
    const auto storedState = [&]() -> const std::optional<FileState>&
    {
        if (!stored)
        {
            stored.emplace(m_store.Get(group.objectPath));
        }
        return *stored;
    };

    std::optional<FileState> previous;
    for (size_t i = 0; i < documents.size(); ++i)
    {
        const PendingDocument& document = documents[i];
        const bool ownPath = !document.source;
        const std::optional<FileState> before = !ownPath ? m_store.Get(*document.source)
                                                : i == 0 ? storedState()
                                                         : previous;
        const bool settledDocument = document.readsContent && !document.isDirectory;
        const std::optional<FileState> observed = document.Observed();
        BuildOne(document, group.objectPath, before, settledDocument ? settled : observed,
                 settledDocument ? &*content : nullptr);
        previous = document.type == edr::EventType::Delete ? std::nullopt : observed;
        if (!ownPath)
        {
            // The source of a rename is gone.
            m_store.Remove(*document.source);
        }
    }

    std::optional<FileState> last = reads ? settled : documents.back().Observed();
    if (documents.back().type == edr::EventType::Delete || !last)
    {
        m_store.Remove(group.objectPath);
        return;
    }
    KeepKnownHash(*last, storedState());
    m_store.Put(group.objectPath, *last);
}

std::string DocumentBuilder::ActionOf(const PendingDocument& document, const std::optional<FileState>& before,
                                      const std::optional<FileState>& after)
{
    switch (document.type)
    {
    case edr::EventType::Write:
        if (before && after && !before->sha256.empty() && before->sha256 == after->sha256)
        {
            return "modifyMetadata";
        }
        return "modifyContent";
    case edr::EventType::Attribute:
        if (before && after && !before->SecurityDiffers(*after) &&
            before->modificationTimeNs != after->modificationTimeNs)
        {
            return "modifyMetadata";
        }
        break;
    default:
        break;
    }
    return EventDocument::ActionWord(document.type, document.rules);
}

void DocumentBuilder::BuildOne(const PendingDocument& document, const std::string& objectPath,
                               const std::optional<FileState>& before, const std::optional<FileState>& after,
                               const ContentReader::Content* content)
{
    EventDocument::Input input;
    input.action = ActionOf(document, before, after);
    const EventRule::Action code = EventDocument::NotifyCode(input.action);
    for (const auto* rule : document.rules)
    {
        if (rule->GetNotifyActions().count(code) != 0)
        {
            input.rules.push_back(rule);
        }
    }
    try
    {
        if (input.rules.empty())
        {
            EDR_LOG_DEBUG("Dropping Event as no rules criteria matched in post-process: "
                          << document.event->GetEventId());
            return;
        }
        input.path = document.ImagePath(objectPath);
        input.isDirectory = document.isDirectory;
        input.collectHashes = document.ruleSet && document.ruleSet->collectHashes;
        if (document.renamed)
        {
            input.oldPath = document.PreviousPath(objectPath);
            input.newPath = objectPath;
        }
        input.before = before;
        input.after = after;
        input.content = content;
        m_sink(EventDocument::Build(*document.event, input));
    }
    catch (const std::exception& e)
    {
        m_failed.fetch_add(1, std::memory_order_relaxed);
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

void DocumentBuilder::CountRead(const ContentReader::Content& content)
{
    if (content.status == ContentReader::ContentStatus::ReadFailure)
    {
        m_unreadable.fetch_add(1, std::memory_order_relaxed);
    }
}

void DocumentBuilder::BuildBaseline(const std::string& path, const std::vector<const EventRule*>& rules,
                                    bool collectHashes)
{
    const auto state = FileState::Observe(path);
    if (!state)
    {
        EDR_LOG_WARNING("Stat Failed for: " << path);
        return;
    }
    const auto content = ReadFor(path, rules, collectHashes, state);
    CountRead(content);
    m_store.PutContentStatus(path, ContentReader::ContentStatusText(content.status));
    EventDocument::Input input;
    input.path = path;
    input.rules = rules;
    input.collectHashes = collectHashes;
    input.before = m_store.Get(path);
    input.after = WithHash(state, content);
    input.content = &content;
    m_store.Put(path, *input.after);
    try
    {
        const BaselineEvent event(path);
        input.action = event.GetActionName();
        m_sink(EventDocument::Build(event, input));
    }
    catch (const std::exception& e)
    {
        m_failed.fetch_add(1, std::memory_order_relaxed);
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

} // namespace vantor::fim::internal
