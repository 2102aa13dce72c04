#include "support/fault_plan.h"

#include <pthread.h>

#include <array>
#include <cerrno>
#include <cstddef>

namespace {

std::array<Plan, static_cast<std::size_t>(Call::NUMBER_OF_CALLS)> g_plans;
std::atomic<pthread_t> g_lockingThread;

/// Counts an action as under way while it lives.
class UnderWay {
public:
    explicit UnderWay(std::atomic<int>& count) : m_count(count) { ++m_count; }
    ~UnderWay() { --m_count; }
    UnderWay(const UnderWay&) = delete;
    UnderWay& operator=(const UnderWay&) = delete;

private:
    std::atomic<int>& m_count;
};

void DoAction(Plan& plan, int argument)
{
    const UnderWay underWay(plan.actionsUnderWay);
    if (const CallAction* const action = plan.action.load()) {
        (*action)(argument);
    }
}

} // namespace

Plan& PlanOf(Call call)
{
    return g_plans[static_cast<std::size_t>(call)];
}

void LockFailsOnThisThread()
{
    g_lockingThread = pthread_self();
}

bool MustFail(Call call, int argument)
{
    Plan& plan = PlanOf(call);
    ++plan.calls;
    DoAction(plan, argument);
    if (plan.count <= 0 || plan.after.fetch_sub(1) > 0) {
        return false;
    }
    return plan.count.fetch_sub(1) > 0;
}

bool FailsWithErrno(Call call, int argument)
{
    if (!MustFail(call, argument)) {
        return false;
    }
    errno = PlanOf(call).value;
    return true;
}

bool LockMustFail()
{
    return PlanOf(Call::LOCK_MUTEX).count > 0 && pthread_equal(g_lockingThread, pthread_self()) != 0 &&
           MustFail(Call::LOCK_MUTEX, 0);
}

int FaultValue(Call call)
{
    return PlanOf(call).value;
}
