#if defined(__linux__) && !defined(_POSIX_C_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif

#include "lattivo.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/sockios.h>
#elif !defined(SO_NWRITE)
#define SIOCOUTQ FIONWRITE
#endif

#ifndef MSG_NOSIGNAL
#define MSG_NOSIGNAL 0 /* see new_socket() */
#endif

/* Linux neither joins what was sent with MSG_EOR to what follows nor cuts it, as long as it fits into a
 * segment and into the window. Elsewhere TCP ignores the flag, and a send waits until the one before has been
 * acknowledged. */
#if defined(__linux__) && defined(MSG_EOR) && !defined(LATTIVO_SLOW_GATE)
#define HAS_SLOW_GATE 0
#else
#define HAS_SLOW_GATE 1
#endif
#if HAS_SLOW_GATE || defined(LATTIVO_WITHOUT_EOR) /* a test shows what happens without */
#define SEND_FLAGS MSG_NOSIGNAL
#else
#define SEND_FLAGS (MSG_NOSIGNAL | MSG_EOR)
#endif

enum {
    DEFAULT_LARGEST_FRAME = 65536, /* bytes */
    DEFAULT_TIMEOUT = 10000,       /* ms */
    READ_AHEAD = 65536,            /* bytes of room for messages besides the largest frame */
    GATE_PAUSE = 1,                /* ms between two looks at the window or the unsent bytes */
    KNOCKS = 2,                    /* see identify_by_name() */
    OPTIONS_ROOM = 36,      /* bytes that a segment loses while the kernel reports gaps in what arrives */
    SMALLEST_SEGMENT = 536, /* bytes; what every path carries */
    TCP_STATE_OFFSET = 0,   /* in what TCP_INFO tells: 8 bits */
    SEGMENT_OFFSET = 16,    /* 32 bits: bytes */
    TAKEN_OFFSET = 120,     /* 64 bits: bytes that the peer has acknowledged */
    WINDOW_OFFSET = 228,    /* 32 bits, since Linux 5.4: bytes behind them */
    TCP_INFO_SIZE = 232,
    STATE_ESTABLISHED = 1,
    ERROR_SIZE = 320,
    PLACE_SIZE = 160
};

struct lattivo_client {
    int descriptor; /* -1: none */
    lattivo_options options;
    struct sockaddr_storage peer;
    socklen_t peer_size;
    bool is_identified;
    bool may_be_unknown;    /* identified by address, and nothing has arrived since */
    lattivo_result failure; /* of the connection; LATTIVO_OK while it stands */
    const char* again;      /* the text of LATTIVO_AGAIN, if that was last; else NULL */
    char error[ERROR_SIZE];
    char place[PLACE_SIZE]; /* host and port */

    /* Sending. What is queued begins with a message, or with the rest of one that the kernel has taken in
     * part. */
    uint8_t* output;
    size_t output_size;
    size_t output_capacity;
    size_t segment;      /* bytes of the largest message, at most the capacity */
    uint64_t sent;       /* bytes that the kernel has taken */
    uint64_t window_end; /* bytes that may be sent until the peer's window is full */
    uint64_t acknowledged_at_start;
    bool is_kernel_full; /* POLLOUT will tell when it is not */
    bool is_gate_shut;   /* nothing tells when it opens */
    bool has_probes;

    /* Receiving */
    uint8_t* input;
    size_t input_start; /* of the next message */
    size_t input_end;
    size_t input_capacity;
    bool is_input_over; /* for the reason that failure gives */
};

/* Notes a failure and its text, and returns it. One of the connection stays. */
#ifdef __GNUC__
__attribute__((format(printf, 3, 4)))
#endif
static lattivo_result
fail(lattivo_client* client, lattivo_result result, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    /* NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line above has */
    vsnprintf(client->error, sizeof client->error, format, arguments);
    client->again = NULL;
    va_end(arguments);
    if (result >= LATTIVO_UNKNOWN_HOST)
        client->failure = result;
    return result;
}

static lattivo_result fail_closed(lattivo_client* client, int error)
{
    const char* doubt = client->may_be_unknown
        ? "; perhaps it has no node of this address, or identifies programs by name"
        : "";
    if (error == 0)
        return fail(client, LATTIVO_CLOSED, "%s has closed the connection%s", client->place, doubt);
    return fail(client, LATTIVO_CLOSED, "the connection to %s is over: %s%s", client->place, strerror(error),
                doubt);
}

