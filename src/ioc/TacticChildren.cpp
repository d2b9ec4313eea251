#include "ioc/TacticChildren.h"

namespace vantor::ioc::internal
{

void TacticChildren::Add(pid_t parentPid, pid_t pid)
{
    m_size += m_byParent[parentPid].insert(pid).second ? 1 : 0;
}

void TacticChildren::Remove(pid_t parentPid, pid_t pid)
{
    const auto it = m_byParent.find(parentPid);
    if (it == m_byParent.end() || it->second.erase(pid) == 0)
    {
        return;
    }
    --m_size;
    if (it->second.empty())
    {
        m_byParent.erase(it);
    }
}

const std::set<pid_t>* TacticChildren::Of(pid_t parentPid) const
{
    const auto it = m_byParent.find(parentPid);
    return it == m_byParent.end() ? nullptr : &it->second;
}

void TacticChildren::Clear()
{
    m_byParent.clear();
    m_size = 0;
}

} // namespace vantor::ioc::internal
