// A platform that does nothing, so that a benchmark measures the server's own work without the log and the sockets.
#include <bolt.h>
#include <lumo.h>
#include <sprintf_s.h>
#include <zq_log.h>

void ZQ_WriteLog(int /*module*/, int /*level*/, int /*flag*/, int /*reserved*/, const char* /*file*/, int /*line*/,
                 const char* /*format*/, ...)
{}

void ZQ_WriteLanguageLog(int /*module*/, int /*level*/, const char* /*format*/, const char* /*secondFormat*/, ...) {}

lumo_message* lumo_message_new(int /*flags*/)
{
    return nullptr;
}

void lumo_message_put(lumo_message* /*msg*/) {}

void lumo_header_clear(lumo_message* msg)
{
    msg->header = {msg->header.length, 0, 0, 0, 0};
}

int lumo_content(lumo_message* /*msg*/, void** /*data*/, int* /*length*/)
{
    return -1;
}

int lumo_content_add(lumo_message* /*msg*/, const void* /*data*/, int /*length*/, int /*flags*/)
{
    return -1;
}

void lumo_content_clear(lumo_message* msg)
{
    msg->header.length = 0;
}

int lumo_message_async_send(lumo_message* /*msg*/, bolt_connection* /*conn*/, int /*flags*/)
{
    return 0;
}

int lumo_message_sendfd(lumo_message* /*msg*/, int /*fd*/)
{
    return -1;
}

bolt_event_mgr* bolt_event_mgr_new(int /*flags*/)
{
    return nullptr;
}

int bolt_server_register(const char* /*service*/, bolt_event_mgr* /*mgr*/, const bolt_server_ops* /*ops*/,
                         void* /*arg*/)
{
    return -1;
}

int bolt_event_mgr_run(bolt_event_mgr* /*mgr*/, int /*timeoutMs*/)
{
    return -1;
}

int sprintf_s(char* /*dest*/, size_t /*destSize*/, const char* /*format*/, ...)
{
    return -1;
}
