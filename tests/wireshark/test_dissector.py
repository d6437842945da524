"""The Lua dissector against traffic the library produced: `apartment` tool
processes talk to `apartment serve` through a recording proxy, the recording
is written as a capture file, and tshark reads it back with the dissector."""
import os
import select
import selectors
import socket
import struct
import subprocess
import time
import xml.etree.ElementTree as ElementTree

import pytest

TSHARK = "/usr/bin/tshark"
if not os.access(TSHARK, os.X_OK):
    pytest.skip("tshark is not installed (scripts/install-deps.sh installs it)",
                allow_module_level=True)

TOOL = os.environ.get("APARTMENT_TOOL", "")
DISSECTOR = os.environ.get("APARTMENT_DISSECTOR") or os.path.join(
    os.path.dirname(__file__), "../../tools/wireshark/apartment.lua")
MAKE_CERTS = os.path.join(os.path.dirname(__file__), "../../scripts/make-test-certs.sh")
CAPTURE_PORT = 7001  # the server's port in the written capture
MSS = 1000
BIG = bytes(i % 251 for i in range(3000))


class RecordingProxy:
    """Relays each connection to `target_port`, recording (connection,
    from_client, bytes) in arrival order; runs while pump_while() waits."""

    def __init__(self, target_port):
        self.target_port, self.events, self.connections = target_port, [], 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = "tcp://127.0.0.1:%d" % self.listener.getsockname()[1]
        self.selector = selectors.DefaultSelector()
        self.selector.register(self.listener, selectors.EVENT_READ)

    def pump_while(self, process):
        """Relays until `process` ends (killed after 15 s), then a little more."""
        deadline = time.monotonic() + 15
        try:
            while process.poll() is None:
                self.pump(0.02)
                if time.monotonic() > deadline:
                    process.kill()
            self.pump(0.2)
        finally:
            process.wait(5)

    def pump(self, wait):
        for key, _ in self.selector.select(wait):
            if key.fileobj is self.listener:
                client, _ = self.listener.accept()
                server = socket.create_connection(("127.0.0.1", self.target_port), timeout=5)
                index, self.connections = self.connections, self.connections + 1
                self.selector.register(client, selectors.EVENT_READ, (index, True, server))
                self.selector.register(server, selectors.EVENT_READ, (index, False, client))
                continue
            index, from_client, peer = key.data
            data = key.fileobj.recv(65536)
            if not data:
                self.selector.unregister(key.fileobj)
                key.fileobj.close()
                if peer.fileno() >= 0:
                    self.selector.unregister(peer)
                    peer.close()
                continue
            self.events.append((index, from_client, data))
            peer.sendall(data)

    def close(self):
        for key in list(self.selector.get_map().values()):
            key.fileobj.close()
        self.selector.close()


def write_capture(path, events):
    """A pcap file (raw IPv4) of the recorded connections, each with its
    handshake. Consecutive chunks of one direction share a segment, segments
    are at most MSS bytes, and the first answer on each link is cut after 5
    bytes, inside its header."""
    chunks = []
    for index, from_client, data in events:
        if chunks and chunks[-1][:2] == (index, from_client):
            chunks[-1] = (index, from_client, chunks[-1][2] + data)
        else:
            chunks.append((index, from_client, data))
    packets, seq, started, answered = [], {}, set(), set()

    def segment(index, from_client, flags, payload=b""):
        client = 40000 + index
        ports = (client, CAPTURE_PORT) if from_client else (CAPTURE_PORT, client)
        mine, theirs = seq[(index, from_client)], seq[(index, not from_client)]
        tcp = struct.pack("!HHIIBBHHH", *ports, mine, theirs, 5 << 4, flags, 65535, 0, 0)
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(tcp) + len(payload), 0, 0x4000, 64,
                         6, 0, socket.inet_aton("127.0.0.1"), socket.inet_aton("127.0.0.1"))
        packets.append(ip + tcp + payload)
        seq[(index, from_client)] = (mine + len(payload) + (1 if flags & 0x02 else 0)) % 2**32

    for index, from_client, data in chunks:
        if index not in started:
            started.add(index)
            seq[(index, True)], seq[(index, False)] = 1000, 5000
            segment(index, True, 0x02)   # SYN
            segment(index, False, 0x12)  # SYN, ACK
            segment(index, True, 0x10)   # ACK
        if not from_client and index not in answered:
            answered.add(index)
            segment(index, False, 0x18, data[:5])
            data = data[5:]
        for start in range(0, len(data), MSS):
            segment(index, from_client, 0x18, data[start:start + MSS])
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))
        for number, packet in enumerate(packets):
            out.write(struct.pack("<IIII", 1700000000, number * 1000, len(packet), len(packet)))
            out.write(packet)


