#!/usr/bin/env bash
# The whole system on this machine in one command: installs what is missing, builds, starts a
# private nats-server with JetStream, provisions it, starts the reference peers and the worker,
# scans a few samples made on the spot with fq-av-scan, one of them once more through the HTTP
# gateway fq-av-gateway, sends one to the quarantine sealed under a pass phrase and restores it from
# there, and stops everything it started again.
#
#   bash scripts/demo.sh                 run the demo and stop
#   bash scripts/demo.sh --keep-running  leave the broker, peers and worker running afterwards
#   bash scripts/demo.sh --stop DIR      stop what a --keep-running demo left in DIR
#
# Environment: FQ_BUILD_DIR (build directory, default build), FQ_DEMO_SKIP_INSTALL=1 (do not run
# scripts/install-deps.sh), FQ_DEMO_SKIP_BUILD=1 (use the programs as they are in the build directory).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

BUILD=${FQ_BUILD_DIR:-build}
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac

PEERS=(fq-av-log fq-av-events-dispatch fq-av-worker-control fq-av-mimescan fq-av-clamav fq-av-quarantine)
PROGRAMS=(fq-av-scanproxy fq-av-provision fq-av-scan fq-av-gateway "${PEERS[@]}")

say() { printf 'demo: %s\n' "$*"; }
die() { printf 'demo: %s\n' "$*" >&2; exit 1; }

usage() {
  cat <<EOF
Usage: bash scripts/demo.sh [--keep-running | --stop DIR | --help]
Installs, builds, starts nats-server -js on 127.0.0.1 (a free port, a temporary store), provisions it,
starts ${PEERS[*]}, fq-av-gateway and fq-av-scanproxy, scans sample files with fq-av-scan
(one of them through the gateway), quarantines one sealed and restores it, and stops everything it
started, also on Ctrl-C.
  --keep-running  leave everything running and print how to use and stop it
  --stop DIR      stop what a --keep-running demo started (DIR is printed by it)
Environment: FQ_BUILD_DIR (default build), FQ_DEMO_SKIP_INSTALL=1, FQ_DEMO_SKIP_BUILD=1.
EOF
}

# The process is still the program we started under that PID (PIDs are reused).
is_ours() {
  local pid=$1 name=$2 exe
  exe=$(readlink "/proc/$pid/exe" 2>/dev/null) || return 1
  [ "$(basename "$exe")" = "$name" ]
}

alive() {
  local pid=$1 state
  [ -r "/proc/$pid/stat" ] || return 1
  # A zombie has ended; only its parent's wait is missing.
  state=$(sed 's/^.*) //' "/proc/$pid/stat" 2>/dev/null | cut -c1)
  [ -n "$state" ] && [ "$state" != Z ]
}

# SIGTERM, a bounded wait, then SIGKILL.
stop_pid() {
  local pid=$1 name=$2 limit=$3 i
  is_ours "$pid" "$name" || return 0
  kill -TERM "$pid" 2>/dev/null || return 0
  for ((i = 0; i < limit * 10; i++)); do
    alive "$pid" || break
    sleep 0.1
  done
  if alive "$pid"; then
    say "$name (PID $pid) did not stop within ${limit}s; killing it"
    kill -KILL "$pid" 2>/dev/null || true
  fi
  wait "$pid" 2>/dev/null || true
}

# Stops the processes listed in DIR/pids, the last started first, and removes DIR.
stop_all() {
  local dir=$1 name pid limit lines=()
  [ -f "$dir/pids" ] || return 0
  mapfile -t lines <"$dir/pids"
  for ((i = ${#lines[@]} - 1; i >= 0; i--)); do
    read -r name pid <<<"${lines[$i]}"
    # The worker's stop sequence gives its last records 3 s to leave.
    limit=5
    [ "$name" = fq-av-scanproxy ] && limit=15
    stop_pid "$pid" "$name" "$limit"
  done
  # The trace file's lock is a named semaphore that outlives the worker.
  local trace="$dir/trace.log"
  rm -f "/dev/shm/sem.fq_log_${trace//\//_}"
  rm -rf "$dir"
}

keep=0
case "${1:-}" in
  "") ;;
  --keep-running) keep=1 ;;
  --stop)
    [ -n "${2:-}" ] || die "--stop needs the directory a --keep-running demo printed"
    [ -f "$2/pids" ] || die "$2 is not a directory left by a --keep-running demo"
    stop_all "$2"
    say "stopped"
    exit 0
    ;;
  -h | --help)
    usage
    exit 0
    ;;
  *)
    usage >&2
    exit 1
    ;;
esac

if [ -z "${FQ_DEMO_SKIP_INSTALL:-}" ]; then
  bash scripts/install-deps.sh
fi
if [ -z "${FQ_DEMO_SKIP_BUILD:-}" ]; then
  if [ ! -f "$BUILD/CMakeCache.txt" ]; then
    cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  fi
  cmake --build "$BUILD" -j"$(nproc)" --target "${PROGRAMS[@]}"
