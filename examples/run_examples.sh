#!/usr/bin/env bash
# Runs the requester against the responder on a free port of 127.0.0.1 and
# checks that every request came back. Every wait is bounded; the responder
# is always stopped.
#
#   run_examples.sh <responder> <requester>
set -euo pipefail

responder=$1 requester=$2
work=$(mktemp -d)
pid=
cleanup() {
  if [[ -n $pid ]]; then
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])' \
    2>/dev/null || echo $((20000 + RANDOM % 20000))
}

# Start the responder; a port taken meanwhile makes it exit, then try another.
url=
for attempt in 1 2 3 4 5; do
  candidate="tcp://127.0.0.1:$(free_port)"
  "$responder" "$candidate" > "$work/responder.log" 2>&1 &
  pid=$!
  for _ in $(seq 100); do
    grep -q "listening" "$work/responder.log" && { url=$candidate; break; }
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  [[ -n $url ]] && break
  wait "$pid" 2>/dev/null || true
  pid=
done
[[ -n $url ]] || { echo "FAIL: the responder did not start"; cat "$work/responder.log"; exit 1; }

timeout 30 "$requester" "$url" 3 | tee "$work/requester.log"
answered=$(grep -c '^request [0-9]*: code 0, ' "$work/requester.log" || true)
if [[ $answered -ne 3 ]]; then
  echo "FAIL: $answered of 3 requests answered"
  cat "$work/responder.log"
  exit 1
fi
echo "examples passed"
