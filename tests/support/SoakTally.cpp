#include "tests/support/SoakTally.h"

#include "tests/support/DaemonHarness.h"
#include "tests/support/IocEndToEndFixture.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <optional>

namespace vantor::test
{

namespace
{

// Regular files of dir with data, but the spool's unfinished ".tmp" ones.
std::vector<std::filesystem::path> DataFiles(const std::string& dir)
{
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
    {
        if (entry.is_regular_file() && entry.path().extension() != ".tmp" && entry.file_size() > 0)
        {
            files.push_back(entry.path());
        }
    }
    return files;
}

int64_t ModificationTime(const std::filesystem::path& path)
{
    struct stat status
    {
    };
    ::stat(path.c_str(), &status);
    return static_cast<int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
}

std::string StartKey(long long pid, const std::string& image)
{
    return "start " + std::to_string(pid) + " " + image;
}

std::string BatchKey(uint64_t number, size_t content)
{
    return "batch " + std::to_string(number) + " " + std::to_string(content);
}

// Calls add with the key of each item a spool file or upload holds; false
// when the file is none.
bool ForEachItem(const std::filesystem::path& file, bool fim,
                 const std::function<void(const std::string&, const IocBatch*, size_t)>& add)
{
    const std::string bytes = ReadText(file);
    if (fim)
    {
        std::vector<FimDocument> documents;
        const bool read = ReadFimPayload(bytes, documents);
        for (const auto& document : documents)
        {
            add("fim " + document.action + " " + document.path, nullptr, 0);
        }
        return read;
    }
    const auto batch = ReadIocBatch(bytes);
    if (!batch)
    {
        return false;
    }
    const size_t content = std::hash<std::string>()(bytes);
    add(BatchKey(batch->sequence, content), &*batch, content);
    for (const auto& event : batch->events)
    {
        if (event.kind == "processEvent")
        {
            add(StartKey(event.pid, event.target), nullptr, 0);
        }
    }
    return true;
}

// Items of one kind counted against what arrived.
struct Count
{
    size_t total = 0;
    size_t spooled = 0;
    size_t late = 0;
    size_t arrived = 0;
    size_t down = 0;
    size_t inMemory = 0;
    int64_t oldestInMemory = 0; // ns before its kill
    size_t resent = 0;
    std::vector<std::string> lost;
    std::vector<std::string> duplicated;

    // killedAfter: for an operation of a killed life, how long before the
    // kill it began; -1 while the daemon was down or starting; nothing in
    // the last life.
    void Add(const std::string& key, bool spooled, std::optional<int64_t> killedAfter, size_t received,
             bool resend)
    {
        ++total;
        const bool late = !spooled && !killedAfter;
        if (spooled || late)
        {
            ++(spooled ? this->spooled : this->late);
            if (received == 0)
            {
                lost.push_back(key);
            }
        }
        else if (received == 0)
        {
            ++(*killedAfter < 0 ? down : inMemory);
            oldestInMemory = std::max(oldestInMemory, *killedAfter);
        }
        arrived += received > 0 ? 1 : 0;
        DuplicateOf(key, received, resend);
    }

    void DuplicateOf(const std::string& key, size_t received, bool resend)
    {
        if (received > 1 && resend)
        {
            ++resent;
        }
        else if (received > 1)
        {
            duplicated.push_back(key + " (" + std::to_string(received) + " times)");
        }
    }

