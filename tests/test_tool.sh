#!/usr/bin/env bash
# End-to-end tests of the apartment command-line tool, run as processes.
# usage: test_tool.sh <path to apartment> errors|messaging|watch|demo
# Every command runs under `timeout`; servers are killed on exit.
set -u
TOOL=$1
CASE=$2
WORK=$(mktemp -d)
SERVER_PID=
failures=0

cleanup() {
    if [ -n "$SERVER_PID" ]; then kill -KILL "$SERVER_PID" 2>/dev/null; wait "$SERVER_PID" 2>/dev/null; fi
    rm -rf "$WORK"
}
trap cleanup EXIT

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# expect_exit CODE DESCRIPTION -- COMMAND...: runs the tool with a time
# limit, checks the exit code, keeps stdout/stderr in $WORK/out, $WORK/err.
expect_exit() {
    local want=$1 what=$2
    shift 3
    timeout 20 "$TOOL" "$@" >"$WORK/out" 2>"$WORK/err"
    local got=$?
    [ "$got" = "$want" ] || fail "$what: exit $got, wanted $want (stderr: $(head -c 300 "$WORK/err"))"
}

# A usage or runtime error is exactly one line on stderr.
expect_one_error_line() {
    local lines
    lines=$(wc -l <"$WORK/err")
    [ "$lines" = 1 ] || fail "$1: $lines lines on stderr: $(cat "$WORK/err")"
    grep -q '^apartment: ' "$WORK/err" || fail "$1: stderr does not start with 'apartment: '"
}

# Starts `apartment serve` with the given options; sets SERVER_PID and URL.
start_server() {
    "$TOOL" serve "$@" >"$WORK/serve.out" 2>"$WORK/serve.err" &
    SERVER_PID=$!
    URL=
    for _ in $(seq 100); do
        URL=$(sed -n '1s/^listening on //p' "$WORK/serve.out")
        [ -n "$URL" ] && return 0
        sleep 0.05
    done
    fail "serve did not print its URL"
    return 1
}

stop_server() {
    kill -TERM "$SERVER_PID"
    local waited=0
    while kill -0 "$SERVER_PID" 2>/dev/null && [ $waited -lt 50 ]; do sleep 0.1; waited=$((waited + 1)); done
    if kill -0 "$SERVER_PID" 2>/dev/null; then fail "serve ignored SIGTERM"; fi
    wait "$SERVER_PID"
    local rc=$?
    SERVER_PID=
    return $rc
}

# Waits up to 5 s for a line matching $1 in the server's output.
server_prints() {
    for _ in $(seq 100); do
        grep -q -- "$1" "$WORK/serve.out" && return 0
        sleep 0.05
    done
    fail "serve never printed '$1'"
}

case $CASE in
errors)
    expect_exit 2 "no command" --
    expect_exit 2 "unknown command" -- frobnicate
    expect_one_error_line "unknown command"
    expect_exit 0 "help" -- --help
    grep -q '^usage: apartment' "$WORK/out" || fail "help has no usage line"
    for cmd in serve request notify raw watch bench demo; do
        expect_exit 0 "$cmd --help" -- "$cmd" --help
        grep -q "^usage: apartment $cmd" "$WORK/out" || fail "$cmd --help has no usage line"
    done
    expect_exit 0 "version" -- version
    grep -Eq '^apartment [0-9]+\.[0-9]+\.[0-9]+, library [0-9]+\.[0-9]+\.[0-9]+' "$WORK/out" ||
        fail "version line: $(cat "$WORK/out")"
    expect_exit 2 "request without node" -- request tcp://127.0.0.1:5000
    expect_one_error_line "request without node"
    for bad in tcp://127.0.0.1 http://127.0.0.1:80 tcp://localhost:80 tcp://1.2.3:80 \
               tcp://1.2.3.256:80 tcp://127.0.0.1:0 tcp://127.0.0.1:65536 tcp://127.0.0.1:x; do
        expect_exit 2 "malformed URL $bad" -- request "$bad" echo
        expect_one_error_line "malformed URL $bad"
    done
    expect_exit 2 "serve with a bad URL" -- serve --url tcp://nowhere:1
    expect_exit 2 "count not a number" -- request tcp://127.0.0.1:5000 echo --count abc
    expect_exit 2 "count zero" -- notify tcp://127.0.0.1:5000 echo --count 0
    expect_exit 2 "unknown option" -- raw tcp://127.0.0.1:5000 --colour
    expect_one_error_line "unknown option"
    expect_exit 2 "missing option value" -- request tcp://127.0.0.1:5000 echo --data
    expect_exit 2 "both --echo and --print" -- serve --echo --print
    expect_exit 2 "bad format" -- serve --format octal
    # A start refused for its settings, not its port, says why once and
    # does not try other ports.
    APARTMENT_TLS_CERT=/nonexistent expect_exit 1 "partial TLS settings" -- serve --node n
    expect_one_error_line "partial TLS settings"
    grep -q 'cannot start the apartment: .*TLS' "$WORK/err" || fail "partial TLS settings: $(cat "$WORK/err")"
    expect_exit 2 "bad size list" -- bench --size 64,,1024
    expect_exit 2 "type on request" -- request tcp://127.0.0.1:5000 echo --type 3
    expect_exit 1 "unreadable file" -- request tcp://127.0.0.1:5000 echo --file "$WORK/none"
    expect_one_error_line "unreadable file"

    # A port that was just in use and is now closed: refused at once.
    start_server || exit 1
    closed=$URL
    stop_server
    for cmd in "request $closed echo" "notify $closed echo" "raw $closed" "bench --remote $closed --count 1"; do
        # shellcheck disable=SC2086
        expect_exit 1 "unreachable: $cmd" -- $cmd --timeout 2000
        expect_one_error_line "unreachable: $cmd"
        grep -q "cannot connect to $closed" "$WORK/err" || fail "$cmd: $(cat "$WORK/err")"
    done
    ;;
