"""Types of the compiled core; import them from `apartment`."""
from types import TracebackType
from typing import Callable, Optional, Type, Union

Buffer = Union[bytes, bytearray, memoryview]
"""Any object with the buffer protocol; str is refused."""

DEFAULT_NODE: str
"""The node that Apartment.request and Apartment.notify send from ("py")."""

class Error(Exception):
    """A call into the library failed.

    `code` is the library's status (an ErrorCode value: -1 not initialised
    or closed, -2 no such apartment, -3 no such node, -4 the operation
    failed) when the library gave one, else None.
    """

    code: Optional[int]

class Timeout(Error, TimeoutError):
    """No response came within the time-out (code ErrorCode.METHOD_FAILED)."""

class Response:
    """A response to a request."""

    @property
    def id(self) -> int:
        """The request id."""
    @property
    def code(self) -> int:
        """The responder's code; ResponseCode.OK (0) for success."""
    @property
    def data(self) -> bytes:
        """The responder's bytes."""
    @property
    def rtt(self) -> float:
        """Seconds from sending the request to reading the response."""
    @property
    def ok(self) -> bool:
        """Whether `code` is ResponseCode.OK."""

class Request:
    """A request or notification received by a node."""

    @property
    def node(self) -> str:
        """The receiving node's name."""
    @property
    def source_url(self) -> str:
        """The sender's apartment URL."""
    @property
    def source_node(self) -> str:
        """The sending node's name."""
    @property
    def target_url(self) -> str:
        """The URL the sender addressed."""
    @property
    def id(self) -> int:
        """The request id, unique per sender."""
    @property
    def data(self) -> bytes:
        """The request's bytes."""
    @property
    def expects_response(self) -> bool:
        """True for a request, False for a notification."""
    @property
    def answered(self) -> bool:
        """Whether a response has been sent."""
    def respond(self, data: Buffer = b"", code: int = 0) -> None:
        """Sends the response, once.

        Callable inside on_request or later from any thread while the
        apartment is open. Raises Error for a notification, for a second
        answer and when the library refuses the write.
        """

RequestHandler = Callable[[Request], Optional[Buffer]]
"""on_request: returning bytes answers with code 0; returning None leaves
the answer to Request.respond. A handler that raises is answered with
ResponseCode.OPERATE_FAILED; a node without one answers METHOD_NOT_FOUND."""

class Node:
    """A named endpoint of the apartment, made by Apartment.node."""

    @property
    def name(self) -> str: ...
    @property
    def closed(self) -> bool: ...
    on_request: Optional[RequestHandler]
    on_notify: Optional[Callable[[Request], object]]
    on_offline: Optional[Callable[[str], object]]
    """Called with the remote URL when a link to it closes."""
    on_timer: Optional[Callable[[int], object]]
    """Called with the timer id when a timer of this node fires."""
    def request(self, url: str, node: str, data: Buffer = b"", *, timeout: float = 5.0) -> Response:
        """Sends a request to `node` of the apartment at `url` and waits for the response.

        The link is opened on first use. While it waits on the pumping thread
        (or with no thread in run()), this process's callbacks keep running.
        Raises Timeout after `timeout` seconds, Error when the request cannot
        be sent, ValueError for a bad URL or a non-ASCII name, TypeError for
        str data.
        """
    def notify(self, url: str, node: str, data: Buffer = b"") -> None:
        """Sends a notification (a request that gets no response)."""
    def set_timer(self, delay: float, interval: Optional[float] = None) -> int:
        """Starts a timer: on_timer runs after `delay` seconds, then every
        `interval` seconds (None: once). Returns the timer id."""
    def kill_timer(self, timer_id: int) -> bool:
        """Stops a timer; False if it is unknown."""
    def close(self) -> None:
        """Destroys the node (its timers stop). The apartment's close does it too."""

