"""Child processes for the apartment module's tests: the C++ tool and Python
peers. Every child is reaped, and every wait for one has a time limit."""
import os
import queue
import subprocess
import sys
import threading

import pytest


class Child:
    """A process whose output lines are collected by a thread."""

    def __init__(self, args, env=None):
        self.proc = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     stdin=subprocess.DEVNULL, text=True, env=env)
        self.lines = queue.Queue()
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def expect(self, prefix, timeout=10.0):
        """The rest of the first line starting with `prefix` (the library's
        own diagnostics may come between)."""
        try:
            while (line := self.lines.get(timeout=timeout)) is not None:
                self.seen.append(line)
                if line.startswith(prefix):
                    return line[len(prefix):]
        except queue.Empty:
            pass
        pytest.fail(f"no line {prefix!r} from {self.proc.args}; got {self.seen}")

    def stop(self):
        self.proc.terminate()
        try:
            self.proc.wait(5)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait(5)
        self.proc.stdout.close()


@pytest.fixture
def children():
    """Starts children with children(args, env=None); all are stopped after
    the test."""
    started = []

    def start(args, env=None):
        started.append(Child(args, env))
        return started[-1]

    yield start
    for child in started:
        child.stop()


@pytest.fixture(scope="session")
def tool():
    path = os.environ.get("APARTMENT_TOOL", "")
    return path if os.access(path, os.X_OK) else pytest.skip("APARTMENT_TOOL is not the tool")


@pytest.fixture
def serve(tool, children):
    """The URL of a C++ `apartment serve` with an echo node."""
    return children([tool, "serve", "--node", "echo"]).expect("listening on ")


@pytest.fixture
def python_peer(children):
    """Starts this directory's peer (test_apartment.py run as a script)."""
    script = os.path.join(os.path.dirname(__file__), "test_apartment.py")
    return lambda *args: children([sys.executable, script, *args])