    void Write(std::ostream& out, const char* what) const
    {
        out << what << ": " << total << ", " << arrived << " arrived; owed " << spooled + late
            << " (on disk after a kill " << spooled << ", begun after the last restart " << late
            << "); missing but not owed " << down + inMemory
            << " (begun while the daemon was down or starting " << down << ", in memory at a kill "
            << inMemory << ", begun at most " << std::setprecision(1) << std::fixed
            << static_cast<double>(oldestInMemory) / 1e9 << " s before it)\n";
    }
};

void Examples(std::ostream& out, const char* what, const std::vector<std::string>& keys)
{
    for (size_t i = 0; i < keys.size() && i < 10; ++i)
    {
        out << "  " << what << ": " << keys[i] << "\n";
    }
    if (keys.size() > 10)
    {
        out << "  " << what << ": ... " << keys.size() - 10 << " more\n";
    }
}

} // namespace

void SoakTally::Started(int64_t time)
{
    m_starts.push_back(time);
}

void SoakTally::Killed(int64_t time, const std::string& fimDir, const std::string& iocDir)
{
    m_kills.push_back(time);
    for (const bool fim : {true, false})
    {
        for (const auto& file : DataFiles(fim ? fimDir : iocDir))
        {
            const bool read = ForEachItem(file, fim,
                                          [&](const std::string& key, const IocBatch* batch, size_t)
                                          {
                                              m_onDisk[key].push_back(time);
                                              if (batch != nullptr)
                                              {
                                                  m_spooledNumbers.insert(batch->sequence);
                                              }
                                          });
            m_unreadableSpool += read ? 0 : 1;
        }
    }
}

void SoakTally::AddReceived(const std::string& dir)
{
    for (const auto& file : DataFiles(dir))
    {
        const bool fim = file.extension() == ".payload";
        if (!fim && file.extension() != ".ioc")
        {
            continue;
        }
        const int64_t time = ModificationTime(file);
        const bool read = ForEachItem(file, fim,
                                      [&](const std::string& key, const IocBatch* batch, size_t content)
                                      {
                                          m_receipts[key].push_back(time);
                                          if (batch != nullptr)
                                          {
                                              m_numbers[batch->sequence].insert(content);
                                          }
                                      });
        m_unreadableReceived += read ? 0 : 1;
    }
}

bool SoakTally::Resent(const std::string& key) const
{
    const auto receipts = m_receipts.find(key);
    const auto onDisk = m_onDisk.find(key);
    if (receipts == m_receipts.end() || onDisk == m_onDisk.end())
    {
        return false;
    }
    const int64_t first = *std::min_element(receipts->second.begin(), receipts->second.end());
    const auto killsAfter = std::count_if(onDisk->second.begin(), onDisk->second.end(),
                                          [&](int64_t kill) { return kill > first; });
    return static_cast<size_t>(killsAfter) + 1 >= receipts->second.size();
}

bool SoakTally::Report(const std::vector<SoakWorkload::Operation>& journal, std::ostream& out) const
{
    const auto killedAfter = [&](int64_t time) -> std::optional<int64_t>
    {
        const auto life =
            static_cast<size_t>(std::lower_bound(m_kills.begin(), m_kills.end(), time) - m_kills.begin());
        const bool starting = life < m_starts.size() && time < m_starts[life] + kCaptureGrace;
        if (life == m_kills.size() && !starting)
        {
            return std::nullopt;
        }
        return starting ? -1 : m_kills[life] - time;
    };
    const auto received = [&](const std::string& key)
    {
        const auto found = m_receipts.find(key);
        return found == m_receipts.end() ? size_t{0} : found->second.size();
    };

    Count documents;
    Count starts;
    std::map<std::string, size_t> actions;
    size_t workloadDocuments = 0;
    for (const auto& operation : journal)
    {
        const bool mark = operation.action == "mark";
        const std::string key =
            mark ? StartKey(operation.pid, operation.path) : "fim " + operation.action + " " + operation.path;
        (mark ? starts : documents)
            .Add(key, m_onDisk.count(key) > 0, killedAfter(operation.time), received(key), Resent(key));
        ++actions[operation.action];
        workloadDocuments += mark ? 0 : received(key);
    }
    size_t receivedDocuments = 0;
    Count batches;
    for (const auto& [key, times] : m_receipts)
    {
        receivedDocuments += key.rfind("fim ", 0) == 0 ? times.size() : 0;
        if (key.rfind("batch ", 0) == 0)
        {
            batches.total += times.size();
            batches.DuplicateOf(key, times.size(), Resent(key));
        }
    }

    // Batch numbers: every one from the first to the last, each naming one
    // batch.
    std::vector<std::string> gaps;
    std::vector<std::string> shared;
    for (auto it = m_numbers.begin(); it != m_numbers.end(); ++it)
    {
        const auto next = std::next(it);
        for (uint64_t missing = it->first + 1; next != m_numbers.end() && missing < next->first; ++missing)
        {
            gaps.push_back(std::to_string(missing) +
                           (m_spooledNumbers.count(missing) > 0 ? " (was on disk after a kill)" : ""));
        }
        if (it->second.size() > 1)
        {
            shared.push_back(std::to_string(it->first) + " names " + std::to_string(it->second.size()) +
                             " different batches");
        }
    }

    out << "fim workload: " << documents.total << " operations (create " << actions["create"]
        << ", modifyContent " << actions["modifyContent"] << ", rename " << actions["rename"] << ", delete "
        << actions["delete"] << "); documents received: " << receivedDocuments << ", "
        << receivedDocuments - workloadDocuments << " of them of no workload operation\n";
    documents.Write(out, "fim operations");
    starts.Write(out, "ioc marked processes");
    out << "ioc batches: " << batches.total << " received, numbers "
        << (m_numbers.empty()
                ? std::string("none")
                : std::to_string(m_numbers.begin()->first) + ".." + std::to_string(m_numbers.rbegin()->first))
        << "; unreadable files: " << m_unreadableSpool << " in the spools after kills, "
        << m_unreadableReceived << " received\n";
    const size_t lost = documents.lost.size() + starts.lost.size() + gaps.size();
    const size_t duplicated =
        documents.duplicated.size() + starts.duplicated.size() + batches.duplicated.size() + shared.size();
    out << "lost: " << lost << " (fim documents " << documents.lost.size() << " of "
        << documents.spooled + documents.late << " owed, ioc marked starts " << starts.lost.size() << " of "
        << starts.spooled + starts.late << " owed, ioc sequence gaps " << gaps.size() << ")\n";
    out << "duplicated: " << duplicated << " (fim documents " << documents.duplicated.size()
        << ", ioc marked starts " << starts.duplicated.size() << ", ioc batches " << batches.duplicated.size()
        << ", ioc numbers naming two batches " << shared.size() << ")\n";
    out << "sent again after a kill between the receiver storing them and the daemon deleting their spool "
           "file (not counted above): fim documents "
        << documents.resent << ", ioc marked starts " << starts.resent << ", ioc batches " << batches.resent
        << "\n";
    Examples(out, "lost fim document", documents.lost);
    Examples(out, "lost ioc start", starts.lost);
    Examples(out, "ioc sequence gap", gaps);
    Examples(out, "duplicated fim document", documents.duplicated);
    Examples(out, "duplicated ioc start", starts.duplicated);
    Examples(out, "duplicated ioc batch", batches.duplicated);
    Examples(out, "ioc sequence number", shared);
    return lost == 0 && duplicated == 0;
}

} // namespace vantor::test
