#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vantor::bench
{

// A large body of raw audit text made from the records captured on this
// kernel (tests/fixtures/audit): file writes, creates, renames, attribute
// changes, deletes, execve, clone, exit and connect events, replicated and
// renumbered (serials and timestamps) as many times as asked.
//
// The captured workload ran in /tmp/corvid-audit-capture. The corpus moves it
// into a fresh temporary tree, which it creates (directories, regular files
// with some content, a symlink) and removes when destroyed, and rewrites the
// inode and device of every PATH record whose file now exists, so that the
// events see real files, as they would on a live system.
class AuditCorpus
{
public:
    // The directory the fixtures were captured in.
    static constexpr const char* kCapturedRoot = "/tmp/corvid-audit-capture";
    // Content size of each regular file in the tree.
    static constexpr size_t kFileSize = 1024;

    // Loads the fixtures from fixtureDir and builds the file tree. Throws
    // std::runtime_error when a fixture cannot be read or the tree cannot be
    // made.
    explicit AuditCorpus(const std::string& fixtureDir);
    ~AuditCorpus();

    AuditCorpus(const AuditCorpus&) = delete;
    AuditCorpus& operator=(const AuditCorpus&) = delete;

    // Raw audit text of eventCount events, serials from firstSerial on, 10
    // events per millisecond; one record per line. With interleave above 1
    // the records of each run of that many events are mixed, one record of
    // each unfinished event in turn, as the kernel sends them when calls on
    // several CPUs end at once; every event keeps its records' order.
    std::string Generate(size_t eventCount, uint32_t firstSerial, size_t interleave = 1) const;

    // One event that follows a run of Generate(eventCount, firstSerial): a
    // chmod of a file in the data directory with the serial
    // firstSerial + eventCount, so that a consumer can recognise the end of
    // a run.
    std::string EndMarker(size_t eventCount, uint32_t firstSerial) const;
    uint32_t EndMarkerSerial(size_t eventCount, uint32_t firstSerial) const
    {
        return firstSerial + static_cast<uint32_t>(eventCount);
    }

    // The temporary tree and the directory of the workload's files in it.
    const std::string& Root() const { return m_root; }
    std::string DataDir() const { return m_root + "/data"; }

    // Distinct events of the fixtures, replicated by Generate.
    size_t TemplateCount() const { return m_templates.size(); }
    // Records per event, averaged over the templates.
    double RecordsPerEvent() const;

private:
    // One record line, split around its stamp "audit(<time>:<serial>)".
    struct Line
    {
        std::string head; // up to and including "audit("
        std::string tail; // from "):" on, with the line end
    };
    using Template = std::vector<Line>;

    void Load(const std::string& path, bool keepExits);
    void BuildTree();
    void MatchInodes();
    void AppendEvent(std::string& out, const Template& event, size_t index, uint32_t serial) const;
    void AppendLine(std::string& out, const Line& line, size_t index, uint32_t serial) const;

    std::string m_root;
    std::vector<Template> m_templates;
    size_t m_endMarker = 0; // template index of the chmod
};

} // namespace vantor::bench
