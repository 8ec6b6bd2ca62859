"""Attaches a program to a node of the network that the simulator Lattivo simulates.

lattivo.Client blocks; lattivo.aio is for asyncio.
"""

from . import aio
from .client import CLOSE_TIMEOUT, CONNECT_TIMEOUT, LARGEST_FRAME, Client
from .codes import DEFAULT_PORT, Command, MessageType, NodeControl, Outcome
from .errors import (
    ConnectError,
    Disconnected,
    ErrorCode,
    FrameTooLarge,
    LattivoError,
    ProtocolError,
    ReceivedFrameTooLarge,
    Refused,
    Timeout,
    UnknownHost,
    WrongUse,
)
from .messages import Confirmation, DebugCommand, Frame, Message

__all__ = [
    "CLOSE_TIMEOUT",
    "CONNECT_TIMEOUT",
    "Client",
    "Command",
    "Confirmation",
    "ConnectError",
    "DEFAULT_PORT",
    "DebugCommand",
    "Disconnected",
    "ErrorCode",
    "Frame",
    "FrameTooLarge",
    "LARGEST_FRAME",
    "LattivoError",
    "Message",
    "MessageType",
    "NodeControl",
    "Outcome",
    "ProtocolError",
    "ReceivedFrameTooLarge",
    "Refused",
    "Timeout",
    "UnknownHost",
    "WrongUse",
    "aio",
]
