"""Python host for Apartment, the inter-process messaging library.

One apartment per process, opened as a context manager::

    import apartment

    with apartment.open("tcp://127.0.0.1:0") as ap:
        ap.node("echo", on_request=lambda req: req.data)
        ap.run(timeout=60)

and, in another process::

    with apartment.open() as ap:
        print(ap.request("tcp://127.0.0.1:7001", "echo", b"hello", timeout=2.5))

Payloads are bytes; node names and URLs are ASCII str; times are seconds.
Callbacks run on a thread that pumps the apartment (run(), dispatch(), or any
thread whose request is waiting for its response), except
on_raw, which runs on a library thread. An exception raised in a callback goes to sys.unraisablehook.
"""
import enum

from ._apartment import (
    DEFAULT_NODE,
    Apartment,
    Error,
    Node,
    Request,
    Response,
    Timeout,
    open,
    version,
)


class ErrorCode(enum.IntEnum):
    """The library's status codes, as carried by Error.code."""

    NOT_INITIALIZED = -1
    CAN_NOT_FIND_APARTMENT = -2
    CAN_NOT_FIND_APARTMENT_NODE = -3
    METHOD_FAILED = -4


class ResponseCode(enum.IntEnum):
    """The codes a responder conventionally answers with (Response.code)."""

    OK = 0
    METHOD_NOT_FOUND = -1
    PARAMETER_ERROR = -2
    OPERATE_FAILED = -3


__version__ = version()
__all__ = [
    "DEFAULT_NODE",
    "Apartment",
    "Error",
    "ErrorCode",
    "Node",
    "Request",
    "Response",
    "ResponseCode",
    "Timeout",
    "open",
    "version",
]