def frame(type_, payload):
    return struct.pack("!II", type_, len(payload)) + payload


def record(work, env=None):
    """Records the tool's request, notify, raw and watch through the proxy,
    every process run with `env`; the proxy, closed."""
    if not os.access(TOOL, os.X_OK):
        pytest.skip("APARTMENT_TOOL does not name the built apartment tool")
    (work / "big").write_bytes(BIG)
    with open(work / "serve.log", "w") as log:
        serve = subprocess.Popen([TOOL, "serve", "--node", "echo", "--quiet", "--verbose"],
                                 stdout=subprocess.PIPE, stderr=log, text=True, env=env)
    proxy = None
    try:
        ready = select.select([serve.stdout], [], [], 10)[0]
        line = serve.stdout.readline() if ready else "(nothing within 10 s)"
        if "TLS is unavailable" in (work / "serve.log").read_text():
            pytest.skip("the tool was built without TLS")
        assert line.startswith("listening on "), line
        proxy = RecordingProxy(int(line.rsplit(":", 1)[1]))
        for args in (["request", proxy.url, "echo", "--data", "hello"],
                     ["request", proxy.url, "echo", "--file", str(work / "big")],
                     ["notify", proxy.url, "echo", "--data", "n", "--count", "3", "--interval", "0"],
                     ["raw", proxy.url, "--type", "7", "--data", "frame"],
                     ["watch", proxy.url, "--interval", "100", "--count", "3", "--duration", "1"]):
            proxy.pump_while(subprocess.Popen([TOOL, *args], stdout=subprocess.DEVNULL, env=env))
    finally:
        if proxy:
            proxy.close()
        serve.terminate()
        try:
            serve.wait(5)
        except subprocess.TimeoutExpired:
            serve.kill()
            serve.wait(5)
        serve.stdout.close()
    return proxy


@pytest.fixture(scope="module")
def capture(tmp_path_factory):
    work = tmp_path_factory.mktemp("capture")
    proxy = record(work)
    # A hand-made link: a request whose first string runs past its payload,
    # then an alive frame in the same segment, which must still be read.
    bad = proxy.connections
    events = proxy.events + [
        (bad, True, frame(0, b"\0" + b"tcp://127.0.0.1:1".ljust(129, b"\0"))),
        (bad, True, frame(1, struct.pack("!I", 99) + b"short") + frame(3, b"\0\0\0\1x\0\0\0\7")),
    ]
    write_capture(work / "apartment.pcap", events)
    return work / "apartment.pcap"


@pytest.fixture(scope="module")
def tls_capture(tmp_path_factory):
    """The same traffic over TLS: (the capture, the key log its processes wrote)."""
    work = tmp_path_factory.mktemp("tls")
    subprocess.run([MAKE_CERTS, str(work)], check=True, stdout=subprocess.DEVNULL, timeout=30)
    env = dict(os.environ, APARTMENT_TLS_CERT=str(work / "a.pem"),
               APARTMENT_TLS_KEY=str(work / "a.key"), APARTMENT_TLS_CA=str(work / "ca.pem"),
               APARTMENT_TLS_KEYLOG=str(work / "keys"))
    write_capture(work / "tls.pcap", record(work, env).events)
    return work / "tls.pcap", work / "keys"


