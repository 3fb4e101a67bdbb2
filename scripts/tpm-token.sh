#!/usr/bin/env bash
# A tpm2-pkcs11 token on a software TPM, all in one directory, for trying the host with a TPM-backed
# token and for the tests:
#   scripts/tpm-token.sh start DIR LABEL USER_PIN SO_PIN
#   scripts/tpm-token.sh stop DIR
# start runs swtpm on two free ports of 127.0.0.1, a private D-Bus session bus and tpm2-abrmd on that
# bus as the TPM's access broker (without it tpm2_ptool runs out of object contexts), then makes the
# token with tpm2_ptool. It writes DIR/env, the variables a program loading libtpm2_pkcs11.so needs
# (`set -a; . DIR/env` for a shell). stop ends the processes by the pids start recorded in DIR; a failing
# start stops what it had started. Nothing outside DIR is touched, and no system bus or TPM is used.
set -euo pipefail

stop() {
  local dir=$1 name pids=()
  for name in abrmd bus swtpm; do
    if [ -s "$dir/$name.pid" ]; then
      pids+=("$(cat "$dir/$name.pid")")
      rm -f "$dir/$name.pid"
    fi
  done
  [ ${#pids[@]} -gt 0 ] || return 0
  kill "${pids[@]}" 2>/dev/null || true
  # Each process is gone, or a zombie its parent has yet to reap.
  local end=$((SECONDS + 10)) pid
  for pid in "${pids[@]}"; do
    while grep -qs '^State:[[:space:]]*[^Z]' "/proc/$pid/status" && [ $SECONDS -lt $end ]; do sleep 0.05; done
  done
}

# Two neighbouring ports of 127.0.0.1 that nothing listens on now: swtpm's TCTI takes the one after
# the TPM's port as its control port.
free_ports() {
  python3 -c '
import socket
while True:
    first, second = socket.socket(), socket.socket()
    first.bind(("127.0.0.1", 0))
    port = first.getsockname()[1]
    try:
        second.bind(("127.0.0.1", port + 1))
        print(port)
        break
    except OSError:
        pass'
}

# Runs a check every 50 ms until it succeeds, for about 10 s at most.
wait_for() {
  local end=$((SECONDS + 10))
  while [ $SECONDS -lt $end ]; do
    "$@" >/dev/null 2>&1 && return 0
    sleep 0.05
  done
  echo "tpm-token: gave up waiting for: $*" >&2
  return 1
}

start() {
  local dir label=$2 user_pin=$3 so_pin=$4 port
  dir=$(cd "$1" && pwd)
  # On failure, what the tools said, for whoever reads our errors.
  trap 'tail -n 20 "$dir"/*.log >&2; stop "$dir"' ERR
  mkdir -p "$dir/tpm" "$dir/store"
  port=$(free_ports)
  swtpm socket --tpm2 --tpmstate dir="$dir/tpm" --flags not-need-init,startup-clear \
    --server type=tcp,port="$port",bindaddr=127.0.0.1 --ctrl type=tcp,port=$((port + 1)),bindaddr=127.0.0.1 \
    </dev/null >"$dir/swtpm.log" 2>&1 &
  echo $! >"$dir/swtpm.pid"

  # A session bus of our own, so nothing reaches the user's bus or the system's broker.
  cat >"$dir/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$dir/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>
EOF
  dbus-daemon --config-file="$dir/bus.conf" --nofork </dev/null >"$dir/bus.log" 2>&1 &
  echo $! >"$dir/bus.pid"
  cat >"$dir/env" <<EOF
DBUS_SESSION_BUS_ADDRESS=unix:path=$dir/bus
TPM2_PKCS11_STORE=$dir/store
TPM2_PKCS11_TCTI=tabrmd:bus_type=session
TPM2TOOLS_TCTI=tabrmd:bus_type=session
EOF
  set -a
  # shellcheck disable=SC1091
  . "$dir/env"
  set +a

  wait_for bash -c "exec 3<>/dev/tcp/127.0.0.1/$port"
  wait_for test -S "$dir/bus"
  # The broker refuses to run as root unless told that it may.
  local root=()
  [ "$(id -u)" -ne 0 ] || root=(--allow-root)
  tpm2-abrmd --session "${root[@]}" --tcti="swtpm:host=127.0.0.1,port=$port" </dev/null >"$dir/abrmd.log" 2>&1 &
  echo $! >"$dir/abrmd.pid"
  wait_for dbus-send --session --reply-timeout=500 --dest=org.freedesktop.DBus --print-reply /org/freedesktop/DBus \
    org.freedesktop.DBus.GetNameOwner string:com.intel.tss2.Tabrmd

  tpm2_ptool init >"$dir/ptool.log" 2>&1
  tpm2_ptool addtoken --pid=1 --label="$label" --userpin="$user_pin" --sopin="$so_pin" >>"$dir/ptool.log" 2>&1
  trap - ERR
}

if [ "${1:-}" = start ] && [ $# -eq 5 ]; then
  start "$2" "$3" "$4" "$5"
elif [ "${1:-}" = stop ] && [ $# -eq 2 ]; then
  stop "$2"
else
  echo "usage: $0 start DIR LABEL USER_PIN SO_PIN | stop DIR" >&2
  exit 2
fi
