#!/usr/bin/env bash
# Runs the whole system for a few seconds and shows live events: loads the
# kernel-side programs, starts kavobpfd, subscribes kavobpf_client to the
# service's derived events (and raw process creation), runs a small workload,
# then shuts everything down. It runs in a private mount namespace with its
# own /data and bpffs, so it leaves nothing behind on the machine.
#
#   scripts/demo.sh [BUILD_DIR]          (default: build)
set -euo pipefail

build=$(realpath "${1:-build}")
if [ -z "${KAVO_DEMO_INSIDE:-}" ]; then
  exec env KAVO_DEMO_INSIDE=1 unshare --mount --propagation private "$0" "$build"
fi

mkdir -p /data
mount -t tmpfs tmpfs /data
mount -t bpf bpf /sys/fs/bpf
mountpoint -q /sys/kernel/tracing || mount -t tracefs tracefs /sys/kernel/tracing

echo "== loading the programs"
"$build/tools/kavobpf_loader"

echo "== starting kavobpfd (service log: /tmp/kavobpfd.log)"
"$build/tools/kavobpfd" >/tmp/kavobpfd.log 2>&1 &
daemon=$!
cleanup() {
  kill -TERM "$daemon" 2>/dev/null && wait "$daemon" || true
}
trap cleanup EXIT

echo "== live events (8 s)"
"$build/tools/kavobpf_client" \
  --events process_created,process_exited,thread_count_changed,memory_changed \
  --duration 8 &
client=$!
sleep 2
"$build/tools/kavo_workload" forks 3
"$build/tools/kavo_workload" threads 40 3500 &
"$build/tools/kavo_workload" touch 16 3500 &
wait "$client"

echo "== stopping kavobpfd"
kill -TERM "$daemon"
wait "$daemon" && echo "kavobpfd exited 0"
trap - EXIT
