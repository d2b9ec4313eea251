#include "fim/EventProcessor.h"

#include "common/Logging.h"
#include "common/SpoolStorage.h"
#include "common/SqlStorage.h"
#include "common/util/TimeFormat.h"

#include <openssl/evp.h>
#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>

namespace vantor::fim::internal
{

namespace
{

// A baseline walk stops after this many entries of one watched directory.
constexpr size_t kMaxBaselineEntries = 100000;
constexpr const char* kUnknown = "Unknown";

struct FdCloser
{
    int fd;
    ~FdCloser()
    {
        if (fd >= 0)
        {
            ::close(fd);
        }
    }
};

struct DigestFree
{
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

// Appends to a string; the output stream of the UTF-8 validator.
struct StringOutput
{
    using Ch = char;
    std::string& out;
    void Put(char c) { out.push_back(c); }
};

// The text with every byte that does not start a valid UTF-8 sequence
// replaced by U+FFFD, so that a hostile file name keeps the document valid.
const std::string& ValidUtf8(std::string_view text, std::string& scratch)
{
    scratch.clear();
    size_t pos = 0;
    while (pos < text.size())
    {
        const size_t start = pos;
        while (pos < text.size() && static_cast<unsigned char>(text[pos]) < 0x80)
        {
            ++pos;
        }
        scratch.append(text.substr(start, pos - start));
        if (pos == text.size())
        {
            break;
        }
        rapidjson::MemoryStream input(text.data() + pos, text.size() - pos);
        const size_t mark = scratch.size();
        StringOutput output{scratch};
        if (rapidjson::UTF8<>::Validate(input, output))
        {
            pos += input.Tell();
        }
        else
        {
            scratch.resize(mark);
            scratch.append("\xEF\xBF\xBD");
            pos += 1;
        }
    }
    return scratch;
}

// A RapidJSON writer whose strings are made valid UTF-8 first.
class DocumentWriter
{
public:
    explicit DocumentWriter(rapidjson::StringBuffer& buffer)
        : m_writer(buffer)
    {
    }

    void Key(const char* key) { m_writer.Key(key); }
    void String(std::string_view value)
    {
        const std::string& valid = ValidUtf8(value, m_scratch);
        m_writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
    }
    void Member(const char* key, std::string_view value)
    {
        Key(key);
        String(value);
    }
    void Uint64(uint64_t value) { m_writer.Uint64(value); }
    void Int64(int64_t value) { m_writer.Int64(value); }
    void StartObject() { m_writer.StartObject(); }
    void EndObject() { m_writer.EndObject(); }
    void StartArray() { m_writer.StartArray(); }
    void EndArray() { m_writer.EndArray(); }

    // Writes the value of getter, or "Unknown" when the event cannot tell.
    template <typename Getter>
    void NumberOrUnknown(const char* key, Getter getter)
    {
        Key(key);
        try
        {
            const auto value = getter();
            if constexpr (std::is_signed_v<decltype(value)>)
            {
                Int64(static_cast<int64_t>(value));
            }
            else
            {
                Uint64(static_cast<uint64_t>(value));
            }
        }
        catch (const std::exception&)
        {
            String(kUnknown);
        }
    }

