"""The Python module against the C++ tool, against a second Python process
and against itself. Run as a script (`test_apartment.py peer URL`), this file
is that second process."""
import os
import re
import socket
import subprocess
import sys
import threading
import time

import pytest

import apartment

MAKE_CERTS = os.path.join(os.path.dirname(__file__), "../../scripts/make-test-certs.sh")


def use_tls(directory, monkeypatch, capfd):
    """Sets the TLS variables for this process and its children, or skips
    when the library was built without TLS."""
    subprocess.run([MAKE_CERTS, str(directory)], check=True, stdout=subprocess.DEVNULL, timeout=30)
    for variable, name in [("CERT", "a.pem"), ("KEY", "a.key"), ("CA", "ca.pem")]:
        monkeypatch.setenv("APARTMENT_TLS_" + variable, str(directory / name))
    try:
        apartment.open().close()
    except apartment.Error:
        if "TLS is unavailable" in capfd.readouterr().out:
            pytest.skip("the library was built without TLS")
        raise


def test_python_requester_against_cpp_serve(serve):
    assert re.fullmatch(r"\d+\.\d+\.\d+", apartment.version())
    with apartment.open() as ap:
        for data in [b"hello", b"", bytes(range(256)) * 40, bytearray(b"ba"), memoryview(b"mv")]:
            response = ap.request(serve, "echo", data, timeout=5)
            assert (response.code, response.data, response.ok) == (0, bytes(data), True)
            assert 0 < response.rtt < 5
        ap.notify(serve, "echo", b"note")
        ap.send_raw(serve, b"frame", frame_type=7)
        stats = b""
        for _ in range(50):  # the raw frame travels on its own link
            stats = ap.request(serve, "_stats", timeout=5).data
            if b" raw=1 " in stats:
                break
            ap.dispatch(0.05)
        assert b"notifications=1 " in stats and b" raw=1 raw_bytes=5" in stats


