/* The codes and sizes of the protocol between Lattivo and the programs that drive its nodes. The simulator
 * and the client library both take them from here. C99 and C++. */
#ifndef LATTIVO_PROTOCOL_H
#define LATTIVO_PROTOCOL_H

/* The first byte of a message. */
enum lattivo_message_type {
    LATTIVO_MESSAGE_FRAME = 1,         /* both ways */
    LATTIVO_MESSAGE_CONFIRMATION = 2,  /* to the program */
    LATTIVO_MESSAGE_NODE_CONTROL = 3,  /* from the program; also its identification */
    LATTIVO_MESSAGE_DISCARDED = 4,     /* from the program: the simulator reads and drops it */
    LATTIVO_MESSAGE_DEBUG_COMMAND = 5, /* to the program */
    LATTIVO_MESSAGE_CLOSE = 7          /* from the program: the simulator closes the connection */
};

/* The first byte in the body of a node control message. Address and name also identify a program. */
enum lattivo_node_control {
    LATTIVO_CONTROL_ADDRESS = 1,
    LATTIVO_CONTROL_ACTIVATE = 2,
    LATTIVO_CONTROL_DEACTIVATE = 3,
    LATTIVO_CONTROL_COLOUR = 4,
    LATTIVO_CONTROL_NAME = 5
};

/* The only byte in the body of a confirmation. */
enum lattivo_outcome { LATTIVO_DELIVERED = 1, LATTIVO_LOST = 2 };

/* The only byte in the body of a debug command. */
enum lattivo_debug_command {
    LATTIVO_COMMAND_RUN = 1,
    LATTIVO_COMMAND_PAUSE = 2,
    LATTIVO_COMMAND_STEP = 3,
    LATTIVO_COMMAND_RESET = 4,
    LATTIVO_COMMAND_QUIT = 5,
    LATTIVO_COMMAND_IDENTIFY = 6 /* the user wants to see which program this is */
};

enum {
    LATTIVO_HEADER_SIZE = 5,              /* bytes: type, and length of the body, 32 bits, big-endian */
    LATTIVO_NODE_CONTROL_HEADER_SIZE = 6, /* bytes: and the sub-type, which the length counts too */
    LATTIVO_COLOUR_SIZE = 3,              /* bytes: red, green, blue */
    LATTIVO_DEFAULT_PORT = 8844
};

/* The length word of a null array: no bytes follow. */
#define LATTIVO_NULL_LENGTH 0xFFFFFFFFu

#endif