static lattivo_result fail_silent(lattivo_client* client)
{
    return fail(client, LATTIVO_NO_CONNECTION, "%s has not answered for %g s", client->place,
                client->options.timeout / 1000.0);
}

/* Deadlines are ms of the monotonic clock. */

static int64_t now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

/* A negative timeout never ends, and 0 has ended without a look at the clock. */
static int64_t deadline_after(int timeout)
{
    if (timeout == 0)
        return 0;
    return timeout < 0 ? INT64_MAX : now() + timeout;
}

/* Returns the ms until a deadline in the form of poll(), where -1 is forever. */
static int time_left(int64_t deadline)
{
    int64_t left;
    if (deadline == INT64_MAX)
        return -1;
    if (deadline == 0)
        return 0;
    left = deadline - now();
    if (left < 0)
        return 0;
    return left > INT_MAX ? INT_MAX : (int)left;
}

static bool is_later(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

/* Asks the kernel where the window ends and how large a segment is. */
static void ask_kernel(lattivo_client* client)
{
    size_t segment = SMALLEST_SEGMENT;
#ifdef __linux__
    uint8_t info[TCP_INFO_SIZE] = {0}; /* the headers of an older system do not know all of it */
    socklen_t size = sizeof info;
    if (getsockopt(client->descriptor, IPPROTO_TCP, TCP_INFO, info, &size) == 0) {
        uint32_t segment_size;
        uint32_t window;
        uint64_t acknowledged;
        memcpy(&segment_size, info + SEGMENT_OFFSET, sizeof segment_size);
        memcpy(&window, info + WINDOW_OFFSET, sizeof window);
        memcpy(&acknowledged, info + TAKEN_OFFSET, sizeof acknowledged);
        segment = segment_size;
        if (client->sent == 0)
            client->acknowledged_at_start = acknowledged;
        client->window_end = acknowledged - client->acknowledged_at_start + window;
        if (size < TCP_INFO_SIZE)
            client->window_end = UINT64_MAX; /* Linux before 5.4 does not tell */
        if (info[TCP_STATE_OFFSET] != STATE_ESTABLISHED && client->failure == LATTIVO_OK)
            fail_closed(client, 0);
    }
#else
    int value = 0;
    socklen_t size = sizeof value;
    if (getsockopt(client->descriptor, IPPROTO_TCP, TCP_MAXSEG, &value, &size) == 0 && value > 0)
        segment = (size_t)value;
    client->window_end = UINT64_MAX;
#endif
    client->segment = client->output && segment > client->output_capacity ? client->output_capacity : segment;
}

/* Lets the kernel ask again for the window, once a second: the peer's word that it has opened may get lost.
 * With bytes to send the kernel would do so by itself, by sending a part of them. */
static void probe_window(lattivo_client* client)
{
    const int on = 1;
    client->has_probes = true;
#ifdef __linux__
    {
        const int seconds = 1;
        const int most_unanswered = 127;
        setsockopt(client->descriptor, IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof seconds);
        setsockopt(client->descriptor, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
        setsockopt(client->descriptor, IPPROTO_TCP, TCP_KEEPCNT, &most_unanswered, sizeof most_unanswered);
    }
#endif
    setsockopt(client->descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

/* Returns whether the kernel still holds bytes that the peer's kernel has not acknowledged. */
static bool has_unacknowledged(const lattivo_client* client)
{
    int bytes = 0;
#ifdef SO_NWRITE
    socklen_t size = sizeof bytes;
    return getsockopt(client->descriptor, SOL_SOCKET, SO_NWRITE, &bytes, &size) == 0 && bytes > 0;
#else
    return ioctl(client->descriptor, SIOCOUTQ, &bytes) == 0 && bytes > 0;
#endif
}

/* Returns whether what is queued may go. Behind the end of the window it would wait in the kernel, which
 * after 200 ms sends as much of it as fits: a part of a message, on which the simulator closes the
 * connection. */
static bool is_gate_open(lattivo_client* client)
{
    if (HAS_SLOW_GATE && has_unacknowledged(client))
        return false;
    if (client->sent + client->output_size <= client->window_end)
        return true;
    ask_kernel(client);
    return client->sent + client->output_size <= client->window_end;
}

/* Gives the kernel all that is queued, or nothing. It takes a part only when memory is short on the whole
 * machine; then the rest follows as soon as it can. */
static lattivo_result give_to_kernel(lattivo_client* client)
{
    ssize_t taken;
    if (client->output_size == 0 || client->failure != LATTIVO_OK)
        return client->failure;
    client->is_gate_shut = !is_gate_open(client);
    if (client->failure != LATTIVO_OK)
        return client->failure;
    if (client->is_gate_shut) {
        if (!client->has_probes)
            probe_window(client);
        return LATTIVO_AGAIN;
    }
    taken = send(client->descriptor, client->output, client->output_size, SEND_FLAGS);
    if (taken < 0 && !is_later(errno))
        return fail_closed(client, errno);
    if (taken > 0) {
        client->sent += (uint64_t)taken;
        client->output_size -= (size_t)taken;
        memmove(client->output, client->output + taken, client->output_size);
    }
    client->is_kernel_full = client->output_size > 0;
    return client->is_kernel_full ? LATTIVO_AGAIN : LATTIVO_OK;
}

/* Waits until there is something to do, or to try again. Returns false when the time is over. */
static bool wait_for(const lattivo_client* client, short events, int64_t deadline)
{
    struct pollfd state;
    int left = time_left(deadline);
    const bool looks_again = client->output_size > 0 && client->is_gate_shut;
    if (left == 0)
        return false;
    if (looks_again && (left < 0 || left > GATE_PAUSE))
        left = GATE_PAUSE;
    state.fd = client->descriptor;
    state.events = (short)(events | (lattivo_wants_write(client) ? POLLOUT : 0));
    state.revents = 0;
    poll(&state, 1, left);
    return true;
}

static lattivo_result flush_until(lattivo_client* client, int64_t deadline)
{
    lattivo_result result = give_to_kernel(client);
    while (result == LATTIVO_AGAIN && wait_for(client, 0, deadline))
        result = give_to_kernel(client);
    if (result == LATTIVO_AGAIN)
        client->again = "there is no room to send within the given time";
    return result;
}

/* Refuses a message that is larger than a segment. A path can change, so near the limit the kernel is asked.
 */
static lattivo_result check_size(lattivo_client* client, size_t header_size, size_t size)
{
    const size_t safe_size = client->segment - OPTIONS_ROOM - LATTIVO_NODE_CONTROL_HEADER_SIZE;
    if (size <= safe_size)
        return LATTIVO_OK;
    ask_kernel(client);
    if (client->failure != LATTIVO_OK)
        return client->failure;
    if (size <= client->segment - header_size)
        return LATTIVO_OK;
    return fail(
        client, LATTIVO_TOO_LARGE,
        "%zu bytes and a header of %zu do not fit into a segment of %zu bytes to %s; nothing was sent", size,
        header_size, client->segment, client->place);
}

/* Makes room for a message. Together messages leave room for the kernel's options: what is cut otherwise is
 * the last of them. */
static lattivo_result make_room(lattivo_client* client, size_t message_size, int timeout)
{
    const size_t limit = client->segment - OPTIONS_ROOM;
    if (client->output_size == 0 || client->output_size + message_size <= limit)
        return LATTIVO_OK;
    return flush_until(client, deadline_after(timeout));
}

static lattivo_result queue(lattivo_client* client, const uint8_t* header, size_t header_size,
                            const void* body, size_t size, int timeout)
{
    lattivo_result result;
    if (client->failure != LATTIVO_OK)
        return client->failure;
    if (!body && size > 0)
        return fail(client, LATTIVO_WRONG_USE, "there are no bytes to send");
    result = check_size(client, header_size, size);
    if (result == LATTIVO_OK)
        result = make_room(client, header_size + size, timeout);
    if (result != LATTIVO_OK)
        return result;
    memcpy(client->output + client->output_size, header, header_size);
    if (size > 0)
        memcpy(client->output + client->output_size + header_size, body, size);
    client->output_size += header_size + size;
    return LATTIVO_OK;
}

static void write_header(uint8_t* header, enum lattivo_message_type type, size_t length)
{
    header[0] = (uint8_t)type;
    header[1] = (uint8_t)(length >> 24);
    header[2] = (uint8_t)(length >> 16);
    header[3] = (uint8_t)(length >> 8);
    header[4] = (uint8_t)length;
}

static lattivo_result queue_control(lattivo_client* client, enum lattivo_node_control type, const void* data,
                                    size_t size, int timeout)
{
    uint8_t header[LATTIVO_NODE_CONTROL_HEADER_SIZE];
    write_header(header, LATTIVO_MESSAGE_NODE_CONTROL, size + 1);
    header[LATTIVO_HEADER_SIZE] = (uint8_t)type;
    return queue(client, header, sizeof header, data, size, timeout);
}

/* Returns a socket that does not block, or -1 with errno. */
static int new_socket(int family)
{
    const int on = 1;
    const int descriptor = socket(family, SOCK_STREAM, 0);
    if (descriptor < 0)
        return -1;
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    fcntl(descriptor, F_SETFL, O_NONBLOCK);
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
#ifdef SO_NOSIGPIPE
    setsockopt(descriptor, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    return descriptor;
}

/* Returns 0, or the error that connecting ended with. */
static int finish_connecting(int descriptor, int64_t deadline)
{
    struct pollfd state = {descriptor, POLLOUT, 0};
    int error = 0;
    socklen_t size = sizeof error;
    int left = time_left(deadline);
    while (poll(&state, 1, left) <= 0) {
        left = time_left(deadline);
        if (left == 0)
            return ETIMEDOUT;
    }
    return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

/* Returns a connected socket, or -1 with errno. */
static int connect_to(const struct sockaddr* peer, socklen_t size, int64_t deadline)
{
    int error = 0;
    const int descriptor = new_socket(peer->sa_family);
    if (descriptor < 0)
        return -1;
    if (connect(descriptor, peer, size) != 0)
        error = errno == EINPROGRESS || errno == EINTR ? finish_connecting(descriptor, deadline) : errno;
    if (error == 0)
        return descriptor;
    close(descriptor);
    errno = error;
    return -1;
}

/* Returns the deadline for the first of some addresses: each gets the same share of the time that is left, so
 * that a silent one does not use up what the next ones need. */
static int64_t share_of_time(int64_t deadline, const struct addrinfo* addresses)
{
    int count = 0;
    for (; addresses; addresses = addresses->ai_next)
        ++count;
    return deadline_after(time_left(deadline) / count);
}

/* Tries the host's addresses in turn. */
static lattivo_result connect_client(lattivo_client* client, const char* host, uint16_t port)
{
    const int64_t deadline = deadline_after(client->options.timeout);
    struct addrinfo hints;
    struct addrinfo* addresses = NULL;
    const struct addrinfo* address;
    char service[sizeof "65535"];
    int error;
    memset(&hints, 0, sizeof hints);
    hints.ai_socktype = SOCK_STREAM;
    snprintf(service, sizeof service, "%u", (unsigned)port);
    error = getaddrinfo(host, service, &hints, &addresses);
    if (error != 0)
        return fail(client, LATTIVO_UNKNOWN_HOST, "%.200s cannot be found: %s", host, gai_strerror(error));
    for (address = addresses; address && client->descriptor < 0; address = address->ai_next) {
        client->descriptor
            = connect_to(address->ai_addr, address->ai_addrlen, share_of_time(deadline, address));
        error = errno;
        memcpy(&client->peer, address->ai_addr, address->ai_addrlen);
        client->peer_size = address->ai_addrlen;
    }
    freeaddrinfo(addresses);
    if (client->descriptor >= 0)
        return LATTIVO_OK;
    return fail(client, LATTIVO_NO_CONNECTION, "%s cannot be reached: %s", client->place, strerror(error));
}

static lattivo_result take_memory(lattivo_client* client)
{
    ask_kernel(client);
    client->output_capacity = client->segment;
    client->input_capacity = LATTIVO_HEADER_SIZE + client->options.largest_frame + READ_AHEAD;
    client->output = malloc(client->output_capacity);
    client->input = malloc(client->input_capacity);
    if (client->output && client->input)
        return client->failure; /* the peer may have gone meanwhile */
    close(client->descriptor);
    client->descriptor = -1;
    return fail(client, LATTIVO_SYSTEM_ERROR, "there is no memory for frames of %zu bytes",
                client->options.largest_frame);
}

static lattivo_result take_options(lattivo_client* client, const lattivo_options* options)
{
    if (options)
        client->options = *options;
    if (client->options.largest_frame == 0)
        client->options.largest_frame = DEFAULT_LARGEST_FRAME;
    if (client->options.timeout == 0)
        client->options.timeout = DEFAULT_TIMEOUT;
    if (client->options.largest_frame <= UINT32_MAX / 2 && client->options.timeout > 0
        && client->options.attach_pause >= 0)
        return LATTIVO_OK;
    return fail(client, LATTIVO_WRONG_USE, "an option is negative, or the largest frame beyond 2 GiB");
}

lattivo_result lattivo_open(lattivo_client** client, const char* host, uint16_t port,
                            const lattivo_options* options)
{
    lattivo_result result;
    lattivo_client* made = calloc(1, sizeof *made);
    *client = made;
    if (!made)
        return LATTIVO_OUT_OF_MEMORY;
    made->descriptor = -1;
    made->failure = LATTIVO_NO_CONNECTION; /* if the caller goes on after a failed open */
    result = take_options(made, options);
    if (result == LATTIVO_OK && (!host || !*host))
        result = fail(made, LATTIVO_WRONG_USE, "there is no host to connect to");
    if (result != LATTIVO_OK)
        return result;
    snprintf(made->place, sizeof made->place, "%.120s port %u", host, (unsigned)port);
    result = connect_client(made, host, port);
    if (result == LATTIVO_OK) {
        made->failure = LATTIVO_OK;
        result = take_memory(made);
    }
    return result;
}

/* Waits until one of two sockets has something to read, or has ended; the second may be missing. Returns
 * false when the time is over. */
static bool wait_for_input(int first, int second, int64_t deadline)
{
    struct pollfd states[2] = {{first, POLLIN, 0}, {second, POLLIN, 0}};
    const int left = time_left(deadline);
    return left != 0 && (poll(states, 2, left) >= 0 || errno == EINTR);
}

/* Returns whether nothing, neither a byte nor the end, has arrived on a socket. */
static bool is_silent(int descriptor)
{
    uint8_t byte;
    return recv(descriptor, &byte, 1, MSG_PEEK) < 0 && is_later(errno);
}

/* Connects once more and waits until the simulator has ended that connection, or has sent something on the
 * client's, or ended it. A server that is switched off has ended all connections that are not identified. */
static lattivo_result knock(lattivo_client* client, int64_t deadline)
{
    uint8_t message[LATTIVO_HEADER_SIZE];
    const int descriptor = connect_to((const struct sockaddr*)&client->peer, client->peer_size, deadline);
    bool is_waiting = true;
    if (descriptor < 0 && errno == ECONNREFUSED)
        return LATTIVO_OK;
    if (descriptor < 0 && time_left(deadline) == 0)
        return fail_silent(client);
    if (descriptor < 0)
        return fail(client, LATTIVO_SYSTEM_ERROR, "%s cannot be reached again: %s", client->place,
                    strerror(errno));
    write_header(message, LATTIVO_MESSAGE_CLOSE, 0);
    if (send(descriptor, message, sizeof message, MSG_NOSIGNAL) != (ssize_t)sizeof message)
        is_waiting = false;
    while (is_waiting && is_silent(descriptor) && is_silent(client->descriptor))
        is_waiting = wait_for_input(client->descriptor, descriptor, deadline);
    close(descriptor);
    return time_left(deadline) == 0 ? fail_silent(client) : LATTIVO_OK;
}

/* Returns when the simulator has read the name. It tells nobody, and what it reads together with the name is
 * lost. But it takes connections one after the other, and looks at all that have sent something before it
 * looks again. So when it has ended a second connection, it is about to look at the first at the latest; when
 * it has ended a third one, which was made after that, it has looked. */
static lattivo_result wait_until_attached(lattivo_client* client)
{
    const int64_t deadline = deadline_after(client->options.timeout);
    const int64_t end_of_pause = deadline_after(client->options.attach_pause);
    lattivo_result result = LATTIVO_OK;
    int knocks = 0;
    if (client->options.attach_pause > 0) {
        while (is_silent(client->descriptor) && wait_for_input(client->descriptor, -1, end_of_pause)) { }
        return LATTIVO_OK;
    }
    while (has_unacknowledged(client) && is_silent(client->descriptor)) {
        if (time_left(deadline) == 0)
            return fail_silent(client);
        poll(NULL, 0, GATE_PAUSE);
    }
    while (result == LATTIVO_OK && knocks++ < KNOCKS && is_silent(client->descriptor))
        result = knock(client, deadline);
    return result;
}

/* Returns whether the simulator has ended the connection. */
static bool has_ended(int descriptor)
{
    uint8_t byte;
    return !is_silent(descriptor) && recv(descriptor, &byte, 1, MSG_PEEK) <= 0;
}

static lattivo_result identify(lattivo_client* client, enum lattivo_node_control type, const void* value,
                               size_t size)
{
    lattivo_result result;
    if (client->failure == LATTIVO_OK && client->is_identified)
        return fail(client, LATTIVO_WRONG_USE, "the program has identified itself before");
    result = queue_control(client, type, value, size, 0);
    if (result != LATTIVO_OK)
        return result;
    client->is_identified = true;
    result = flush_until(client, deadline_after(client->options.timeout));
    return result == LATTIVO_AGAIN ? fail_silent(client) : result;
}

/* A missing text counts as bytes that are not there, which queue() refuses. */
static size_t text_size(const char* text)
{
    return text ? strlen(text) : 1;
}

lattivo_result lattivo_identify_by_address(lattivo_client* client, const void* address, size_t size)
{
    const lattivo_result result = identify(client, LATTIVO_CONTROL_ADDRESS, address, size);
    if (result == LATTIVO_OK)
        client->may_be_unknown = true;
    return result;
}

lattivo_result lattivo_identify_by_name(lattivo_client* client, const char* name)
{
    lattivo_result result = identify(client, LATTIVO_CONTROL_NAME, name, text_size(name));
    if (result == LATTIVO_OK)
        result = wait_until_attached(client);
    if (result == LATTIVO_OK && has_ended(client->descriptor))
        result = fail(client, LATTIVO_REFUSED,
                      "%s has refused the name \"%.100s\"; perhaps it identifies programs by address",
                      client->place, name);
    return result;
}

/* Reads until the simulator has closed its side as well, having read everything. */
static lattivo_result drain(lattivo_client* client, int64_t deadline)
{
    do {
        const ssize_t size = recv(client->descriptor, client->input, client->input_capacity, 0);
        if (size == 0)
            return LATTIVO_OK;
        if (size < 0 && !is_later(errno))
            return LATTIVO_CLOSED;
    } while (wait_for_input(client->descriptor, -1, deadline));
    return LATTIVO_NO_CONNECTION;
}

lattivo_result lattivo_close(lattivo_client* client)
{
    lattivo_result result = LATTIVO_OK;
    if (!client)
        return LATTIVO_OK;
    if (client->descriptor >= 0) {
        const int64_t deadline = deadline_after(client->options.timeout);
        lattivo_result drained;
        result = flush_until(client, deadline);
        if (result == LATTIVO_AGAIN)
            result = LATTIVO_NO_CONNECTION;
        shutdown(client->descriptor, SHUT_WR);
        /* What has not answered in time is not waited for once more. */
        drained = result == LATTIVO_NO_CONNECTION ? result : drain(client, deadline);
        if (result == LATTIVO_OK)
            result = drained;
        close(client->descriptor);
    }
    free(client->output);
    free(client->input);
    free(client);
    return result;
}

/* Only an identified program may send anything else. */
static lattivo_result check_identified(lattivo_client* client)
{
    if (client->failure != LATTIVO_OK)
        return client->failure;
    if (!client->is_identified)
        return fail(client, LATTIVO_WRONG_USE, "the program has to identify itself before it sends");
    return LATTIVO_OK;
}

lattivo_result lattivo_send_frame(lattivo_client* client, const void* frame, size_t size, int timeout)
{
    uint8_t header[LATTIVO_HEADER_SIZE];
    const lattivo_result result = check_identified(client);
    if (result != LATTIVO_OK)
        return result;
    write_header(header, LATTIVO_MESSAGE_FRAME, size);
    return queue(client, header, sizeof header, frame, size, timeout);
}

static lattivo_result send_control(lattivo_client* client, enum lattivo_node_control type, const void* data,
                                   size_t size, int timeout)
{
    const lattivo_result result = check_identified(client);
    return result == LATTIVO_OK ? queue_control(client, type, data, size, timeout) : result;
}

lattivo_result lattivo_send_address(lattivo_client* client, const void* address, size_t size, int timeout)
{
    return send_control(client, LATTIVO_CONTROL_ADDRESS, address, size, timeout);
}

lattivo_result lattivo_send_name(lattivo_client* client, const char* name, int timeout)
{
    return send_control(client, LATTIVO_CONTROL_NAME, name, text_size(name), timeout);
}

lattivo_result lattivo_send_colour(lattivo_client* client, uint8_t red, uint8_t green, uint8_t blue,
                                   int timeout)
{
    const uint8_t colour[LATTIVO_COLOUR_SIZE] = {red, green, blue};
    return send_control(client, LATTIVO_CONTROL_COLOUR, colour, sizeof colour, timeout);
}

lattivo_result lattivo_send_active(lattivo_client* client, bool active, int timeout)
{
    return send_control(client, active ? LATTIVO_CONTROL_ACTIVATE : LATTIVO_CONTROL_DEACTIVATE, NULL, 0,
                        timeout);
}

lattivo_result lattivo_flush(lattivo_client* client, int timeout)
{
    const lattivo_result result = give_to_kernel(client); /* mostly enough, and needs no clock */
    return result == LATTIVO_AGAIN ? flush_until(client, deadline_after(timeout)) : result;
}

size_t lattivo_largest_frame(lattivo_client* client)
{
    if (client->failure == LATTIVO_OK)
        ask_kernel(client);
    return client->failure == LATTIVO_OK ? client->segment - LATTIVO_HEADER_SIZE : 0;
}

static size_t body_size(const uint8_t* header)
{
    const uint32_t length = (uint32_t)header[1] << 24 | (uint32_t)header[2] << 16 | (uint32_t)header[3] << 8
        | (uint32_t)header[4];
    return length == LATTIVO_NULL_LENGTH ? 0 : length;
}

static bool is_code_known(uint8_t type, uint8_t code)
{
    const int last = type == LATTIVO_MESSAGE_CONFIRMATION ? LATTIVO_LOST : LATTIVO_COMMAND_IDENTIFY;
    return code >= 1 && code <= last;
}

/* Looks at the next message: LATTIVO_AGAIN when it is not wholly here, else what lattivo_receive() returns.
 */
static lattivo_result look_at_next(const lattivo_client* client)
{
    const uint8_t* bytes = client->input + client->input_start;
    const size_t available = client->input_end - client->input_start;
    size_t size;
    if (client->is_input_over && client->failure != LATTIVO_CLOSED)
        return client->failure; /* the bytes behind what is no message mean nothing */
    if (available < LATTIVO_HEADER_SIZE)
        return LATTIVO_AGAIN;
    size = body_size(bytes);
    switch (bytes[0]) {
    case LATTIVO_MESSAGE_FRAME:
        if (size > client->options.largest_frame)
            return LATTIVO_FRAME_TOO_LARGE;
        return available < LATTIVO_HEADER_SIZE + size ? LATTIVO_AGAIN : LATTIVO_OK;
    case LATTIVO_MESSAGE_CONFIRMATION:
    case LATTIVO_MESSAGE_DEBUG_COMMAND:
        if (size != 1)
            return LATTIVO_PROTOCOL_ERROR;
        if (available == LATTIVO_HEADER_SIZE)
            return LATTIVO_AGAIN;
        return is_code_known(bytes[0], bytes[LATTIVO_HEADER_SIZE]) ? LATTIVO_OK : LATTIVO_PROTOCOL_ERROR;
    default:
        return LATTIVO_PROTOCOL_ERROR;
    }
}

/* Gives a message that look_at_next() has found whole. */
static void take_next(lattivo_client* client, lattivo_message* message)
{
    const uint8_t* bytes = client->input + client->input_start;
    const size_t size = body_size(bytes);
    const uint8_t* body = bytes + LATTIVO_HEADER_SIZE;
    memset(message, 0, sizeof *message);
    message->type = (enum lattivo_message_type)bytes[0];
    if (message->type == LATTIVO_MESSAGE_FRAME) {
        message->frame = body;
        message->size = size;
    } else if (message->type == LATTIVO_MESSAGE_CONFIRMATION) {
        message->outcome = (enum lattivo_outcome)body[0];
    } else {
        message->command = (enum lattivo_debug_command)body[0];
    }
    client->input_start += LATTIVO_HEADER_SIZE + size;
}

static lattivo_result fail_input(lattivo_client* client, lattivo_result reason)
{
    const uint8_t* bytes = client->input + client->input_start;
    client->is_input_over = true;
    if (reason == LATTIVO_FRAME_TOO_LARGE)
        return fail(client, reason, "%s sends a frame of %zu bytes, the client takes at most %zu",
                    client->place, body_size(bytes), client->options.largest_frame);
    return fail(client, reason, "%s sends a message of type %u with a body of %zu bytes, which means nothing",
                client->place, bytes[0], body_size(bytes));
}

/* Reads what has arrived behind the part of a message that is here. */
static lattivo_result read_input(lattivo_client* client)
{
    ssize_t size;
    client->input_end -= client->input_start;
    if (client->input_start > 0)
        memmove(client->input, client->input + client->input_start, client->input_end);
    client->input_start = 0;
    size = recv(client->descriptor, client->input + client->input_end,
                client->input_capacity - client->input_end, 0);
    if (size > 0) {
        client->input_end += (size_t)size;
        client->may_be_unknown = false;
        return LATTIVO_OK;
    }
    if (size < 0 && is_later(errno))
        return LATTIVO_AGAIN;
    client->is_input_over = true;
    return fail_closed(client, size == 0 ? 0 : errno);
}

lattivo_result lattivo_receive(lattivo_client* client, lattivo_message* message, int timeout)
{
    const int64_t deadline = deadline_after(timeout);
    lattivo_result result;
    if (client->descriptor < 0)
        return client->failure;
    for (;;) {
        result = look_at_next(client);
        if (result == LATTIVO_OK)
            take_next(client, message);
        if (result == LATTIVO_OK || client->is_input_over)
            return result == LATTIVO_AGAIN ? client->failure : result;
        if (result != LATTIVO_AGAIN)
            return fail_input(client, result);
        give_to_kernel(client); /* a failure shows again below, behind the messages that came before it */
        result = read_input(client);
        if (result == LATTIVO_AGAIN && client->failure != LATTIVO_OK)
            return client->failure; /* the connection may stand, but has been given up */
        if (result == LATTIVO_AGAIN && !wait_for(client, POLLIN, deadline)) {
            client->again
                = "nothing has arrived within the given time"; /* every loop comes by: not formatted */
            return result;
        }
    }
}

int lattivo_descriptor(const lattivo_client* client)
{
    return client->descriptor;
}

bool lattivo_wants_write(const lattivo_client* client)
{
    return client->output_size > 0 && client->is_kernel_full && !client->is_gate_shut;
}

bool lattivo_has_more(const lattivo_client* client)
{
    return client->descriptor >= 0 && look_at_next(client) != LATTIVO_AGAIN;
}

int lattivo_timeout(const lattivo_client* client)
{
    if (client->output_size == 0 || client->failure != LATTIVO_OK || lattivo_wants_write(client))
        return -1;
    return client->is_gate_shut ? GATE_PAUSE : 0;
}

const char* lattivo_error(const lattivo_client* client)
{
    if (!client)
        return lattivo_result_text(LATTIVO_OUT_OF_MEMORY);
    return client->again ? client->again : client->error;
}

const char* lattivo_result_text(lattivo_result result)
{
    switch (result) {
    case LATTIVO_OK:
        return "success";
    case LATTIVO_AGAIN:
        return "nothing has arrived, or there is no room to send, within the given time";
    case LATTIVO_WRONG_USE:
        return "an argument or the order of calls is wrong";
    case LATTIVO_TOO_LARGE:
        return "the message does not fit into a segment of the path";
    case LATTIVO_OUT_OF_MEMORY:
        return "out of memory";
    case LATTIVO_UNKNOWN_HOST:
        return "the host cannot be found";
    case LATTIVO_NO_CONNECTION:
        return "the simulator cannot be reached, or does not answer in time";
    case LATTIVO_REFUSED:
        return "the simulator has refused the identification";
    case LATTIVO_CLOSED:
        return "the connection is closed";
    case LATTIVO_FRAME_TOO_LARGE:
        return "a frame arrives that is larger than the client's largest frame";
    case LATTIVO_PROTOCOL_ERROR:
        return "invalid message received";
    case LATTIVO_SYSTEM_ERROR:
        return "a call of the operating system has failed";
    }
    return "an unknown result";
}
