#include "launch_numbers.h"

namespace SystemServer {

void LaunchNumbers::Add(int pid)
{
    m_launches[pid] = {++m_last, false};
}

void LaunchNumbers::SetReaped(int pid)
{
    const auto launch = m_launches.find(pid);
    if (launch != m_launches.end()) {
        launch->second.isReaped = true;
    }
}

void LaunchNumbers::Remove(int pid)
{
    m_launches.erase(pid);
}

unsigned long LaunchNumbers::NumberOf(int pid) const
{
    const auto launch = m_launches.find(pid);
    return launch == m_launches.end() ? 0 : launch->second.number;
}

bool LaunchNumbers::IsReaped(int pid) const
{
    const auto launch = m_launches.find(pid);
    return launch != m_launches.end() && launch->second.isReaped;
}

bool LaunchNumbers::IsUnreaped(int pid) const
{
    const auto launch = m_launches.find(pid);
    return launch != m_launches.end() && !launch->second.isReaped;
}

} // namespace SystemServer