def test_cpp_requests_python_responder(tool, children, monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", lambda u: reported.append(u.exc_type))

    def fail(request):
        raise ValueError("handler bug")

    def answer_later(request):
        threading.Timer(0.05, request.respond, (b"late", 7)).start()

    expected = {  # node: what `apartment request` prints for it
        "reverse": r"code=0 .*: olleh$",
        "later": r"code=7 .*: late$",
        "fail": r"code=-3 ",  # the handler raised: REQUEST_OPERATE_FAILED
        "bare": r"code=-1 ",  # no handler: REQUEST_METHOD_NOT_FOUND
    }
    with apartment.open() as ap:
        ap.node("reverse", on_request=lambda request: request.data[::-1])
        ap.node("later", on_request=answer_later)
        ap.node("fail", on_request=fail)
        ap.node("bare")
        requesters = {node: children([tool, "request", ap.url, node, "--data", "hello",
                                      "--timeout", "5000"]) for node in expected}
        assert ap.run(until=lambda: all(c.proc.poll() is not None for c in requesters.values()),
                      timeout=20)
    for node, pattern in expected.items():
        assert re.search(pattern, requesters[node].expect("response ")), node
    assert reported == [ValueError]


@pytest.mark.parametrize("tls", [False, True], ids=["tcp", "tls"])
def test_two_python_processes(python_peer, tls, tmp_path, monkeypatch, capfd):
    if tls:
        use_tls(tmp_path, monkeypatch, capfd)
    notes, raw, closed, silent = [], [], [], []
    with apartment.open() as ap:
        node = ap.node("main", on_notify=lambda r: notes.append((r.source_url, r.data)),
                       on_offline=closed.append)
        ap.on_raw = lambda frame_type, data: raw.append((frame_type, data))
        ap.on_offline = silent.append
        peer = python_peer("peer", ap.url)
        url = peer.expect("url ")

        assert node.request(url, "peer", b"\x00echo", timeout=5).data == b"\x00echo"
        node.notify(url, "peer", b"ping")
        ap.send_raw(url, b"frame", frame_type=5)
        assert node.request(url, "peer", b"timer", timeout=5).data == b"armed"
        assert ap.run(until=lambda: len(notes) == 2 and raw, timeout=5)
        assert sorted(notes) == [(url, b"pong:ping"), (url, b"tick")]
        assert raw == [(6, b"emarf")]

        ap.watch(url, interval=0.1, count=2)
        node.notify(url, "peer", b"quit")
        assert ap.run(until=lambda: closed and silent, timeout=5)
        assert closed[0] == url and silent[0] == url
        assert peer.proc.wait(5) == 0
    if tls:
        assert "[TcpApartment Info]: TLS 1.3 on links" in capfd.readouterr().out


def test_timers():
    fired = []
    with apartment.open() as ap:
        node = ap.node("t", on_timer=lambda timer: fired.append(("node", timer)))
        ap.on_timer = lambda timer: fired.append(("apartment", timer))
        periodic = node.set_timer(0.01, 0.02)
        once = ap.set_timer(0.03)
        assert ap.run(until=lambda: fired.count(("node", periodic)) >= 3, timeout=5)
        assert node.kill_timer(periodic)
        ap.run(timeout=0.1)
        ticks = fired.count(("node", periodic))
        ap.run(timeout=0.2)
    assert fired.count(("node", periodic)) == ticks
    assert fired.count(("apartment", once)) == 1


@pytest.mark.parametrize("wait", ["dispatch", "request"])
def test_other_threads_run_while_the_library_waits(wait):
    longest_pause = [0.0]
    done = threading.Event()

    def spin():
        last = time.monotonic()
        while not done.is_set():
            now = time.monotonic()
            longest_pause[0], last = max(longest_pause[0], now - last), now

    with apartment.open() as ap:
        ap.node("mute", on_request=lambda request: None)  # never answers
        spinner = threading.Thread(target=spin)
        spinner.start()
        try:
            time.sleep(0.05)
            longest_pause[0], start = 0.0, time.monotonic()
            if wait == "dispatch":
                assert ap.dispatch(0.5) is False
            else:
                with pytest.raises(apartment.Timeout) as timeout:
                    ap.request(ap.url, "mute", timeout=0.5)
                assert timeout.value.code == apartment.ErrorCode.METHOD_FAILED
            elapsed = time.monotonic() - start
        finally:
            done.set()
            spinner.join(5)
    assert 0.45 < elapsed < 3
    assert longest_pause[0] < 0.25  # holding the GIL would stop it for the whole wait


def test_run_serves_other_threads_and_ends_on_close():
    outcome = []
    with apartment.open() as ap:
        ap.node("echo", on_request=lambda request: request.data)

        def client():
            try:
                outcome.append(ap.request(ap.url, "echo", b"x", timeout=5).data)
                ap.dispatch(0)
            except apartment.Error as error:
                outcome.append(str(error))
            ap.close()

        thread = threading.Thread(target=client)
        # Started from inside run(), so that run() is what answers it (a
        # request made while nobody runs the apartment pumps it itself).
        ap.on_timer = lambda _timer: thread.start()
        ap.set_timer(0.01)
        start = time.monotonic()
        assert ap.run(timeout=20) is False
        thread.join(5)
    assert time.monotonic() - start < 5
    assert outcome == [b"x", "dispatch(): another thread is running the apartment"]


def test_misuse_gets_a_clear_result(monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", lambda u: reported.append(u.exc_type))
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        dead = "tcp://127.0.0.1:%d" % s.getsockname()[1]  # bound, not listening
    with apartment.open() as ap:
        node = ap.node("n")
        for call, error in [
            (lambda: ap.request(ap.url, "n", "text"), TypeError),
            (lambda: ap.send_raw(ap.url, 7), TypeError),
            (lambda: ap.node("nœud"), ValueError),
            (lambda: node.notify(ap.url, "nœud", b""), ValueError),
            (lambda: ap.request("http://127.0.0.1:1", "n"), ValueError),
            (lambda: ap.request("tcp://127.0.0.1:0", "n"), ValueError),
            (lambda: ap.request(ap.url, "n", timeout=-1), ValueError),
            (lambda: ap.set_timer(0.1, interval=0), ValueError),
            (lambda: ap.watch(ap.url, count=0), ValueError),
            (lambda: setattr(node, "on_request", 3), TypeError),
            (lambda: ap.node("n"), apartment.Error),
            (lambda: apartment.open(), apartment.Error),
        ]:
            with pytest.raises(error):
                call()
        with pytest.raises(apartment.Error) as refused:
            ap.request(dead, "n", timeout=5)
        assert refused.value.code == apartment.ErrorCode.METHOD_FAILED

        ap.node("closer", on_request=lambda request: ap.close())
        assert ap.request(ap.url, "closer", timeout=5).code == apartment.ResponseCode.OPERATE_FAILED
        assert reported == [apartment.Error]

        def interrupt(request):
            raise KeyboardInterrupt

        ap.node("ctrl-c", on_notify=interrupt)
        ap.notify(ap.url, "ctrl-c")
        with pytest.raises(KeyboardInterrupt):  # raised again where the pump was
            ap.run(timeout=5)
    with pytest.raises(apartment.Error) as closed:
        node.request(ap.url, "n")
    assert closed.value.code == apartment.ErrorCode.NOT_INITIALIZED
    with pytest.raises(apartment.Error) as closed:
        ap.dispatch(0)
    assert closed.value.code == apartment.ErrorCode.NOT_INITIALIZED


def test_examples_run_from_an_installed_prefix(tmp_path, children):
    build = os.environ.get("APARTMENT_BUILD_DIR")
    if not build:
        pytest.skip("APARTMENT_BUILD_DIR does not name the build to install")
    subprocess.run(["cmake", "--install", build, "--prefix", str(tmp_path)], check=True,
                   stdout=subprocess.DEVNULL, timeout=60)
    examples = os.path.join(os.path.dirname(__file__), "../../examples/python")
    env = dict(os.environ, PYTHONPATH=str(tmp_path / "lib/python3/dist-packages"))
    responder = children([sys.executable, os.path.join(examples, "responder.py"),
                          "tcp://127.0.0.1:0"], env)
    url = responder.expect("listening on ")
    requester = subprocess.run([sys.executable, os.path.join(examples, "requester.py"), url],
                               env=env, capture_output=True, text=True, timeout=30)
    assert re.findall(r"^(b'\w+') code=0 rtt=", requester.stdout, re.M) == [
        "b'hello'", "b'from'", "b'python'"], requester.stderr


def peer(requester):
    """The second process: echoes requests, answers notifications with a
    notification, raw frames with a raw frame, and "timer" with a tick."""
    with apartment.open() as ap:
        def on_request(request):
            if request.data == b"timer":
                node.set_timer(0.05)
                return b"armed"
            return request.data

        def on_notify(request):
            if request.data == b"quit":
                ap.stop()
            else:
                node.notify(request.source_url, request.source_node, b"pong:" + request.data)

        node = ap.node("peer", on_request=on_request, on_notify=on_notify,
                       on_timer=lambda timer: node.notify(requester, "main", b"tick"))
        ap.on_raw = lambda frame_type, data: ap.send_raw(requester, data[::-1],
                                                         frame_type=frame_type + 1)
        print("url", ap.url, flush=True)
        ap.run(timeout=30)


if __name__ == "__main__" and sys.argv[1:2] == ["peer"]:
    peer(sys.argv[2])
