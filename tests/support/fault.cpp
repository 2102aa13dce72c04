#include "support/fault.h"

#include "support/fault_plan.h"

#include <thread>
#include <utility>

Fault::Fault(Call call, int value, int count, int after) : m_call(call), m_count(count)
{
    Plan& plan = PlanOf(call);
    LockFailsOnThisThread();
    plan.value = value;
    plan.after = after;
    plan.count = count;
}

Fault::~Fault()
{
    PlanOf(m_call).count = 0;
    PlanOf(m_call).after = 0;
}

bool Fault::HasStruck() const
{
    return PlanOf(m_call).count < m_count;
}

BeforeEach::BeforeEach(Call call, Action action) : m_call(call), m_action(std::move(action))
{
    PlanOf(m_call).action = &m_action;
}

BeforeEach::~BeforeEach()
{
    Plan& plan = PlanOf(m_call);
    plan.action = nullptr;
    while (plan.actionsUnderWay != 0) {
        std::this_thread::yield();
    }
}

CallCounter::CallCounter(Call call) : m_call(call), m_before(PlanOf(call).calls) {}

int CallCounter::Count() const
{
    return PlanOf(m_call).calls - m_before;
}
