#ifndef BOLT_H
#define BOLT_H

/* The device's IPC framework: named services, an event loop, connections that carry lumo messages. Everything runs on
 * the thread that calls bolt_event_mgr_run. */

#include "lumo.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct bolt_event_mgr bolt_event_mgr;
typedef struct bolt_server bolt_server;
typedef struct bolt_connection bolt_connection;

typedef struct bolt_server_ops {
    int (*start)(bolt_server *server, void *arg); /* while the service is registered; 0 accepts it */
    void (*stop)(bolt_server *server, void *arg); /* when the loop has ended */
} bolt_server_ops;

typedef struct bolt_protocol_ops {
    void (*connected)(bolt_connection *conn); /* before its first message */
    void (*message)(lumo_message *msg, bolt_connection *conn); /* msg is the loop's; it is put after the call */
} bolt_protocol_ops;

/* An empty callback is a null pointer and is not called. */

struct bolt_server {
    const bolt_protocol_ops *protocol_ops; /* then the library's own fields */
};

struct bolt_connection {
    int fd; /* then the library's own fields */
};

/* A new event manager, which lives as long as the process; null on failure. flags: 0. */
bolt_event_mgr *bolt_event_mgr_new(int flags);

/* Registers a service under a name and calls ops->start. The ops must outlive the event manager.
 * Returns 0 on success. */
int bolt_server_register(const char *service, bolt_event_mgr *mgr, const bolt_server_ops *ops, void *arg);

/* Runs the event loop until it is ended, or for timeout_ms milliseconds (-1: no limit). Returns 0 when it ran. */
int bolt_event_mgr_run(bolt_event_mgr *mgr, int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