messaging)
    start_server --node echo --node other || exit 1
    [[ $URL =~ ^tcp://127\.0\.0\.1:[0-9]+$ ]] || fail "URL line: $URL"

    expect_exit 0 "request" -- request "$URL" echo --data "hello there" --count 3
    [ "$(grep -c '^response id=[0-9]* code=0 (REQUEST_OK) 11 B rtt=[0-9.]* ms: hello there$' "$WORK/out")" = 3 ] ||
        fail "request output: $(cat "$WORK/out")"
    printf 'line one\nline two' | timeout 20 "$TOOL" request "$URL" other --data - --format quoted >"$WORK/out" 2>"$WORK/err" ||
        fail "request from stdin: $(cat "$WORK/err")"
    grep -q ': "line one\\nline two"$' "$WORK/out" || fail "stdin request output: $(cat "$WORK/out")"
    printf '\001\002\377' >"$WORK/bytes"
    expect_exit 0 "request from a file" -- request "$URL" echo --file "$WORK/bytes" --format hex
    grep -q ' 3 B rtt=.*: 01 02 ff$' "$WORK/out" || fail "hex output: $(cat "$WORK/out")"
    expect_exit 1 "request to an unknown node" -- request "$URL" nobody --timeout 300
    expect_one_error_line "unknown node"
    grep -q 'no response from .*/nobody within 300 ms' "$WORK/err" || fail "unknown node: $(cat "$WORK/err")"

    expect_exit 0 "notify" -- notify "$URL" echo --data ping --count 2
    [ "$(grep -c '^notify id=[0-9]* 4 B sent to' "$WORK/out")" = 2 ] || fail "notify output: $(cat "$WORK/out")"
    server_prints "notify tcp://127.0.0.1:[0-9]*/cli -> echo 4 B: ping"

    expect_exit 0 "raw" -- raw "$URL" --type 9 --data frame --count 3
    server_prints "raw type=9 5 B: frame"
    expect_exit 0 "stats" -- request "$URL" _stats
    grep -q 'notifications=2 requests=[0-9]* raw=3 raw_bytes=15' "$WORK/out" ||
        fail "stats after notify and raw: $(cat "$WORK/out")"

    # --print answers empty and shows the request.
    stop_server || fail "serve did not exit 0 on SIGTERM"
    start_server --print --node p || exit 1
    expect_exit 0 "request to a printing node" -- request "$URL" p --data shown
    grep -q ' 0 B rtt=' "$WORK/out" || fail "printing node answered: $(cat "$WORK/out")"
    server_prints "request tcp://127.0.0.1:[0-9]*/cli -> p id=1 5 B: shown"
    stop_server || fail "serve did not exit 0 on SIGTERM"
    ;;
watch)
    start_server || exit 1
    timeout 20 "$TOOL" watch "$URL" --interval 100 --count 2 --duration 4 >"$WORK/watch.out" 2>"$WORK/watch.err" &
    watch_pid=$!
    for _ in $(seq 100); do grep -q online "$WORK/watch.out" && break; sleep 0.05; done
    sleep 0.5
    stop_server
    wait $watch_pid
    rc=$?
    [ $rc = 0 ] || fail "watch exit $rc: $(cat "$WORK/watch.err")"
    grep -Eq "^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} online $URL" "$WORK/watch.out" || fail "no online line: $(cat "$WORK/watch.out")"
    grep -Eq "^[0-9:.]+ offline $URL" "$WORK/watch.out" || fail "no offline line: $(cat "$WORK/watch.out")"
    [ "$(grep -c offline "$WORK/watch.out")" = 1 ] || fail "offline reported more than once: $(cat "$WORK/watch.out")"
    # The order must be online, then offline.
    [ "$(head -1 "$WORK/watch.out" | grep -c online)" = 1 ] || fail "first line is not online"

    # A remote that comes back on the same port is reported online again.
    port=${URL##*:}
    timeout 20 "$TOOL" watch "$URL" --interval 100 --count 2 --duration 4 >"$WORK/watch.out" 2>"$WORK/watch.err" &
    watch_pid=$!
    for _ in $(seq 100); do grep -q offline "$WORK/watch.out" && break; sleep 0.05; done
    start_server --url "tcp://127.0.0.1:$port" || exit 1
    wait $watch_pid
    grep -q "offline $URL (cannot connect)" "$WORK/watch.out" || fail "not offline at first: $(cat "$WORK/watch.out")"
    grep -q "online $URL (connected)" "$WORK/watch.out" || fail "not back online: $(cat "$WORK/watch.out")"
    stop_server
    ;;
demo)
    start=$(date +%s)
    expect_exit 0 "demo" -- demo
    elapsed=$(($(date +%s) - start))
    [ $elapsed -le 15 ] || fail "demo took $elapsed s"
    for expected in "round trip" "responder| .* notify" "responder| .* raw type=7" "tick 3" \
                    "reports tcp://127.0.0.1:[0-9]* offline" "^summary"; do
        grep -q -- "$expected" "$WORK/out" || fail "demo output lacks '$expected'"
    done
    ;;
*)
    echo "unknown case $CASE"
    exit 2
    ;;
esac

[ $failures = 0 ] && echo "PASS: $CASE"
exit $((failures != 0))
