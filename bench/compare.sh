#!/usr/bin/env bash
# Two builds side by side: every benchmark of build A, then of build B, then
# B before A in the next round, and so on, so that what else runs on the
# machine falls on both alike. Each run's output goes to OUT/<bench>.<a|b>.<round>.log,
# its JSON line to the same name with .json.
# Usage: bench/compare.sh BUILD_A BUILD_B [OUT] (ROUNDS=5, BENCHES="fork_storm ...")
set -u
A=$1/bench B=$2/bench OUT=${3:-bench-compare}
ROUNDS=${ROUNDS:-5}
BENCHES=${BENCHES:-"fork_storm initial_scan ring_consume idle e2e_events"}
mkdir -p "$OUT"
for r in $(seq 1 "$ROUNDS"); do
  for b in $BENCHES; do
    if (( r % 2 )); then order="a b"; else order="b a"; fi
    for v in $order; do
      dir=$A; [ "$v" = b ] && dir=$B
      echo "$(date +%T) round $r $b $v load $(cut -d' ' -f1 /proc/loadavg)"
      "$dir/$b" > "$OUT/$b.$v.$r.log" 2>&1
      tail -1 "$OUT/$b.$v.$r.log" > "$OUT/$b.$v.$r.json"
    done
  done
done
