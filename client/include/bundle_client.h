#ifndef BUNDLE_CLIENT_H
#define BUNDLE_CLIENT_H

/*
 * Functions for clients of the bundle server: delete a bundle, publish events and listen for them. The interface is C,
 * so that any language can use it. The library needs only the C library.
 *
 * Threads: every function may be called from any thread, also by several at the same time. Only one
 * thread at a time may use a listener.
 *
 * Time limits are in milliseconds of the monotonic clock, so setting the time of day does not matter. A negative value
 * means no limit; 0 does not wait. A call never ends with BUNDLE_CLIENT_TIMEOUT before its limit is over.
 *
 * Signals: a signal handler does not end a call, and no call raises SIGPIPE. No function is a cancellation point of
 * pthread_cancel.
 *
 * Resources: every descriptor of the library is close-on-exec. Except a listener's, none stays open after the call.
 * Only bundle_client_listener_open allocates memory.
 *
 * Failures: a function that returns an int returns 0, BUNDLE_CLIENT_OK, or one of the codes below. If a code says
 * so, errno contains the reason; otherwise errno has no meaning.
 *
 * Rights: the server serves its own user and root.
 */

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BUNDLE_CLIENT_API __attribute__((visibility("default")))

/* What functions return. The numbers never change; later versions may add some. */
enum {
    BUNDLE_CLIENT_OK = 0,              /* done */
    BUNDLE_CLIENT_INVALID = 1,         /* an argument is not as this header requires; nothing was done */
    BUNDLE_CLIENT_UNREACHABLE = 2,     /* no server can be reached, errno says why; nothing was done */
    BUNDLE_CLIENT_TIMEOUT = 3,         /* the time is over; the server may still execute the request */
    BUNDLE_CLIENT_CLOSED = 4,          /* the server closed the connection without a reply: it has ended, or refuses
                                          this user */
    BUNDLE_CLIENT_SHORT_REPLY = 5,     /* the reply is shorter than a header */
    BUNDLE_CLIENT_WRONG_LENGTH = 6,    /* the reply's length field is not its content's length */
    BUNDLE_CLIENT_NOT_A_REPLY = 7,     /* the packet is not a reply */
    BUNDLE_CLIENT_FAILED = 8,          /* the server could not do it, or only in part; its log says why */
    BUNDLE_CLIENT_UNKNOWN_BUNDLE = 9,  /* the server knows no bundle of that name */
    BUNDLE_CLIENT_UNKNOWN_STATUS = 10, /* the reply has a status that this library does not know */
    BUNDLE_CLIENT_UNHEARD = 11,        /* no program listens, or the listener is too slow; the event is dropped */
    BUNDLE_CLIENT_NOT_A_FIFO = 12,     /* the event service's path is not a FIFO */
    BUNDLE_CLIENT_SYSTEM = 13          /* a system call failed, errno says why */
};

/* The longest name of a bundle, of a publisher and of an event, in bytes without the NUL. */
#define BUNDLE_CLIENT_NAME_MAX 127
#define BUNDLE_CLIENT_EVENT_NAME_MAX 15

/*
 * Deletes a bundle: the server stops it, uninstalls it and removes its directory.
 *
 * name     the one in the bundle's manifest, 1 to BUNDLE_CLIENT_NAME_MAX bytes
 * timeout  in milliseconds, for connecting, the request and its reply together; a script of a bundle can hold the
 *          server for a long time
 *
 * Returns BUNDLE_CLIENT_OK when the bundle is gone, BUNDLE_CLIENT_UNKNOWN_BUNDLE when no bundle has that name,
 * BUNDLE_CLIENT_FAILED when it could not be deleted. After INVALID, UNREACHABLE and UNKNOWN_BUNDLE the bundle is
 * unchanged. After any other code it may be gone, now or later.
 */
BUNDLE_CLIENT_API int bundle_client_delete(const char *name, int timeout);

/*
 * Whether a server answers requests. It does so after all bundles have been started.
 *
 * timeout  in milliseconds, for connecting
 * process  receives the server's process id, 0 if the server is in another pid namespace. May be null. Set only
 *          when BUNDLE_CLIENT_OK is returned
 *
 * Returns BUNDLE_CLIENT_OK, BUNDLE_CLIENT_UNREACHABLE, BUNDLE_CLIENT_TIMEOUT or BUNDLE_CLIENT_SYSTEM.
 */
