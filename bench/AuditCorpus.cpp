#include "bench/AuditCorpus.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace vantor::bench
{

namespace
{

namespace fs = std::filesystem;

// The captured workload's events, in this order. Every capture ends with the
// workload process's exit; only the process fixtures keep it, or exits would
// make up nearly half of the corpus.
struct Fixture
{
    const char* name;
    bool keepExits;
};
constexpr Fixture kFixtures[] = {
    {"open_write", false}, {"open_rdwr", false}, {"openat_creat", false}, {"create", false},
    {"mkdir", false},      {"symlink", false},   {"rename", false},       {"rename_over", false},
    {"renameat2", false},  {"chmod", false},     {"fchmodat", false},     {"chown", false},
    {"unlink", false},     {"unlinkat", false},  {"rmdir", false},        {"execve", true},
    {"fork", true},        {"network4", true},   {"network6", false}};

bool IsExit(const std::vector<std::string>& lines)
{
    return !lines.empty() && lines.front().compare(0, 13, "type=SYSCALL ") == 0 &&
           lines.front().find(" syscall=231 ") != std::string::npos;
}

// Time of the first generated event, in milliseconds since the epoch (that
// of the capture).
constexpr uint64_t kFirstMillis = 1795252233000ULL;
constexpr uint64_t kEventsPerMilli = 10;

void ReplaceAll(std::string& text, std::string_view from, std::string_view to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    {
        text.replace(at, from.size(), to);
    }
}

// Value of a field " key=value" in a record; a quoted value without quotes.
std::optional<std::string> Field(std::string_view record, std::string_view key)
{
    const std::string needle = " " + std::string(key) + "=";
    const size_t at = record.find(needle);
    if (at == std::string_view::npos)
    {
        return std::nullopt;
    }
    size_t begin = at + needle.size();
    size_t end = 0;
    if (begin < record.size() && record[begin] == '"')
    {
        ++begin;
        end = record.find('"', begin);
    }
    else
    {
        end = record.find_first_of(" \n", begin);
    }
    if (end == std::string_view::npos)
    {
        end = record.size();
    }
    return std::string(record.substr(begin, end - begin));
}

// Replaces the value of " key=value" (unquoted) in a record.
void SetField(std::string& record, std::string_view key, const std::string& value)
{
    const std::string needle = " " + std::string(key) + "=";
    const size_t at = record.find(needle);
    if (at == std::string::npos)
    {
        return;
    }
    const size_t begin = at + needle.size();
    const size_t end = record.find_first_of(" \n", begin);
    record.replace(begin, (end == std::string::npos ? record.size() : end) - begin, value);
}

bool IsRecordOf(const std::string& head, std::string_view type)
{
    return head.compare(0, 5, "type=") == 0 && std::string_view(head).substr(5, type.size()) == type &&
           head.size() > 5 + type.size() && head[5 + type.size()] == ' ';
}

// Absolute, normalised path of a PATH record's name; empty for a name that
// is not quoted text (hex-encoded names do not occur in these fixtures).
std::string Resolve(const std::string& cwd, const std::string& record)
{
    if (record.find(" name=\"") == std::string::npos)
    {
        return {};
    }
    const auto name = Field(record, "name");
    fs::path path = (!name->empty() && name->front() == '/') ? fs::path(*name) : fs::path(cwd) / *name;
    std::string text = path.lexically_normal().string();
    if (text.size() > 1 && text.back() == '/')
    {
        text.pop_back();
    }
    return text;
}

} // namespace

AuditCorpus::AuditCorpus(const std::string& fixtureDir)
{
    std::string pattern = (fs::temp_directory_path() / "corvid-corpus-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
    {
        throw std::runtime_error("AuditCorpus: cannot create a temporary directory");
    }
    m_root = pattern;
    try
    {
        for (const auto& fixture : kFixtures)
        {
            Load(fixtureDir + "/" + fixture.name + ".log", fixture.keepExits);
        }
        BuildTree();
        MatchInodes();
    }
    catch (...)
    {
        std::error_code ignored;
        fs::remove_all(m_root, ignored);
        throw;
    }
    bool found = false;
    for (size_t i = 0; i < m_templates.size() && !found; ++i)
    {
        const Line& first = m_templates[i].front();
        if (IsRecordOf(first.head, "SYSCALL") && first.tail.find(" syscall=90 ") != std::string::npos)
        {
            m_endMarker = i;
            found = true;
        }
    }
    if (!found)
    {
        throw std::runtime_error("AuditCorpus: no chmod event in the fixtures");
    }
}

AuditCorpus::~AuditCorpus()
{
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
}

void AuditCorpus::Load(const std::string& path, bool keepExits)
{
    std::ifstream in(path);
    if (!in)
    {
        throw std::runtime_error("AuditCorpus: cannot read " + path);
    }
    // Records grouped by their stamp, in the order of the file.
    std::vector<std::vector<std::string>> events;
    std::string line;
    std::string lastStamp;
    while (std::getline(in, line))
    {
        const size_t open = line.find("audit(");
        const size_t close = open == std::string::npos ? open : line.find("):", open);
        if (close == std::string::npos)
        {
            continue;
        }
        const std::string stamp = line.substr(open + 6, close - open - 6);
        if (stamp != lastStamp || events.empty())
        {
            events.emplace_back();
            lastStamp = stamp;
        }
        events.back().push_back(line);
    }
    for (auto& records : events)
    {
        if (!keepExits && IsExit(records))
        {
            continue;
        }
        Template event;
        for (auto& record : records)
        {
            ReplaceAll(record, kCapturedRoot, m_root);
            // The stamp comes before any path.
            const size_t open = record.find("audit(");
            const size_t close = record.find("):", open);
            event.push_back(Line{record.substr(0, open + 6), record.substr(close) + "\n"});
        }
        m_templates.push_back(std::move(event));
    }
}

void AuditCorpus::BuildTree()
{
    const std::string content(kFileSize, 'x');
    const std::string prefix = m_root + "/";
    for (const auto& event : m_templates)
    {
        std::string cwd = "/";
        for (const auto& line : event)
        {
            if (IsRecordOf(line.head, "CWD"))
            {
                cwd = Field(line.tail, "cwd").value_or("/");
            }
        }
        for (const auto& line : event)
        {
            if (!IsRecordOf(line.head, "PATH"))
            {
                continue;
            }
            const std::string path = Resolve(cwd, line.tail);
            if (path.compare(0, prefix.size(), prefix) != 0)
            {
                continue;
            }
            const std::string nameType = Field(line.tail, "nametype").value_or("");
            const mode_t mode =
                static_cast<mode_t>(std::stoul(Field(line.tail, "mode").value_or("0"), nullptr, 8));
            if (nameType == "PARENT" || S_ISDIR(mode))
            {
                fs::create_directories(path);
                continue;
            }
            if (nameType == "DELETE")
            {
                continue; // gone after the call
            }
            fs::create_directories(fs::path(path).parent_path());
            if (fs::exists(fs::symlink_status(path)))
            {
                continue;
            }
            if (S_ISLNK(mode))
            {
                fs::create_symlink("existing.txt", path);
            }
            else
            {
                std::ofstream(path, std::ios::binary) << content;
            }
        }
    }
}

void AuditCorpus::MatchInodes()
{
    for (auto& event : m_templates)
    {
        std::string cwd = "/";
        for (const auto& line : event)
        {
            if (IsRecordOf(line.head, "CWD"))
            {
                cwd = Field(line.tail, "cwd").value_or("/");
            }
        }
        for (auto& line : event)
        {
            if (!IsRecordOf(line.head, "PATH"))
            {
                continue;
            }
            const std::string path = Resolve(cwd, line.tail);
            if (path.empty())
            {
                continue;
            }
            const mode_t mode =
                static_cast<mode_t>(std::stoul(Field(line.tail, "mode").value_or("0"), nullptr, 8));
            // The kernel names the object it reached: the link itself only
            // for a call on the link.
            struct stat st
            {
            };
            const int rc = S_ISLNK(mode) ? ::lstat(path.c_str(), &st) : ::stat(path.c_str(), &st);
            if (rc != 0)
            {
                continue;
            }
            char device[32];
            std::snprintf(device, sizeof device, "%02x:%02x", ::major(st.st_dev), ::minor(st.st_dev));
            SetField(line.tail, "inode", std::to_string(st.st_ino));
            SetField(line.tail, "dev", device);
        }
    }
}

void AuditCorpus::AppendLine(std::string& out, const Line& line, size_t index, uint32_t serial) const
{
    const uint64_t millis = kFirstMillis + index / kEventsPerMilli;
    char stamp[48];
    const int length =
        std::snprintf(stamp, sizeof stamp, "%llu.%03llu:%u", static_cast<unsigned long long>(millis / 1000),
                      static_cast<unsigned long long>(millis % 1000), serial);
    out += line.head;
    out.append(stamp, static_cast<size_t>(length));
    out += line.tail;
}

void AuditCorpus::AppendEvent(std::string& out, const Template& event, size_t index, uint32_t serial) const
{
    for (const auto& line : event)
    {
        AppendLine(out, line, index, serial);
    }
}

std::string AuditCorpus::Generate(size_t eventCount, uint32_t firstSerial, size_t interleave) const
{
    size_t bytesPerCycle = 0;
    for (const auto& event : m_templates)
    {
        for (const auto& line : event)
        {
            bytesPerCycle += line.head.size() + line.tail.size() + 24;
        }
    }
    std::string out;
    out.reserve(bytesPerCycle * (eventCount / m_templates.size() + 1));
    interleave = std::max<size_t>(interleave, 1);
    for (size_t first = 0; first < eventCount; first += interleave)
    {
        const size_t last = std::min(eventCount, first + interleave);
        for (size_t record = 0, written = 1; written > 0; ++record)
        {
            written = 0;
            for (size_t i = first; i < last; ++i)
            {
                const Template& event = m_templates[i % m_templates.size()];
                if (record < event.size())
                {
                    AppendLine(out, event[record], i, firstSerial + static_cast<uint32_t>(i));
                    ++written;
                }
            }
        }
    }
    return out;
}

std::string AuditCorpus::EndMarker(size_t eventCount, uint32_t firstSerial) const
{
    std::string out;
    AppendEvent(out, m_templates[m_endMarker], eventCount, EndMarkerSerial(eventCount, firstSerial));
    return out;
}

double AuditCorpus::RecordsPerEvent() const
{
    size_t records = 0;
    for (const auto& event : m_templates)
    {
        records += event.size();
    }
    return static_cast<double>(records) / static_cast<double>(m_templates.size());
}

} // namespace vantor::bench
