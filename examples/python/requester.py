"""Sends three requests to the node "echo" and prints each answer.

    python3 requester.py [tcp://127.0.0.1:7001]
"""
import sys

import apartment

url = sys.argv[1] if len(sys.argv) > 1 else "tcp://127.0.0.1:7001"
with apartment.open() as ap:
    for text in (b"hello", b"from", b"python"):
        response = ap.request(url, "echo", text, timeout=2.5)
        print(f"{response.data!r} code={response.code} rtt={response.rtt * 1000:.2f} ms")