class Apartment:
    """This process's apartment, made by apartment.open; one at a time."""

    @property
    def url(self) -> str:
        """The URL other processes reach this apartment at."""
    @property
    def closed(self) -> bool: ...
    on_raw: Optional[Callable[[int, bytes], object]]
    """Called with the frame type and bytes of each raw frame, on a library
    thread; it may send and set timers but not request or pump."""
    on_offline: Optional[Callable[[str], object]]
    """Called with the URL of a watched apartment that stopped answering."""
    on_timer: Optional[Callable[[int], object]]
    """Called with the timer id of an apartment-level timer."""
    def node(
        self,
        name: str,
        *,
        on_request: Optional[RequestHandler] = None,
        on_notify: Optional[Callable[[Request], object]] = None,
        on_offline: Optional[Callable[[str], object]] = None,
        on_timer: Optional[Callable[[int], object]] = None,
    ) -> Node:
        """Creates the node `name` (ASCII, unique in this apartment)."""
    def request(self, url: str, node: str, data: Buffer = b"", *, timeout: float = 5.0) -> Response:
        """Node.request from the node DEFAULT_NODE, created on first use."""
    def notify(self, url: str, node: str, data: Buffer = b"") -> None:
        """Node.notify from the node DEFAULT_NODE."""
    def send_raw(self, url: str, data: Buffer, *, frame_type: int = 0) -> None:
        """Sends a raw frame over the real-time link to `url` (opened if needed).

        The receiver's on_raw gets it; frames over 102400 bytes are not delivered.
        """
    def connect(self, url: str, *, realtime: bool = False) -> None:
        """Opens the link to `url` now rather than on first use; Error if refused."""
    def is_connected(self, url: str, *, realtime: bool = False) -> bool: ...
    def disconnect(self, url: str, *, realtime: bool = False) -> bool:
        """Closes the link; False if there was none."""
    def set_timer(self, delay: float, interval: Optional[float] = None) -> int:
        """An apartment-level timer; see Node.set_timer. Fires on_timer."""
    def kill_timer(self, timer_id: int) -> bool: ...
    def watch(self, url: str, *, interval: float = 1.0, count: int = 3) -> None:
        """Heartbeat: sends an alive frame every `interval` seconds; after
        `count` unanswered ones, on_offline(url) runs on every period until
        the remote answers again. Error if `url` is watched already."""
    def unwatch(self, url: str) -> bool:
        """Stops watching; False if `url` was not watched."""
    def dispatch(self, timeout: Optional[float] = None) -> bool:
        """Waits up to `timeout` seconds (None: without limit) for one message
        and dispatches it, running its callback. False if none came or the
        apartment was closed. The GIL is released while it waits."""
    def run(self, *, until: Optional[Callable[[], object]] = None, timeout: Optional[float] = None) -> bool:
        """Dispatches on this thread until `until()` is true (returns True), or
        `timeout` seconds pass, stop() is called or the apartment is closed
        (returns False). While it runs, dispatch() or run() from another
        thread raises Error; requests from other threads still pump while
        they wait, so callbacks may run on those threads too."""
    def stop(self) -> None:
        """Makes run() return, from a callback or another thread."""
    def close(self) -> None:
        """Waits for calls in other threads to return (each within about 0.1 s
        or its write), then closes the apartment. Not allowed in a callback."""
    def __enter__(self) -> "Apartment": ...
    def __exit__(
        self,
        exc_type: Optional[Type[BaseException]],
        exc: Optional[BaseException],
        tb: Optional[TracebackType],
    ) -> bool: ...

def open(
    url: str = "tcp://127.0.0.1:0",
    *,
    on_raw: Optional[Callable[[int, bytes], object]] = None,
    on_offline: Optional[Callable[[str], object]] = None,
    on_timer: Optional[Callable[[int], object]] = None,
) -> Apartment:
    """Opens this process's apartment, listening at `url` ("tcp://<IPv4>:<port>").

    Port 0 takes a free port from the kernel ("tcp://" alone: every
    interface). Error if an apartment is open already or the address cannot
    be had; ValueError for a malformed URL. An apartment left open is closed
    at interpreter exit.
    """

def version() -> str:
    """The library's version, "major.minor.revision"."""