    template <typename Getter>
    void StringOrUnknown(const char* key, Getter getter)
    {
        Key(key);
        try
        {
            String(getter());
        }
        catch (const std::exception&)
        {
            String(kUnknown);
        }
    }

private:
    rapidjson::Writer<rapidjson::StringBuffer> m_writer;
    std::string m_scratch;
};

std::string UserName(uid_t uid)
{
    std::array<char, 1024> buffer{};
    passwd pwd{};
    passwd* result = nullptr;
    if (getpwuid_r(uid, &pwd, buffer.data(), buffer.size(), &result) == 0 && result != nullptr)
    {
        return result->pw_name;
    }
    return std::to_string(uid);
}

std::string GroupName(gid_t gid)
{
    std::array<char, 1024> buffer{};
    group grp{};
    group* result = nullptr;
    if (getgrgid_r(gid, &grp, buffer.data(), buffer.size(), &result) == 0 && result != nullptr)
    {
        return result->gr_name;
    }
    return std::to_string(gid);
}

std::string Permission(mode_t mode)
{
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & 07777));
    return text.data();
}

bool IsDirectoryEvent(const edr::Event& event)
{
    try
    {
        return (event.GetFileType() & S_IFMT) == S_IFDIR;
    }
    catch (const std::exception&)
    {
        return false;
    }
}

// Notify codes an event type answers to.
bool ActionMatches(edr::EventType type, const edr::EventRule::ActionSet& notify)
{
    switch (type)
    {
    case edr::EventType::Create:
        return notify.count(EventRule::kCreate) != 0;
    case edr::EventType::Delete:
        return notify.count(EventRule::kDelete) != 0;
    case edr::EventType::Read:
        return notify.count(EventRule::kRead) != 0;
    case edr::EventType::Write:
        return notify.count(EventRule::kModifyContent) != 0;
    case edr::EventType::Attribute:
        return notify.count(EventRule::kModifyMetadata) != 0 ||
               notify.count(EventRule::kModifySecuritySettings) != 0;
    case edr::EventType::Rename:
        return notify.count(EventRule::kRename) != 0;
    default:
        return false;
    }
}

} // namespace

EventProcessor::EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                               common::SqlStorage* baseline)
    : m_ruleManager(ruleManager)
    , m_spool(spool)
    , m_baseline(baseline)
{
}

EventProcessor::~EventProcessor()
{
    EDR_LOG_DEBUG("Destroying EventProcessor");
}

int EventProcessor::PathDepth(const std::string& rulePath, const std::string& path)
{
    if (path.size() <= rulePath.size() || path.compare(0, rulePath.size(), rulePath) != 0)
    {
        return -1;
    }
    size_t pos = rulePath.size();
    if (rulePath != "/")
    {
        if (path[pos] != '/')
        {
            return -1;
        }
    }
    else
    {
        pos = 0;
    }
    int components = 0;
    bool inComponent = false;
    for (; pos < path.size(); ++pos)
    {
        if (path[pos] == '/')
        {
            inComponent = false;
        }
        else if (!inComponent)
        {
            inComponent = true;
            ++components;
        }
    }
    return components - 1;
}

bool EventProcessor::Covers(const EventRule& rule, const std::string& path)
{
    if (path == rule.GetPath())
    {
        return true;
    }
    return rule.IsDirectoryRule() && PathDepth(rule.GetPath(), path) >= 0;
}

bool EventProcessor::PostProcess(const EventRule& rule, const edr::Event& event, const std::string& path,
                                 bool isDirectory)
{
    if (rule.IsDirectoryRule())
    {
        const int depth = PathDepth(rule.GetPath(), path);
        EDR_LOG_TRACE("Depth of path :" << depth);
        EDR_LOG_TRACE("Recursive depth is set to:" << static_cast<int>(rule.GetRecursiveDepth()));
        if (depth > static_cast<int>(rule.GetRecursiveDepth()))
        {
            EDR_LOG_DEBUG("Event Path for PostProcessing " << path);
            EDR_LOG_DEBUG("Dropping Event");
            return false;
        }
    }

    EDR_LOG_TRACE("Applying Exclusion filters");
    for (const auto& filter : rule.GetExclusionFilters())
    {
        if (filter.Match(event, path, isDirectory))
        {
            return false;
        }
    }
    EDR_LOG_TRACE("Exclusion filters not matched");

    if (!rule.GetInclusionFilters().empty())
    {
        EDR_LOG_TRACE("matching inclusion criterias");
        bool included = false;
        for (const auto& filter : rule.GetInclusionFilters())
        {
            if (filter.Match(event, path, isDirectory))
            {
                included = true;
                break;
            }
        }
        if (!included)
        {
            return false;
        }
    }

    if (!ActionMatches(event.GetType(), rule.GetNotifyActions()))
    {
        EDR_LOG_DEBUG("Event id: " << event.GetEventId() << " not matching with rule for event:"
                                   << " as no actions matched in rule: " << rule.GetRuleId());
        return false;
    }
    return true;
}

