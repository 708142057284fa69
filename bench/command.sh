#!/usr/bin/env bash
# bench/command.sh BUILD_DIR: the whole command beside a C program that makes the same calls
# of the C library, in wall time and in peak memory; and beside one that only sends a
# prepared datagram. A port mapper answers the question at once.
set -euo pipefail
shopt -s inherit_errexit
build=$1
scratch=$(mktemp -d)
"$build/examples/port_mapper" 100122,0,17,4711 >"$scratch/mapper" &
trap 'kill %1; rm -rf "$scratch"' EXIT
until grep -qs Answering "$scratch/mapper"; do sleep 0.05; done
echo "disk full" >"$scratch/text"
kivtrap=("$build/trap/kivtrap" -f "$scratch/text" 127.0.0.1)
floor=("$build/bench/library_calls" -f "$scratch/text")
sender=("$build/bench/minimal_sender")

# measure LOCALE: the programs in that locale, which the sender does not put itself into.
# Between them nothing changes but the program: hyperfine starts all without a shell, in
# several rounds, and the shortest run of each counts.
measure() {
  export LC_ALL=$1
  for round in 1 2 3; do
    hyperfine -N --style none --warmup 50 --runs 500 --export-csv "$scratch/$round.csv" \
      -n kivtrap "${kivtrap[*]}" -n floor "${floor[*]}" -n sender "${sender[*]}" \
      2>"$scratch/warnings" || { cat "$scratch/warnings" >&2 && exit 1; }
  done
  local own_time own_peak
  own_time=$(shortest kivtrap) own_peak=$(peak "${kivtrap[@]}")
  report "whole command in $1, wall time" "$own_time" "$(shortest floor)" 1.15
  report "whole command in $1, peak memory" "$own_peak" "$(peak "${floor[@]}")" 1.15
  report "  wall time beside one datagram" "$own_time" "$(shortest sender)"
  report "  peak memory beside one datagram" "$own_peak" "$(peak "${sender[@]}")"
}

# shortest NAME: seconds.
shortest() { awk -F, -v name="$1" '$1 == name { print $7 }' "$scratch"/?.csv | sort -g | head -n 1; }

# peak PROGRAM [ARGUMENT...]: KiB. A page that is touched brings the pages around it
# along; which those are changes with where the kernel puts libc, run by run. Hence
# the median.
peak() {
  for _ in {1..101}; do "$build/bench/peak_memory" "$@"; done | sort -n | sed -n 51p
}

# report TITLE OWN FLOOR [BUDGET]: one line, as the benchmarks print theirs.
report() {
  awk -v title="$1" -v own="$2" -v floor="$3" -v budget="${4-}" 'BEGIN {
    times = own / floor
    printf "%-40s %5.2f x its floor", title, times
    if (budget != "") printf "  (budget %.2f)%s", budget, (times > budget ? "  OVER" : "")
    printf "\n"
  }'
}

measure C
measure C.UTF-8