BUNDLE_CLIENT_API int bundle_client_server(int timeout, pid_t *process);

/*
 * Sends one request and waits for its reply. bundle_client_delete uses it. Use it yourself when this library has no
 * function that sends your request.
 *
 * method   0 to 127
 * content  size bytes, at most 65,528; may be null when size is 0
 * timeout  in milliseconds, for connecting, the request and its reply together
 * status   receives the reply's status. May be null. Set only when BUNDLE_CLIENT_OK is returned
 *
 * Returns BUNDLE_CLIENT_OK for any valid reply, with any status.
 */
BUNDLE_CLIENT_API int bundle_client_request(unsigned method, const void *content, size_t size, int timeout,
                                            unsigned *status);

/*
 * Publishes an event. Never waits: an event that cannot be written at once is dropped.
 *
 * publisher, event  at most BUNDLE_CLIENT_EVENT_NAME_MAX bytes each
 *
 * Returns BUNDLE_CLIENT_OK when a listener has room for the event; the listener may still not read it;
 * BUNDLE_CLIENT_UNHEARD when the event is dropped; BUNDLE_CLIENT_NOT_A_FIFO, BUNDLE_CLIENT_SYSTEM. Another program that
 * publishes at the same moment counts as a listener.
 */
BUNDLE_CLIENT_API int bundle_client_publish(const char *publisher, const char *event);

/* An event; both names end with a NUL. The server publishes "app.event.init" as "bundle_service" after each deletion.
 */
typedef struct bundle_client_event {
    char publisher[BUNDLE_CLIENT_EVENT_NAME_MAX + 2];
    char event[BUNDLE_CLIENT_EVENT_NAME_MAX + 2];
} bundle_client_event;

/* A listener for events. All listeners of a machine share the events: each event reaches one of them. */
typedef struct bundle_client_listener bundle_client_listener;

/*
 * Begins to listen: creates the event service and its directory if they are missing. From then on, some hundreds of
 * events are kept for the listener.
 *
 * listener  receives the new listener, which the caller closes; null on failure
 *
 * Returns BUNDLE_CLIENT_OK, BUNDLE_CLIENT_NOT_A_FIFO, BUNDLE_CLIENT_SYSTEM, or BUNDLE_CLIENT_INVALID.
 */
BUNDLE_CLIENT_API int bundle_client_listener_open(bundle_client_listener **listener);

/*
 * Waits for the next event.
 *
 * event    receives it; set only when BUNDLE_CLIENT_OK is returned
 * timeout  in milliseconds, how long to wait if no event has come yet
 *
 * Returns BUNDLE_CLIENT_OK, BUNDLE_CLIENT_TIMEOUT when none has come, BUNDLE_CLIENT_SYSTEM, or BUNDLE_CLIENT_INVALID.
 */
BUNDLE_CLIENT_API int bundle_client_listener_next(bundle_client_listener *listener, bundle_client_event *event,
                                                  int timeout);

/*
 * The listener's descriptor, for poll and similar calls. The listener owns it: do not read or close it. When it is
 * readable, take events with a limit of 0 until BUNDLE_CLIENT_TIMEOUT comes: the listener reads several at once. -1 for
 * null.
 */
BUNDLE_CLIENT_API int bundle_client_listener_fd(const bundle_client_listener *listener);

/*
 * How many bytes the listener has skipped since the last call because they were not an event. Another program
 * has written them. 0 for null.
 */
BUNDLE_CLIENT_API size_t bundle_client_listener_skipped(bundle_client_listener *listener);

/* Ends listening and frees the listener. The event service stays. Null is allowed. */
BUNDLE_CLIENT_API void bundle_client_listener_close(bundle_client_listener *listener);

/* An English text for a code, without a line end. Never null, also for an unknown number; static. */
BUNDLE_CLIENT_API const char *bundle_client_text(int code);

/* The version of the running library, such as "0.1.0". Static. */
BUNDLE_CLIENT_API const char *bundle_client_version(void);

#ifdef __cplusplus
}
#endif

#endif
