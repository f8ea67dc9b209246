# shellcheck shell=bash
# Documents: opening costs the same for 100 MB and 10 GB; the whole process stays under 64 MB with a
# 10 GB document open; the first edit of a 10 GB file in the page cache completes its index in under
# 2 s, and keystrokes after it cost microseconds; saving a 1 GiB document with one edit keeps memory
# constant and takes at most 1.5x the time of `cp` (with the same fsync) of the same file, timed in
# the same run by the benchmark, which alternates the two.
#
# HUGE_BYTES (default 10 GB) is the size of the file of real lines made for the first edit. It must
# fit in the page cache to measure what the target names; without the memory or the disk for it the
# benchmark's sparse file (real lines at head, middle and tail, a hole between) is used, and the
# output says so.
section_documents() {
  local huge_bytes="${HUGE_BYTES:-10000000000}" huge="" available free
  heading "documents: open, memory, first edit, keystrokes, save against cp"
  [ -x "$benchmarks/brim_store_benchmarks" ] || { say "no $benchmarks/brim_store_benchmarks; make bench builds it"; return; }
  available=$(( $(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo) * 1024 ))
  free=$(( $(df --output=avail -k "$work" | tail -1) * 1024 ))
  if [ "$available" -gt $(( huge_bytes + huge_bytes / 4 )) ] && [ "$free" -gt $(( huge_bytes + 4 * 1073741824 )) ]; then
    say "making $(( huge_bytes / 1000000000 )) GB of real log lines and reading them into the page cache…"
    make_log "$work/huge.log" "$huge_bytes"
    cat "$work/huge.log" > /dev/null
    huge="$work/huge.log"
  else
    say "not enough memory or disk for $(( huge_bytes / 1000000000 )) GB of real lines in the page cache:"
    say "the 10 GB file is sparse (lines at head, middle and tail, a hole between)"
  fi
  say "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
  BRIM_BENCH_HUGE_FILE="$huge" TMPDIR="$work" "$benchmarks/brim_store_benchmarks" --benchmark_color=false \
    --benchmark_counters_tabular=false 2>/dev/null | grep -E '^BM_'
  if [ -n "$huge" ]; then
    say "brim --benchmark on the same file (open, index, first edit of a fresh document, peak memory):"
    # The save figure of --benchmark is left out here: the benchmark above measures saving against cp.
    BRIM_BENCHMARK_NO_SAVE=1 "$brim" --benchmark "$huge" | grep -E '^(open|index|index-rate|first-edit|peak-rss):' | sed 's/^/  /'
    rm -f "$huge"
  fi
  say "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
}
