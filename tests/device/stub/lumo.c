#include <lumo.h>

lumo_message* lumo_message_new(int flags)
{
    return 0;
}

void lumo_message_put(lumo_message* msg) {}

void lumo_header_clear(lumo_message* msg) {}

int lumo_content(lumo_message* msg, void** data, int* length)
{
    return -1;
}

int lumo_content_add(lumo_message* msg, const void* data, int length, int flags)
{
    return -1;
}

void lumo_content_clear(lumo_message* msg) {}

int lumo_message_async_send(lumo_message* msg, struct bolt_connection* conn, int flags)
{
    return -1;
}

int lumo_message_sendfd(lumo_message* msg, int fd)
{
    return -1;
}
