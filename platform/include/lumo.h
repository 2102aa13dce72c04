#ifndef LUMO_H
#define LUMO_H

/* The device's message API. A message is a header of 8 bytes and a content. Not thread-safe: a message belongs to the
 * thread that made it or, in a callback of bolt, to the thread that runs the event loop. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct bolt_connection;

typedef struct lumo_header { /* 8 bytes, no padding, host byte order; the wire header as it is */
    uint16_t length;         /* bytes 0-1: content length in bytes, kept by the library */
    uint8_t  kind;           /* byte 2 */
    uint8_t  method;         /* byte 3: low 7 bits the method, bit 7 (0x80) the response flag */
    uint16_t uri;            /* bytes 4-5 */
    uint16_t status;         /* bytes 6-7 */
} lumo_header;
static_assert(sizeof(lumo_header) == 8 && offsetof(lumo_header, kind) == 2 && offsetof(lumo_header, method) == 3 &&
                  offsetof(lumo_header, uri) == 4 && offsetof(lumo_header, status) == 6,
              "the header's fields stand where the wire has them");

struct lumo_message {
    lumo_header header; /* then the library's own fields */
};
typedef struct lumo_message lumo_message;

/* A new message with one reference, an all-zero header and no content; null when out of memory. flags: 0. */
lumo_message *lumo_message_new(int flags);

/* Gives up one reference; the last one frees the message. Null is allowed. */
void lumo_message_put(lumo_message *msg);

/* Zeroes the header, apart from its length. */
void lumo_header_clear(lumo_message *msg);

/* Points data at the content and sets length to its bytes. The content stays the message's and is valid until the
 * next call that changes it. Returns 0, or non-zero when there is no content (data and length are then untouched). */
int lumo_content(lumo_message *msg, void **data, int *length);

/* Appends a copy of length bytes. Returns 0 on success; on failure the content is unchanged. flags: 0. */
int lumo_content_add(lumo_message *msg, const void *data, int length, int flags);

/* Removes the content. */
void lumo_content_clear(lumo_message *msg);

/* Queues the message to be sent on the connection and takes a reference of its own until it is sent; never blocks.
 * Returns 0, or non-zero when it cannot be queued. flags: 0. */
int lumo_message_async_send(lumo_message *msg, struct bolt_connection *conn, int flags);

/* Writes the whole message, header and content, to fd in one write. Returns 0 on success. */
int lumo_message_sendfd(lumo_message *msg, int fd);

#ifdef __cplusplus
}
#endif

#endif
