/*
 * Deletes a bundle and waits until the server has published that one is gone.
 *
 * build: cc delete_and_hear.c $(pkg-config --cflags --libs bundle-client) -o delete_and_hear
 * usage: delete_and_hear NAME
 */
#include <bundle_client.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

enum { ANSWER_MS = 60000, EVENT_MS = 5000 };

static int failed(const char *what, int code)
{
    const char *reason = "";
    if (code == BUNDLE_CLIENT_UNREACHABLE || code == BUNDLE_CLIENT_SYSTEM) {
        reason = strerror(errno);
    }
    fprintf(stderr, "%s: %s%s%s\n", what, bundle_client_text(code), *reason != '\0' ? ": " : "", reason);
    return 1;
}

/* Other programs publish as well, and so may the server one day. */
static int wait_for_deletion(bundle_client_listener *listener)
{
    bundle_client_event event;
    int code;
    do {
        code = bundle_client_listener_next(listener, &event, EVENT_MS);
        if (code != BUNDLE_CLIENT_OK) {
            return failed("no event", code);
        }
        printf("%s %s\n", event.publisher, event.event);
    } while (strcmp(event.publisher, "bundle_service") != 0 || strcmp(event.event, "app.event.init") != 0);
    return 0;
}

int main(int argc, char **argv)
{
    bundle_client_listener *listener;
    int code;
    int status;

    if (argc != 2) {
        fprintf(stderr, "usage: delete_and_hear NAME\n");
        return 2;
    }
    /* Opened first: after the deletion it would miss the event. */
    code = bundle_client_listener_open(&listener);
    if (code != BUNDLE_CLIENT_OK) {
        return failed("no events can be heard", code);
    }
    code = bundle_client_delete(argv[1], ANSWER_MS);
    status = code == BUNDLE_CLIENT_OK ? wait_for_deletion(listener) : failed(argv[1], code);
    bundle_client_listener_close(listener);
    return status;
}
