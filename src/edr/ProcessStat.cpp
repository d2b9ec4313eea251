#include "edr/ProcessStat.h"

#include "common/util/WholeNumber.h"

#include <algorithm>
#include <array>

namespace vantor::edr
{

std::optional<ProcessStat> ProcessStat::Parse(std::string_view text)
{
    const size_t close = text.rfind(')');
    if (close == std::string_view::npos)
    {
        return std::nullopt;
    }
    // fields[0] is the file's third field (the state); the start time is
    // its 22nd.
    std::array<std::string_view, 20> fields;
    size_t count = 0;
    const std::string_view rest = text.substr(close + 1);
    for (size_t at = rest.find_first_not_of(" \n"); at != std::string_view::npos && count < fields.size();
         at = rest.find_first_not_of(" \n", at))
    {
        const size_t end = std::min(rest.find_first_of(" \n", at), rest.size());
        fields[count++] = rest.substr(at, end - at);
        at = end;
    }
    ProcessStat stat;
    if (count < fields.size() || fields[0].size() != 1 ||
        !util::ParseWholeNumber(fields[1], stat.parentPid) ||
        !util::ParseWholeNumber(fields[15], stat.priority) ||
        !util::ParseWholeNumber(fields[19], stat.startTicks))
    {
        return std::nullopt;
    }
    stat.state = fields[0][0];
    return stat;
}

} // namespace vantor::edr
