#include "tests/support/IncludeLayering.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <set>

namespace fs = std::filesystem;

namespace vantor::test
{
namespace
{

const std::set<std::string> kRoots = {"common", "edr", "audit", "fim", "ioc", "tests", "tools", "bench"};

// The folders a file's layer may include from; empty means no limit.
std::set<std::string> Allowed(const std::string& rel)
{
    auto under = [&](const char* prefix) { return rel.rfind(prefix, 0) == 0; };
    if (under("common/"))
        return {"common"};
    if (under("src/edr/daemon/"))
        return {};
    if (under("src/edr/"))
        return {"common", "edr"};
    if (under("src/audit/"))
        return {"common", "edr", "audit"};
    if (under("src/fim/"))
        return {"common", "edr", "fim"};
    if (under("src/ioc/"))
        return {"common", "edr", "ioc"};
    return {};
}

// The quoted target of an #include line, or "" for any other line.
std::string QuotedInclude(const std::string& line)
{
    size_t i = line.find_first_not_of(" \t");
    if (i == std::string::npos || line[i] != '#')
        return {};
    i = line.find_first_not_of(" \t", i + 1);
    if (i == std::string::npos || line.compare(i, 7, "include") != 0)
        return {};
    i = line.find_first_not_of(" \t", i + 7);
    if (i == std::string::npos || line[i] != '"')
        return {};
    const size_t end = line.find('"', i + 1);
    return end == std::string::npos ? std::string() : line.substr(i + 1, end - i - 1);
}

bool IsSource(const fs::path& p)
{
    const auto ext = p.extension();
    return ext == ".h" || ext == ".cpp" || ext == ".cc" || ext == ".hpp";
}

} // namespace

std::vector<std::string> CheckIncludeLayering(const std::string& root)
{
    std::vector<fs::path> files;
    std::map<std::string, int> basenames;
    for (const char* top : {"common", "src", "tests", "tools", "bench"})
    {
        const fs::path dir = fs::path(root) / top;
        if (!fs::is_directory(dir))
            continue;
        for (const auto& entry : fs::recursive_directory_iterator(dir))
        {
            if (entry.is_regular_file() && IsSource(entry.path()))
            {
                files.push_back(entry.path());
                ++basenames[entry.path().filename().string()];
            }
        }
    }

    std::vector<std::string> problems;
    for (const auto& file : files)
    {
        const std::string rel = fs::relative(file, root).string();
        const auto allowed = Allowed(rel);
        std::ifstream in(file);
        std::string line;
        for (int number = 1; std::getline(in, line); ++number)
        {
            const std::string target = QuotedInclude(line);
            if (target.empty())
                continue;
            const std::string where = rel + ":" + std::to_string(number) + ": \"" + target + "\" ";
            const auto slash = target.find('/');
            if (slash == std::string::npos)
            {
                problems.push_back(where +
                                   (basenames[target] > 1 ? "is an ambiguous bare name" : "is not rooted"));
                continue;
            }
            const std::string layer = target.substr(0, slash);
            if (kRoots.count(layer) == 0)
            {
                problems.push_back(where + "is not rooted in a layer");
                continue;
            }
            if (!allowed.empty() && allowed.count(layer) == 0)
            {
                problems.push_back(where + "reaches outside the file's layer");
                continue;
            }
            if (target.rfind("edr/daemon/", 0) == 0 && rel.rfind("src/", 0) == 0 &&
                rel.rfind("src/edr/daemon/", 0) != 0)
            {
                problems.push_back(where + "reaches up into the daemon");
            }
        }
    }
    return problems;
}

} // namespace vantor::test
