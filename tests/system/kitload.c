/* Sends numbered frames from one node to another at full speed, until all have arrived. Prints "attached"
 * when both nodes are, and at the end how many frames have arrived in order. Usage: kitload HOST PORT SENDER
 * RECEIVER FRAMES SIZE; nodes are given by their numbers. */
#define _POSIX_C_SOURCE 200809L

#include <lattivo.h>

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum {
    ADDRESS_SIZE = 6,
    NUMBER_OFFSET = 2 * ADDRESS_SIZE, /* 32 bits, in this machine's order */
    LARGEST_FRAME = 65536
};

typedef struct load {
    lattivo_client* sender;
    lattivo_client* receiver;
    uint8_t frame[LARGEST_FRAME];
    size_t size;
    uint32_t frames;
    uint32_t sent;
    uint32_t arrived;
} load;

static void write_address(uint8_t* address, int node)
{
    memset(address, 0, ADDRESS_SIZE);
    address[0] = 2; /* locally administered */
    address[ADDRESS_SIZE - 2] = (uint8_t)(node >> 8);
    address[ADDRESS_SIZE - 1] = (uint8_t)node;
}

static lattivo_client* attach(const char* host, const char* port, int node)
{
    char name[32];
    lattivo_client* client;
    snprintf(name, sizeof name, "node-%d", node);
    if (lattivo_open(&client, host, (uint16_t)atoi(port), NULL) != LATTIVO_OK
        || lattivo_identify_by_name(client, name) != LATTIVO_OK) {
        fprintf(stderr, "kitload: %s\n", lattivo_error(client));
        exit(2);
    }
    return client;
}

/* Queues frames until there is no room. */
static lattivo_result send_some(load* load)
{
    lattivo_result result = LATTIVO_OK;
    while (result == LATTIVO_OK && load->sent < load->frames) {
        memcpy(load->frame + NUMBER_OFFSET, &load->sent, sizeof load->sent);
        result = lattivo_send_frame(load->sender, load->frame, load->size, 0);
        if (result == LATTIVO_OK)
            ++load->sent;
    }
    return result == LATTIVO_OK ? lattivo_flush(load->sender, 0) : result;
}

static bool is_next(const load* load, const lattivo_message* message)
{
    return message->type == LATTIVO_MESSAGE_FRAME && message->size == load->size
        && memcmp(message->frame + NUMBER_OFFSET, &load->arrived, sizeof load->arrived) == 0;
}

static lattivo_result receive_some(lattivo_client* client, load* load)
{
    lattivo_message message;
    lattivo_result result;
    do {
        result = lattivo_receive(client, &message, 0);
        if (result == LATTIVO_OK && is_next(load, &message))
            ++load->arrived;
    } while (result == LATTIVO_OK && lattivo_has_more(client));
    return result;
}

static bool is_standing(lattivo_result result)
{
    return result == LATTIVO_OK || result == LATTIVO_AGAIN;
}

/* Tells on which client what failed. */
static bool check(lattivo_result result, const lattivo_client* client, const char* name)
{
    if (!is_standing(result))
        fprintf(stderr, "kitload: %s: %s\n", name, lattivo_error(client));
    return is_standing(result);
}

static bool run(load* load)
{
    while (load->arrived < load->frames) {
        struct pollfd states[2] = {{lattivo_descriptor(load->sender), POLLIN, 0},
                                   {lattivo_descriptor(load->receiver), POLLIN, 0}};
        if (!check(send_some(load), load->sender, "sender"))
            return false;
        if (lattivo_wants_write(load->sender))
            states[0].events |= POLLOUT;
        poll(states, 2, lattivo_timeout(load->sender));
        if (states[0].revents && !check(receive_some(load->sender, load), load->sender, "sender"))
            return false;
        if (states[1].revents && !check(receive_some(load->receiver, load), load->receiver, "receiver"))
            return false;
    }
    return true;
}

int main(int argc, char** argv)
{
    static load load;
    bool is_done;
    if (argc != 7)
        return 2;
    load.frames = (uint32_t)atol(argv[5]);
    load.size = (size_t)atol(argv[6]);
    write_address(load.frame, atoi(argv[4]));
    write_address(load.frame + ADDRESS_SIZE, atoi(argv[3]));
    load.receiver = attach(argv[1], argv[2], atoi(argv[4]));
    load.sender = attach(argv[1], argv[2], atoi(argv[3]));
    puts("attached");
    fflush(stdout);
    is_done = run(&load);
    printf("%lu\n", (unsigned long)load.arrived);
    lattivo_close(load.sender);
    lattivo_close(load.receiver);
    return is_done ? 0 : 1;
}
