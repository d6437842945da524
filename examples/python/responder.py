"""Serves the node "echo", which answers each request with its own bytes.

    python3 responder.py [tcp://127.0.0.1:7001]
"""
import sys

import apartment

with apartment.open(sys.argv[1] if len(sys.argv) > 1 else "tcp://127.0.0.1:7001") as ap:
    ap.node("echo", on_request=lambda request: request.data)
    print("listening on", ap.url, flush=True)
    try:
        ap.run()  # until Ctrl-C
    except KeyboardInterrupt:
        pass
