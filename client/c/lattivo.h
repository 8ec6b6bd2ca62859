/* Lets a program drive a node of the network simulator Lattivo: it sends and receives the frames of the node.
 *
 * One lattivo_client is one connection. Connections share nothing; a client must not be used by two threads
 * at once. Memory is taken by lattivo_open() and given back by lattivo_close(), and never in between.
 *
 * A signal ends no wait: after its handler the call waits on. A program that ends by a flag of its handler
 * gives short timeouts and looks at the flag between the calls, or waits in a poll() of its own. */
#ifndef LATTIVO_H
#define LATTIVO_H

#include "lattivo_protocol.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define LATTIVO_API __attribute__((visibility("default")))
#else
#define LATTIVO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What every function answers. lattivo_error() names the host, the limit or the system's reason. */
typedef enum lattivo_result {
    LATTIVO_OK = 0,
    LATTIVO_AGAIN,     /* not within the given time: nothing has arrived, or there is no room yet */
    LATTIVO_WRONG_USE, /* an argument or the order of calls is wrong; nothing has happened */
    LATTIVO_TOO_LARGE, /* the message is larger than a segment of the path; nothing has been sent */
    LATTIVO_OUT_OF_MEMORY,
    /* From here on the connection is over, and only lattivo_close() is left. */
    LATTIVO_UNKNOWN_HOST,
    LATTIVO_NO_CONNECTION,   /* the simulator cannot be reached, or does not answer in time */
    LATTIVO_REFUSED,         /* the simulator does not take the identification */
    LATTIVO_CLOSED,          /* the simulator has closed the connection, or the network has lost it */
    LATTIVO_FRAME_TOO_LARGE, /* a frame arrives that is larger than the client's largest frame */
    LATTIVO_PROTOCOL_ERROR,  /* an invalid message has arrived */
    LATTIVO_SYSTEM_ERROR     /* a call of the operating system has failed */
} lattivo_result;

/* Members that are 0 take the default, so `lattivo_options options = {0};` is a good start. The addresses of
 * a host share the timeout. The system's search for the host's name comes before, with time limits of its
 * own. */
typedef struct lattivo_options {
    size_t largest_frame; /* bytes of the largest frame that can be received; default 65536 */
    int timeout;          /* ms until connecting, identifying or closing is given up; default 10000 */
    int attach_pause;     /* ms to wait after identifying by name; default: the client finds out, see there */
} lattivo_options;

typedef struct lattivo_message {
    enum lattivo_message_type type;     /* frame, confirmation or debug command */
    const uint8_t* frame;               /* its bytes, valid until the next call of lattivo_receive() */
    size_t size;                        /* of the frame */
    enum lattivo_outcome outcome;       /* of a confirmation */
    enum lattivo_debug_command command; /* of a debug command */
} lattivo_message;

typedef struct lattivo_client lattivo_client;

/* Life */

/* Connects to a simulator by TCP. Host is a name or an address, IPv4 or IPv6; options may be NULL. The client
 * is made on failure too, so that lattivo_error() can tell why; it is NULL only when there is no memory. */
LATTIVO_API lattivo_result lattivo_open(lattivo_client** client, const char* host, uint16_t port,
                                        const lattivo_options* options);

/* Says which node the program drives, where the network identifies programs by address. The program may send
 * at once. A refusal shows later, as LATTIVO_CLOSED. Whatever else listens at the port may stay silent: a
 * wrong port then shows only because no confirmations come. */
LATTIVO_API lattivo_result lattivo_identify_by_address(lattivo_client* client, const void* address,
                                                       size_t size);

/* Says which node the program drives, where the network identifies programs by name (UTF-8). Returns when the
 * simulator has attached the program, so that nothing that is sent afterwards is lost, or has refused it. To
 * find out it connects to the simulator twice more for a moment. A tunnel that carries each connection at its
 * own speed makes that unsafe: options.attach_pause makes it wait that long instead. */
LATTIVO_API lattivo_result lattivo_identify_by_name(lattivo_client* client, const char* name);

/* Sends what is queued, waits until the simulator has read it all and closes the connection. Does not wait
 * after LATTIVO_NO_CONNECTION. Frames that still arrive are dropped. Gives all memory back whatever it
 * returns. NULL is allowed. */
LATTIVO_API lattivo_result lattivo_close(lattivo_client* client);

/* Sending */

/* Each of these queues one message. What is queued leaves with lattivo_flush(), when lattivo_receive() has no
 * more messages at hand, or when the queue is full. LATTIVO_AGAIN: the message did not find room within
 * timeout ms, and is not queued. A timeout of 0 does not wait, a negative one waits forever. */
LATTIVO_API lattivo_result lattivo_send_frame(lattivo_client* client, const void* frame, size_t size,
                                              int timeout);
LATTIVO_API lattivo_result lattivo_send_address(lattivo_client* client, const void* address, size_t size,
                                                int timeout);
LATTIVO_API lattivo_result lattivo_send_name(lattivo_client* client, const char* name, int timeout);
LATTIVO_API lattivo_result lattivo_send_colour(lattivo_client* client, uint8_t red, uint8_t green,
                                               uint8_t blue, int timeout);
/* Switches the node on or off. */
LATTIVO_API lattivo_result lattivo_send_active(lattivo_client* client, bool active, int timeout);

/* Gives the kernel what is queued. LATTIVO_AGAIN: a part is still queued after timeout ms. */
LATTIVO_API lattivo_result lattivo_flush(lattivo_client* client, int timeout);

/* Returns how many bytes a frame may have to be sent over the present path. That may grow while the
 * connection lives. 0: the connection is over. */
LATTIVO_API size_t lattivo_largest_frame(lattivo_client* client);

/* Receiving */

/* Gives the next message, for which it waits up to timeout ms. Sends what is queued before it waits or looks
 * for new bytes, but not while whole messages are here already: lattivo_flush() does. Receive often: the
 * simulator drops a program when 64 MiB wait for it. */
LATTIVO_API lattivo_result lattivo_receive(lattivo_client* client, lattivo_message* message, int timeout);

/* A poll() loop of the program's own */

/* Poll this for POLLIN, and call lattivo_receive() until it returns LATTIVO_AGAIN. -1: there is no
 * connection. */
LATTIVO_API int lattivo_descriptor(const lattivo_client* client);

/* True: poll for POLLOUT too, and then call lattivo_flush(). */
LATTIVO_API bool lattivo_wants_write(const lattivo_client* client);

/* True: a message is here already. Call lattivo_receive() before polling, which would not tell. */
LATTIVO_API bool lattivo_has_more(const lattivo_client* client);

/* Returns after how many ms lattivo_flush() is to be called, whatever poll() says. -1: there is no need. */
LATTIVO_API int lattivo_timeout(const lattivo_client* client);

/* Texts */

/* Returns what went wrong last with this client, as one line without a line end. Of NULL: that there is no
 * memory. */
LATTIVO_API const char* lattivo_error(const lattivo_client* client);

/* Returns what a result means in general. */
LATTIVO_API const char* lattivo_result_text(lattivo_result result);

#ifdef __cplusplus
}
#endif

#endif
