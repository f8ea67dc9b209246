# Search, beside ripgrep on the same input in the same run (sourced by scripts/compare-peers):
# brim --find against rg -c -F on a 2 GiB log in the page cache (a rare and a common literal),
# an expression with a literal prefix against rg -c and a line filter against rg -c -F on the
# same log, and brim --grep against rg -n over the Linux source tree with rg given exactly the
# files brim searches. scripts/search-peers does the measuring; this runs it with the build
# folder, the temporary folder and the number of runs of compare-peers.
#
# Environment: SEARCH_LOG_BYTES (default 2 GiB) for the log's size; SEARCH_PARTS to run only
# some of "find bench grep".
section_search() {
  heading "search: brim beside rg (ratio = brim / rg, below 1 is faster)"
  need rg
  local log_bytes="${SEARCH_LOG_BYTES:-2147483648}"
  need_space "$(( log_bytes * 2 ))"
  say "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
  TMPDIR="$work" ROUNDS="$runs" LOG_BYTES="$log_bytes" PARTS="${SEARCH_PARTS:-find bench grep}" \
    "$here/scripts/search-peers" "$build"
  say "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
}
