#ifndef TESTS_SUPPORT_FAULT_H
#define TESTS_SUPPORT_FAULT_H

#include "support/call.h"

#include <lumo.h>

#include <bolt.h>

#include <functional>
#include <string>
#include <vector>

/// While it lives, a call fails, on every thread and in forked children too. Each call may have one at a time.
class Fault {
public:
    static constexpr int ALWAYS = 1'000'000'000;

    /// @param value the errno of a system call, which returns -1; the result of a call of the platform (null if that is
    /// a pointer); the code of the exception of a call that throws
    /// @param count how many times it fails
    /// @param after how many calls succeed before
    explicit Fault(Call call, int value, int count = ALWAYS, int after = 0);

    /// Whether a call has failed by this object.
    bool HasStruck() const;

    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

private:
    const Call m_call;
    const int m_count;
};

/// While it lives, an action runs before each call. The action gets the call's first argument, if that is a number (a
/// descriptor, a pid). Then the call continues, unless the action throws, which only calls of the framework may. The
/// destructor waits for actions that run on other threads.
class BeforeEach {
public:
    using Action = std::function<void(int)>;

    BeforeEach(Call call, Action action);
    ~BeforeEach();
    BeforeEach(const BeforeEach&) = delete;
    BeforeEach& operator=(const BeforeEach&) = delete;

private:
    const Call m_call;
    const Action m_action;
};

/// While it lives, nanosleep returns at once as if its whole time had passed.
class NoPauses {
public:
    NoPauses();
    ~NoPauses();
    NoPauses(const NoPauses&) = delete;
    NoPauses& operator=(const NoPauses&) = delete;
};

/// While it lives, each file seems to be on an overlay.
class OverlayEverywhere {
public:
    OverlayEverywhere();
    ~OverlayEverywhere();
    OverlayEverywhere(const OverlayEverywhere&) = delete;
    OverlayEverywhere& operator=(const OverlayEverywhere&) = delete;
};

/// Counts the calls since the object was made, failed ones too. Does not count LOCK_MUTEX.
class CallCounter {
public:
    explicit CallCounter(Call call);
    int Count() const;

private:
    Call m_call;
    int m_before;
};

/// While it lives, lumo_message_async_send sends. Otherwise it only records.
class RealSending {
public:
    RealSending();
    ~RealSending();
    RealSending(const RealSending&) = delete;
    RealSending& operator=(const RealSending&) = delete;
};

/// The messages that lumo_message_async_send has recorded.
struct SentMessage {
    lumo_header header;
    std::string content;
    const bolt_connection* connection;
    int flags;
};
std::vector<SentMessage> TakeSentMessages();

/// The arguments of the last bolt_server_register and bolt_event_mgr_run.
struct ServiceCalls {
    std::string service;
    bolt_event_mgr* registeredManager = nullptr;
    const bolt_server_ops* ops = nullptr;
    void* argument = nullptr;
    bolt_event_mgr* runManager = nullptr;
    int timeout = 0;
};
ServiceCalls LastServiceCalls();

#endif