fi
for p in "${PROGRAMS[@]}"; do
  [ -x "$BUILD/$p" ] || die "$BUILD/$p is missing; build it first (cmake --build $BUILD)"
done
command -v nats-server >/dev/null || die "nats-server is not installed (bash scripts/install-deps.sh)"
command -v zip >/dev/null || die "zip is not installed (bash scripts/install-deps.sh)"

WORK=$(mktemp -d "${TMPDIR:-/tmp}/fq-av-demo.XXXXXX")
say "working in $WORK (the worker's trace.log and logs/<program>.log are there)"
mkdir -p "$WORK/logs" "$WORK/js" "$WORK/base/fq-av-scanproxy" "$WORK/base/run" "$WORK/samples" "$WORK/make"
: >"$WORK/pids"

finished=0
on_exit() {
  local status=$?
  if [ "$keep" = 1 ] && [ "$finished" = 1 ]; then
    exit "$status"
  fi
  if [ -f "$WORK/pids" ]; then
    say "stopping everything it started"
    stop_all "$WORK"
  fi
  exit "$status"
}
trap on_exit EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Starts a program in the background with its output in logs/<name>.log and notes its PID.
start() {
  local name=$1
  shift
  "$@" >"$WORK/logs/$name.log" 2>&1 &
  local pid=$!
  printf '%s %s\n' "$name" "$pid" >>"$WORK/pids"
  say "started $name (PID $pid)"
}

# Gives up when a process it waits for has already ended.
expect_alive() {
  local name=$1 pid
  pid=$(awk -v n="$name" '$1 == n { print $2 }' "$WORK/pids")
  if ! alive "$pid"; then
    tail -n 20 "$WORK/logs/$name.log" >&2 || true
    die "$name (PID $pid) ended early; its output is above"
  fi
}

# 1. The broker, on a port it picks itself.
start nats-server nats-server -js -a 127.0.0.1 -p -1 -sd "$WORK/js" -l "$WORK/logs/nats-server.out"
port=""
for ((i = 0; i < 100; i++)); do
  port=$(sed -n 's/.*Listening for client connections on 127\.0\.0\.1:\([0-9][0-9]*\).*/\1/p' \
    "$WORK/logs/nats-server.out" 2>/dev/null | head -n 1) || true
  [ -n "$port" ] && break
  expect_alive nats-server
  sleep 0.1
done
[ -n "$port" ] || die "nats-server did not start listening within 10 s"
URL="nats://127.0.0.1:$port"
say "broker $URL"

# 2. Buckets (and streams) the worker binds to.
"$BUILD/fq-av-provision" --broker "$URL" --wait 10s

# 3. The peers, then the worker: it waits for fq-av-worker-control before it takes work.
start fq-av-log "$BUILD/fq-av-log" --broker "$URL" --threads 1 --file "$WORK/logs/log-records.jsonl"
start fq-av-events-dispatch "$BUILD/fq-av-events-dispatch" --broker "$URL" --threads 1 \
  --file "$WORK/logs/events.jsonl"
start fq-av-worker-control "$BUILD/fq-av-worker-control" --broker "$URL" --threads 1
start fq-av-mimescan "$BUILD/fq-av-mimescan" --broker "$URL" --threads 2
start fq-av-clamav "$BUILD/fq-av-clamav" --broker "$URL" --threads 2
# Without a pass phrase of its own: sealed objects stay sealed until an operator restores them.
Q="$WORK/quarantine"
start fq-av-quarantine "$BUILD/fq-av-quarantine" --broker "$URL" --threads 1 --key demo --directory "$Q"
# The HTTP gateway for clients without access to the broker, on a port it picks itself.
start fq-av-gateway "$BUILD/fq-av-gateway" --broker "$URL" --listen 127.0.0.1:0 --threads 2
start fq-av-scanproxy "$BUILD/fq-av-scanproxy" --console-mode --basedir "$WORK/base" --broker "$URL" \
  --tracefile "$WORK/trace.log" --tracelevel 4 --worker-threads 8

ready=0
for ((i = 0; i < 60; i++)); do
  if "$BUILD/fq-av-scan" --broker "$URL" --ping >/dev/null 2>&1; then
    ready=1
    break
  fi
  for p in nats-server "${PEERS[@]}" fq-av-scanproxy; do expect_alive "$p"; done
  sleep 0.5
done
[ "$ready" = 1 ] || die "fq-av-scanproxy did not answer on fq-av-scanproxy.ping within 30 s (see $WORK/trace.log)"
say "fq-av-scanproxy answers on fq-av-scanproxy.ping"

# 4. The worker's ready record, as fq-av-log wrote it: one JSON line per record, to follow with tail -f.
record=""
for ((i = 0; i < 100; i++)); do
  record=$(grep -m 1 'ready with' "$WORK/logs/log-records.jsonl" 2>/dev/null) && break
  sleep 0.1