std::string EventProcessor::ActionWord(edr::EventType type, const std::vector<const EventRule*>& rules)
{
    switch (type)
    {
    case edr::EventType::Create:
        return "create";
    case edr::EventType::Delete:
        return "delete";
    case edr::EventType::Read:
        return "read";
    case edr::EventType::Write:
        return "modifyContent";
    case edr::EventType::Rename:
        return "rename";
    case edr::EventType::Attribute:
        for (const auto* rule : rules)
        {
            if (rule->GetNotifyActions().count(EventRule::kModifySecuritySettings))
            {
                return "modifySecuritySettings";
            }
        }
        return "modifyMetadata";
    default:
        return kUnknown;
    }
}

const char* EventProcessor::ContentStatusText(ContentStatus status)
{
    switch (status)
    {
    case ContentStatus::ReadSuccessful:
        return "READ_SUCCESSFUL";
    case ContentStatus::MaxSizeLimitReached:
        return "MAX_SIZE_LIMIT_REACHED";
    case ContentStatus::ReadFailure:
        break;
    }
    return "READ_FAILURE";
}

EventProcessor::Content EventProcessor::ReadContent(const std::string& path, bool wantData, bool wantHash)
{
    Content content;
    FdCloser file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)};
    struct stat info
    {
    };
    if (file.fd < 0 || ::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode))
    {
        return content;
    }
    std::unique_ptr<EVP_MD_CTX, DigestFree> digest;
    if (wantHash)
    {
        digest.reset(EVP_MD_CTX_new());
        if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) != 1)
        {
            return content;
        }
    }
    std::array<char, 65536> buffer{};
    for (;;)
    {
        // Without a hash nothing past the limit is needed.
        if (!wantHash && content.size > kMaxContentSize)
        {
            break;
        }
        const ssize_t n = ::read(file.fd, buffer.data(), buffer.size());
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            content.data.clear();
            content.sha256.clear();
            content.status = ContentStatus::ReadFailure;
            return content;
        }
        if (n == 0)
        {
            break;
        }
        if (wantData && content.size <= kMaxContentSize)
        {
            content.data.append(buffer.data(), static_cast<size_t>(std::min<uint64_t>(n, kMaxContentSize + 1 -
                                                                                             content.size)));
        }
        content.size += static_cast<uint64_t>(n);
        if (digest && EVP_DigestUpdate(digest.get(), buffer.data(), static_cast<size_t>(n)) != 1)
        {
            digest.reset();
        }
    }
    if (content.size > kMaxContentSize)
    {
        content.status = ContentStatus::MaxSizeLimitReached;
        content.data.clear();
    }
    else
    {
        content.status = ContentStatus::ReadSuccessful;
    }
    if (digest)
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> md{};
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(digest.get(), md.data(), &length) == 1)
        {
            static constexpr char kHex[] = "0123456789abcdef";
            content.sha256.reserve(length * 2);
            for (unsigned int i = 0; i < length; ++i)
            {
                content.sha256.push_back(kHex[md[i] >> 4]);
                content.sha256.push_back(kHex[md[i] & 0x0F]);
            }
        }
    }
    return content;
}