def tshark(capture, *options):
    result = subprocess.run([TSHARK, "-r", str(capture), "-X", "lua_script:" + DISSECTOR, *options],
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 0 and "Lua" not in result.stderr, result.stderr
    return result.stdout


def frames(capture, *options):
    """Each apartment frame as {field: shown value} plus its packet number."""
    found = []
    for packet in ElementTree.fromstring(tshark(capture, "-o", "apartment.ports:%d" % CAPTURE_PORT,
                                                *options, "-T", "pdml")).iter("packet"):
        number = packet.find("proto[@name='geninfo']/field[@name='num']").get("show")
        for proto in packet.findall("proto[@name='apartment']"):
            fields = {"packet": number}
            for field in proto.iter("field"):
                fields.setdefault(field.get("name"), field.get("show"))
            found.append(fields)
    return found


def matching(decoded, **wanted):
    return [f for f in decoded if all(f.get(k) == v for k, v in wanted.items())]


def assert_hello_and_its_answer(decoded):
    hello = matching(decoded, **{"apartment.data": "68:65:6c:6c:6f"})
    assert [h["apartment.type"] for h in hello] == ["1", "2"]  # request, echoed response
    request, response = hello
    assert (request["apartment.src_node"], request["apartment.dst_node"]) == ("cli", "echo")
    assert request["apartment.dst_url"].startswith("tcp://127.0.0.1:")
    assert (request["apartment.requires_response"], request["apartment.data_length"]) == ("1", "5")
    assert (response["apartment.request_id"], response["apartment.response_code"]) == (
        request["apartment.request_id"], "0")
    assert (response["apartment.src_node"], response["apartment.dst_node"]) == ("echo", "cli")


def test_every_frame_type_is_decoded(capture):
    decoded = frames(capture)

    def of(**wanted):
        return matching(decoded, **wanted)

    connections = of(**{"apartment.type": "0"})
    assert len(connections) == 6  # five tool links and the hand-made one
    assert {c["apartment.rt"] for c in connections} == {"1", "0"}
    assert all(c["apartment.url"].startswith("tcp://127.0.0.1:") for c in connections)
    assert_hello_and_its_answer(decoded)

    big = of(**{"apartment.data_length": "3000"})  # split over several segments
    assert [b["apartment.type"] for b in big] == ["1", "2"]
    assert big[0]["apartment.data"] == BIG.hex(":")

    notes = of(**{"apartment.requires_response": "0"})
    assert [n["apartment.data"] for n in notes] == ["6e"] * 3
    assert len({n["packet"] for n in notes}) == 1  # three frames in one segment

    raw = of(**{"apartment.raw.type": "7"})
    assert [(r["apartment.data"], r["apartment.link"]) for r in raw] == [("66:72:61:6d:65", "real-time")]

    alive, acks = of(**{"apartment.type": "3"}), of(**{"apartment.type": "4"})
    assert len(acks) >= 3 and len(alive) >= len(acks)
    assert acks[0]["apartment.alive.timer_id"] == alive[0]["apartment.alive.timer_id"]
    assert alive[0]["apartment.alive.url"].startswith("tcp://127.0.0.1:")

    malformed = [(f["apartment.type"], f["_ws.expert.message"]) for f in decoded
                 if "apartment.malformed" in f]
    assert malformed == [("1", "the request ends early")]
    assert of(**{"apartment.alive.url": "x", "apartment.alive.timer_id": "7"})  # read after it


def test_port_preference_decode_as_and_heuristic_agree(capture):
    fields = ("-T", "fields", "-e", "frame.number", "-e", "apartment.type", "-e", "apartment.raw.type")
    by_port = tshark(capture, "-o", "apartment.ports:%d" % CAPTURE_PORT, *fields)
    assert by_port.count("\t") > 40
    assert tshark(capture, "-d", "tcp.port==%d,apartment" % CAPTURE_PORT, *fields) == by_port
    assert tshark(capture, *fields) == by_port  # found by the connection frames


def test_tls_records_are_decrypted_with_the_key_log_and_their_frames_decoded(tls_capture):
    capture, keys = tls_capture
    decoded = frames(capture, "-o", "tls.keylog_file:%s" % keys)
    assert len(matching(decoded, **{"apartment.type": "0"})) == 5
    assert_hello_and_its_answer(decoded)
    assert [b["apartment.data"] for b in matching(decoded, **{"apartment.data_length": "3000"})] == [
        BIG.hex(":")] * 2
    raw = matching(decoded, **{"apartment.raw.type": "7"})
    assert [(r["apartment.data"], r["apartment.link"]) for r in raw] == [("66:72:61:6d:65", "real-time")]
    assert len(matching(decoded, **{"apartment.type": "4"})) >= 3
    assert frames(capture) == []  # without the secrets nothing is in the clear
