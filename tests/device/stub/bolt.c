#include <bolt.h>

bolt_event_mgr* bolt_event_mgr_new(int flags)
{
    return 0;
}

int bolt_server_register(const char* service, bolt_event_mgr* mgr, const bolt_server_ops* ops, void* arg)
{
    return -1;
}

int bolt_event_mgr_run(bolt_event_mgr* mgr, int timeout_ms)
{
    return -1;
}
