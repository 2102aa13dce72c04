#include "system/restart/phase_watch.h"

#include "support/eventually.h"

#include <gtest/gtest.h>

void PhaseWatch::Restart()
{
    m_followed = m_daemon.Log().size();
    m_hasBegun = false;
    m_hasEnded = false;
}

void PhaseWatch::Expect(const std::string& begin, const std::string& end)
{
    m_begin = begin;
    m_end = end;
    m_hasBegun = begin.empty();
}

void PhaseWatch::Follow()
{
    const std::vector<LogRecord>& log = m_daemon.Log();
    for (; m_followed < log.size(); ++m_followed) {
        const std::string& message = log[m_followed].message;
        m_hasEnded = m_hasEnded || (m_hasBegun && message == m_end);
        m_hasBegun = m_hasBegun || message.rfind(m_begin, 0) == 0;
    }
}

void PhaseWatch::AwaitBegin()
{
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] {
        Follow();
        return m_hasBegun;
    })) << m_begin;
}

std::chrono::microseconds PhaseWatch::Measure()
{
    AwaitBegin();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] {
        Follow();
        return m_hasEnded;
    })) << m_end;
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
}