std::string EventProcessor::BuildDocument(const edr::Event& event, const DocumentInput& input,
                                          const Content* content)
{
    bool trackContent = false;
    for (const auto* rule : input.rules)
    {
        trackContent = trackContent || rule->TracksContentChange();
    }
    edr::EventType type{};
    bool hasType = true;
    try
    {
        type = event.GetType();
    }
    catch (const std::exception&)
    {
        hasType = false; // pseudo events (baseline) carry no type
    }
    // Mandatory fields first: a failure here drops the document.
    const bool success = event.IsSuccessful();
    const uint64_t seconds = event.GetTimestamp() / 1000;
    const uint32_t eventId = event.GetEventId();

    Content read;
    if (content == nullptr && (trackContent || input.collectHashes) && !input.isDirectory)
    {
        read = ReadContent(input.path, trackContent, input.collectHashes);
        content = &read;
    }

    rapidjson::StringBuffer buffer;
    DocumentWriter w(buffer);
    w.StartObject();
    w.Member("successStatus", success ? "yes" : "no");
    w.Member("timestamp",
             util::FormatIsoTime(std::chrono::system_clock::time_point(std::chrono::seconds(seconds))));
    w.Key("eventId");
    w.Uint64(eventId);
    w.Member("eventAction", input.action);
    w.Member("eventClass", "Disk");
    w.Member("eventType", input.isDirectory ? "Directory" : "File");
    w.Member("imagePath", input.path);
    if (input.collectHashes)
    {
        const std::string hash = content != nullptr && !content->sha256.empty() ? content->sha256 : kUnknown;
        EDR_LOG_DEBUG("PATH: " << input.path << " SHA256: " << hash);
        w.Member("fileContentHash", hash);
    }
    if (trackContent)
    {
        w.Member("fileContent", content != nullptr ? std::string_view(content->data) : std::string_view());
        w.Member("contentStatus",
                 ContentStatusText(content != nullptr ? content->status : ContentStatus::ReadFailure));
    }

    w.Key("operation");
    w.StartObject();
    if (hasType && type == edr::EventType::Rename)
    {
        w.Key("old");
        w.StartObject();
        w.Member("path", input.path);
        w.EndObject();
        w.Key("new");
        w.StartObject();
        w.StringOrUnknown("path", [&] { return event.GetNewFile(); });
        w.EndObject();
    }
    else
    {
        // The event carries only the state after the change.
        w.Key("old");
        w.StartObject();
        w.Member("size", kUnknown);
        w.EndObject();
        w.Key("new");
        w.StartObject();
        if (hasType && type == edr::EventType::Delete)
        {
            w.Member("size", kUnknown);
        }
        else if (content != nullptr && content->status != ContentStatus::ReadFailure)
        {
            w.Key("size");
            w.Uint64(content->size);
        }
        else
        {
            w.NumberOrUnknown("size", [&] { return event.GetFileSize(); });
        }
        w.EndObject();
    }
    w.EndObject();

    if (hasType && type == edr::EventType::Attribute)
    {
        struct stat info
        {
        };
        const bool known = ::lstat(input.path.c_str(), &info) == 0;
        w.Key("securitySettings");
        w.StartObject();
        w.Key("new");
        w.StartObject();
        w.Member("permission", known ? Permission(info.st_mode) : kUnknown);
        w.Member("owner", known ? UserName(info.st_uid) : kUnknown);
        w.Member("group", known ? GroupName(info.st_gid) : kUnknown);
        w.EndObject();
        w.Key("old");
        w.StartObject();
        w.Member("permission", kUnknown);
        w.Member("owner", kUnknown);
        w.Member("group", kUnknown);
        w.EndObject();
        w.EndObject();
    }

    w.Key("associatedRules");
    w.StartArray();
    for (const auto* rule : input.rules)
    {
        w.String(rule->GetRuleId());
    }
    w.EndArray();

    w.Key("actor");
    w.StartObject();
    w.NumberOrUnknown("processID", [&] { return event.GetActorProcessId(); });
    w.StringOrUnknown("userName", [&] { return event.GetActorUserName(); });
    w.NumberOrUnknown("userID", [&] { return event.GetActorUserId(); });
    w.StringOrUnknown("auditUserName", [&] { return event.GetActorLoginName(); });
    w.NumberOrUnknown("auditUserID", [&] { return event.GetActorAuid(); });
    w.StringOrUnknown("procTitle",
                      [&]
                      {
                          try
                          {
                              return event.GetCommandLine();
                          }
                          catch (const std::exception&)
                          {
                              return event.GetImage();
                          }
                      });
    w.EndObject();
    w.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

void EventProcessor::HandleEvent(edr::Event& event)
{
    try
    {
        if (event.GetCategory() == kBaselineCategory)
        {
            RunBaseline(event);
            return;
        }
    }
    catch (const std::exception&)
    {
        // Audit events need no category; they are simply not the baseline.
    }

    try
    {
        const uint32_t eventId = event.GetEventId();
        const std::string path = event.GetFile();
        EDR_LOG_DEBUG("Processing Event id: " << eventId << " path: " << path);
        const bool isDirectory = IsDirectoryEvent(event);
        std::string newPath;
        if (event.GetType() == edr::EventType::Rename)
        {
            try
            {
                newPath = event.GetNewFile();
            }
            catch (const std::exception&)
            {
            }
        }

        const auto rules = m_ruleManager.GetRules();
        DocumentInput input;
        input.path = path;
        input.isDirectory = isDirectory;
        input.collectHashes = rules->collectHashes;
        for (const auto& rule : rules->rules)
        {
            // A rename into a watched directory is reported under its new
            // path's rule as well.
            const bool byOld = Covers(*rule, path);
            const bool byNew = !byOld && !newPath.empty() && Covers(*rule, newPath);
            if (!byOld && !byNew)
            {
                continue;
            }
            EDR_LOG_DEBUG("PostProcess event for ruleId: " << rule->GetRuleId());
            if (PostProcess(*rule, event, byOld ? path : newPath, isDirectory))
            {
                input.rules.push_back(rule.get());
            }
            else
            {
                EDR_LOG_DEBUG("Event id: " << eventId << " not matched with Rule id: " << rule->GetRuleId());
            }
        }
        if (input.rules.empty())
        {
            EDR_LOG_DEBUG("Dropping Event as no rules criteria matched in post-process: " << eventId);
            return;
        }
        input.action = ActionWord(event.GetType(), input.rules);
        Spool(BuildDocument(event, input));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

void EventProcessor::Spool(std::string document)
{
    // The callback runs on the spool's task: it must not touch the event.
    m_spool.WriteAsync(std::move(document),
                       [](const common::SpoolStorage::WriteResult& result)
                       {
                           if (result.Succeeded())
                           {
                               EDR_LOG_DEBUG("Event json written to disc successfully");
                           }
                           else
                           {
                               EDR_LOG_ERROR("Failed to write Event json to disc: " << result.message);
                           }
                       });
}

void EventProcessor::RunBaseline(const edr::Event& event)
{
    namespace fs = std::filesystem;
    const std::string root = event.GetFile();
    const auto rules = m_ruleManager.GetRules();
    struct stat info
    {
    };
    if (::lstat(root.c_str(), &info) != 0)
    {
        EDR_LOG_WARNING("Event Path: " << root << " does not exist");
        return;
    }
    if (!S_ISDIR(info.st_mode))
    {
        BaselineFile(root, event, *rules);
        return;
    }
    std::error_code ec;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    size_t seen = 0;
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    {
        if (++seen > kMaxBaselineEntries)
        {
            EDR_LOG_WARNING("Baseline of " << root << " stopped after " << kMaxBaselineEntries << " entries");
            break;
        }
        // Recursion stops at the deepest level any rule can report.
        if (it.depth() >= EventRule::kMaxDepth)
        {
            it.disable_recursion_pending();
        }
        if (it->is_regular_file(ec) && !it->is_symlink(ec))
        {
            BaselineFile(it->path().string(), event, *rules);
        }
    }
}

void EventProcessor::BaselineFile(const std::string& path, const edr::Event& event,
                                  const EventManagerRuleSet& rules)
{
    struct stat info
    {
    };
    if (::lstat(path.c_str(), &info) != 0)
    {
        EDR_LOG_WARNING("Stat Failed for: " << path);
        return;
    }
    DocumentInput input;
    input.path = path;
    input.collectHashes = rules.collectHashes;
    bool trackContent = false;
    for (const auto& rule : rules.rules)
    {
        if (Covers(*rule, path) &&
            (!rule->IsDirectoryRule() || PathDepth(rule->GetPath(), path) <= rule->GetRecursiveDepth()))
        {
            input.rules.push_back(rule.get());
            trackContent = trackContent || rule->TracksContentChange();
        }
    }
    if (input.rules.empty())
    {
        return;
    }
    const Content content = ReadContent(path, trackContent, rules.collectHashes);
    const char* status = ContentStatusText(content.status);
    if (m_baseline != nullptr)
    {
        const auto result = m_baseline->Write(BaselineEventSqlDataFormatter::kTableName,
                                              {{path, m_baselineFormatter.FormatRecord(path, status)}});
        if (!result.success)
        {
            EDR_LOG_ERROR("Failed to store baseline record for " << path << ": " << result.error);
        }
    }
    try
    {
        input.action = event.GetActionName();
        Spool(BuildDocument(event, input, &content));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

} // namespace vantor::fim::internal
