#!/usr/bin/env bash
# The demo behind `make demo`: the example shop application against the collector simulator on
# loopback, then what the collector received. Usage: scripts/demo.sh [build dir, default build]
set -euo pipefail

BUILD_DIR=${1:-build}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
case "$BUILD_DIR" in /*) ;; *) BUILD_DIR="$ROOT/$BUILD_DIR" ;; esac
COLLECTOR="$BUILD_DIR/tools/qvcollector"
APP="$BUILD_DIR/examples/shop_app"
THREADS=${DEMO_THREADS:-4}
SECONDS_OF_TRAFFIC=${DEMO_SECONDS:-6}
REPORT_INTERVAL=5

for f in "$COLLECTOR" "$APP"; do
    [ -x "$f" ] || { echo "demo: $f is missing; run 'make build' first" >&2; exit 1; }
done

WORK=$(mktemp -d "${TMPDIR:-/tmp}/qvdemo.XXXXXX")
COLLECTOR_PID=""
APP_PID=""

cleanup() {
    local rc=$?
    trap - EXIT INT TERM
    exec 3>&-
    for pid in $APP_PID $COLLECTOR_PID; do
        if kill -0 "$pid" 2>/dev/null; then
            kill -TERM "$pid" 2>/dev/null || true
            for _ in $(seq 20); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
            kill -KILL "$pid" 2>/dev/null || true
        fi
        wait "$pid" 2>/dev/null || true
    done
    if [ "${DEMO_KEEP:-0}" = 1 ]; then
        echo "demo: files kept in $WORK"
    else
        rm -rf "$WORK"
    fi
    exit $rc
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Waits up to $1 seconds for the command in $2.. to succeed; fails when the process $PID_TO_WATCH
# (if set) has ended meanwhile.
wait_for() {
    local limit=$1
    shift
    local deadline=$((SECONDS + limit))
    until "$@"; do
        if [ -n "${PID_TO_WATCH:-}" ] && ! kill -0 "$PID_TO_WATCH" 2>/dev/null; then return 1; fi
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.2
    done
}

gone() {
    ! kill -0 "$1" 2>/dev/null
}

count_74() {
    cat "$WORK"/out/as-*.rec 2>/dev/null | grep -c '^74,' || true
}

report_after() {
    [ "$(count_74)" -gt "$1" ]
}

# Agent home: settings file (collector address filled in below), version file, log directory
# and an instrumentation profile that puts a few methods into the method monitor.
HOME_DIR="$WORK/home/"
mkdir -p "$HOME_DIR/config" "$HOME_DIR/etc" "$HOME_DIR/logs" "$WORK/out"
echo "1.0.0 demo" >"$HOME_DIR/etc/version"
cat >"$HOME_DIR/config/instrprofile.conf" <<'EOF'
monitor|CatalogService::findProducts
monitor|CartService::addItem
monitor|SearchController::query
monitor|PaymentClient::charge
monitor|OrderRepository::loadLines
EOF

# The collector reads further commands from a FIFO; "stop" goes there once the report came.
mkfifo "$WORK/commands"
exec 3<>"$WORK/commands"
echo "== starting qvcollector (report interval shortened to $REPORT_INTERVAL s) =="
"$COLLECTOR" --port 0 --port-file "$WORK/port" --out "$WORK/out" --interactive --exit-after-stop \
    --keyword qvMonitorInterval=$REPORT_INTERVAL --keyword setthresholdTime=0 \
    --summary-interval $REPORT_INTERVAL <"$WORK/commands" >"$WORK/collector.out" &
COLLECTOR_PID=$!
PID_TO_WATCH=$COLLECTOR_PID wait_for 10 test -s "$WORK/port" || { echo "demo: qvcollector did not start" >&2; exit 1; }
PORT=$(cat "$WORK/port")
cat >"$HOME_DIR/config/qvsettings.conf" <<EOF
tier=Shop
server=demo
instance=shop_app
qvcHost=127.0.0.1
qvcPort=$PORT
EOF

echo "== starting shop_app: $THREADS threads, $SECONDS_OF_TRAFFIC s of traffic after qv_init's 30 s pause =="
QVHOME="$HOME_DIR" "$APP" "$THREADS" "$SECONDS_OF_TRAFFIC" 120 >"$WORK/app.out" 2>&1 &
APP_PID=$!
PID_TO_WATCH=$APP_PID wait_for 90 grep -q 'traffic done' "$WORK/app.out" || {
    echo "demo: shop_app did not finish its traffic:" >&2
    cat "$WORK/app.out" >&2
    exit 1
}
grep 'shop_app:' "$WORK/app.out" | sed 's/^/   /'

echo "== waiting for the next monitor report; then a metadata replay and the end of the test run =="
before=$(count_74)
wait_for $((REPORT_INTERVAL * 3)) report_after "$before" || echo "demo: no monitor report arrived" >&2
sleep 0.5 # the rest of the report's records
# Methods named in the instrumentation profile were registered before the data connection
# existed; the replay of the method (5) and BT (7) tables onto the data connection names them.
echo "meta demo;0;0;5,7;1" >&3
echo stop >&3
PID_TO_WATCH="" wait_for 60 gone "$COLLECTOR_PID" || {
    echo "demo: the collector saw no end of the test run" >&2
    exit 1
}
wait "$COLLECTOR_PID" || true
COLLECTOR_PID=""
kill -TERM "$APP_PID" 2>/dev/null || true
wait "$APP_PID" || true
APP_PID=""

echo
echo "== what the collector received =="
shopt -s nullglob
"$COLLECTOR" decode --flowpaths 3 "$WORK"/out/data-*.rec "$WORK"/out/as-*.rec
echo
echo "Times: the SDK starts every flowpath at time 0, so flowpath offsets and BT response times are"
echo "wall-clock milliseconds, and method exits carry no wall time; the callouts show real durations."