done
if [ -n "$record" ]; then
  say "the worker's ready record in $WORK/logs/log-records.jsonl:"
  printf '%s\n' "$record"
else
  say "no ready record in $WORK/logs/log-records.jsonl within 10 s (see $WORK/trace.log)"
fi

# 5. Samples: a clean text, the EICAR test file, a zip holding it in a subfolder, and a file
#    above the job's SCAN_MAX_SIZE of 1 MiB.
S="$WORK/samples"
printf 'Hello from the fq-av-scanproxy demo.\n' >"$S/clean.txt"
printf '%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*' >"$S/eicar.com"
mkdir -p "$WORK/make/docs/nested"
cp "$S/eicar.com" "$WORK/make/docs/nested/eicar.com"
(cd "$WORK/make" && zip -q -r "$S/archive.zip" docs)
head -c 2097152 /dev/zero >"$S/large.bin"

say "scanning $S"
echo
set +e
"$BUILD/fq-av-scan" --broker "$URL" --verbose --threads 2 --max-size 1M "$S"
scan_status=$?
set -e
echo
case "$scan_status" in
  1) say "fq-av-scan exit status 1: findings, as expected for these samples" ;;
  0) say "fq-av-scan exit status 0: nothing found, which is NOT what these samples should give" ;;
  *) say "fq-av-scan exit status $scan_status: errors (see $WORK/trace.log and $WORK/logs/)" ;;
esac

# 5. The EICAR sample once more, as a client that only reaches the HTTP gateway.
gw=""
for ((i = 0; i < 100; i++)); do
  gw=$(sed -n 's|.*listening on \(http://127\.0\.0\.1:[0-9][0-9]*\).*|\1|p' \
    "$WORK/logs/fq-av-gateway.log" 2>/dev/null | head -n 1) || true
  [ -n "$gw" ] && break
  expect_alive fq-av-gateway
  sleep 0.1
done
[ -n "$gw" ] || die "fq-av-gateway did not start listening within 10 s"
say "scanning $S/eicar.com through the HTTP gateway $gw"
echo
set +e
"$BUILD/fq-av-scan" --broker "$gw" "$S/eicar.com"
gateway_status=$?
set -e
echo

# 6. The quarantine: the EICAR sample once more, in a job that asks for non-clean objects to go to
#    fq-av-quarantine.demo sealed under a pass phrase; then restored from there with that phrase.
(umask 077 && printf '%s\n' 'demo pass phrase: not for production' >"$WORK/quarantine.pass")
(umask 077 && printf '{"CLEANQUARANTINE": "demo:%s"}\n' "$(head -n 1 "$WORK/quarantine.pass")" \
  >"$WORK/quarantine-policy.json")
say "scanning $S/eicar.com again with CLEANQUARANTINE demo:<pass phrase>"
echo
set +e
"$BUILD/fq-av-scan" --broker "$URL" --policy "$WORK/quarantine-policy.json" "$S/eicar.com"
quarantine_status=$?
set -e
echo
"$BUILD/fq-av-quarantine" list --directory "$Q"
id=$("$BUILD/fq-av-quarantine" list --directory "$Q" | awk -F '\t' 'NR == 1 { print $1 }')
[ -n "$id" ] || die "nothing reached the quarantine (fq-av-scan exit status $quarantine_status; see $WORK/trace.log)"
"$BUILD/fq-av-quarantine" restore "$id" --directory "$Q" --to "$WORK/restored-eicar.com" \
  --passphrase-file "$WORK/quarantine.pass"
original=$(sha256sum <"$S/eicar.com" | cut -d ' ' -f 1)
restored=$(sha256sum <"$WORK/restored-eicar.com" | cut -d ' ' -f 1)
[ "$original" = "$restored" ] || die "the restored object's SHA-256 $restored differs from the original's $original"
say "restored $id from the quarantine: SHA-256 $restored matches the original"

say "output: the worker's trace in $WORK/trace.log, each program's stdout and stderr in $WORK/logs/<program>.log"
[ "$keep" = 1 ] || say "(removed when the demo ends; run with --keep-running to keep them)"

if [ "$keep" = 1 ]; then
  finished=1
  cat <<EOF

demo: everything keeps running
  broker   $URL
  scan     $BUILD/fq-av-scan --broker $URL PATH...
           e.g. $BUILD/fq-av-scan --broker $URL --verbose $S
  gateway  $gw (also: $BUILD/fq-av-scan --broker $gw PATH...)
  trace    $WORK/trace.log; program output in $WORK/logs/
  quarantine $BUILD/fq-av-quarantine list --directory $Q
  records  tail -f $WORK/logs/log-records.jsonl $WORK/logs/events.jsonl
  stop     bash scripts/demo.sh --stop $WORK
EOF
fi
[ "$scan_status" = 1 ] && [ "$quarantine_status" = 1 ] && [ "$gateway_status" = 1 ]
