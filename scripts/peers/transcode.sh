# Transcoding: 1 GiB files in a legacy set become UTF-8 beside them, on the same disk, by Brim's own
# transcoder (benchmarks/brim_transcode_file calls the same function opening a file does), by glibc's
# `iconv` and by ICU's `uconv`, taking turns on each file. Sourced by scripts/compare-peers.
#
# Like with like: none of the three synchronises its output. A working copy is a scratch file that
# nothing reads after a crash (abandoned copies are removed at the next start), so the editor does not
# wait for it to reach the disk either. Every run starts after `sync`, outside the clock, so no tool
# pays for another's writes still on their way out. Inputs are read once beforehand (page cache).
#
# Environment: TRANSCODE_BYTES (default 1 GiB) is the size of each input; RUNS from compare-peers.

# transcode_sample kind: about 8 MiB of UTF-8 text of a kind, the same every run.
transcode_sample() {
  local kind="$1"
  perl -CS -Mutf8 -e '
    my ($kind) = @ARGV;
    my $seed = 4242;
    sub rnd { $seed = ($seed * 1103515245 + 12345) % 2147483648; return $seed >> 8; }
    my %words = (
      western => [qw(the quick brown fox café naïve Zürich señor garçon jumps over lazy dog élève Ærø
                     smørrebrød Straße déjà vu façade crème brûlée 2024 invoice total €)],
      japanese => [qw(日本語 の 文章 です カタカナ ひらがな 漢字 東京 、 。 テスト データ ABC 123 変換 速度
                      ファイル を 開く 保存 する 大阪 「引用」 ！)],
      chinese => [qw(中文 的 文本 这是 测试 数据 北京 上海 。 ， 转换 速度 文件 打开 保存 ABC 123 编码 字符)],
    );
    my @list = @{ $words{$kind} };
    my $out = "";
    my $characters = 0;   # length() of a growing text string is slow: counted here instead
    while ($characters < 8 * 1024 * 1024 / ($kind eq "western" ? 1 : 2)) {
      my $count = 6 + rnd() % 12;
      my @line;
      push @line, $list[rnd() % @list] for 1 .. $count;
      my $line = join($kind eq "western" || rnd() % 3 == 0 ? " " : "", @line) . "\n";
      $characters += length($line);
      $out .= $line;
    }
    # The euro sign is not Latin-1: the western text stays within it.
    $out =~ s/€/£/g;
    print $out;' "$kind"
}

# transcode_input file iconv-name kind: the sample in a set, repeated whole up to TRANSCODE_BYTES.
transcode_input() {
  local file="$1" name="$2" kind="$3" bytes="$4" chunk size copies
  chunk="$work/chunk.$name"
  transcode_sample "$kind" | iconv -f UTF-8 -t "$name" > "$chunk"
  size=$(stat -c %s "$chunk")
  copies=$(( (bytes + size - 1) / size ))
  for _ in $(seq "$copies"); do cat "$chunk"; done > "$file"
  rm -f "$chunk"
}

now_ns() { date +%s%N; }

# transcode_time command...: seconds the command took, after a sync outside the clock.
transcode_time() {
  local started ended
  sync
  started=$(now_ns)
  "$@" > "$work/transcode.stdout" 2> "$work/transcode.stderr" || {
    say "compare-peers: $1 failed: $(head -c 300 "$work/transcode.stderr")" >&2
    return 1
  }
  ended=$(now_ns)
  awk -v a="$started" -v b="$ended" 'BEGIN { printf "%.3f", (b - a) / 1e9 }'
}

# best_of values...: the smallest.
best_of() { printf '%s\n' "$@" | sort -g | head -1; }
median_of() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

section_transcode() {
  local bytes="${TRANSCODE_BYTES:-1073741824}"
  local tool="$benchmarks/brim_transcode_file"
  heading "transcode: $(( bytes / 1048576 )) MiB to UTF-8 on the same disk, against iconv and uconv, best and median of $runs"
  need iconv
  need uconv
  need perl
  [ -x "$tool" ] || { say "(no $tool; make bench builds it)"; return; }
  # Input, three outputs at most 3x its size (UTF-16 and CJK grow), one at a time.
  need_space $(( bytes * 4 ))
  say "machine: $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg); $work on $(df --output=source "$work" | tail -1)"
  # id, iconv name, uconv name, sample kind, bar (the most Brim's time may be against the faster peer)
  local sets=(
    "latin1 ISO-8859-1 ISO-8859-1 western 1.0"
    "utf16le UTF-16LE UTF-16LE japanese 1.0"
    "shiftjis SHIFT_JIS Shift_JIS japanese 1.2"
    "gb18030 GB18030 GB18030 chinese 1.2"
    "iso2022jp ISO-2022-JP ISO-2022-JP japanese 1.2"
  )
  local line id iname uname kind bar input out k seconds failed=0
  for line in "${sets[@]}"; do
    read -r id iname uname kind bar <<< "$line"
    input="$work/transcode.$id"
    out="$work/transcode.$id.out"
    transcode_input "$input" "$iname" "$kind" "$bytes"
    cat "$input" > /dev/null
    local brims=() iconvs=() uconvs=() rss="" copy=""
    # The three outputs agree before anything is timed.
    BRIM_TRANSCODE_FILE="$input" BRIM_TRANSCODE_SET="$id" BRIM_TRANSCODE_SUPPORT="$work/support" BRIM_TRANSCODE_KEEP=1 \
      "$tool" > "$work/transcode.stdout"
    copy="$(figure "$(cat "$work/transcode.stdout")" copy)"
    iconv -f "$iname" -t UTF-8 "$input" > "$out"
    local agree="same bytes as iconv"
    cmp -s "$copy" "$out" || agree="DIFFERS from iconv at $(cmp "$copy" "$out" 2>&1 | head -1 | sed 's/.*differ: //')"
    uconv -f "$uname" -t UTF-8 -o "$out" "$input"
    if cmp -s "$copy" "$out"; then agree="$agree, same bytes as uconv"
    else agree="$agree, DIFFERS from uconv at $(cmp "$copy" "$out" 2>&1 | head -1 | sed 's/.*differ: //')"; fi
    rm -f "$copy" "$out"
    for k in $(seq "$runs"); do
      # Alternating, and the first tool changes from run to run.
      local order=(brim iconv uconv)
      case $(( k % 3 )) in 2) order=(iconv uconv brim) ;; 0) order=(uconv brim iconv) ;; esac
      local who
      for who in "${order[@]}"; do
        case "$who" in
          brim)
            seconds=$(transcode_time env BRIM_TRANSCODE_FILE="$input" BRIM_TRANSCODE_SET="$id" \
                        BRIM_TRANSCODE_SUPPORT="$work/support" "$tool") || return 1
            rss="$(figure "$(cat "$work/transcode.stdout")" peak-rss)"
            brims+=("$seconds") ;;
          iconv)
            seconds=$(transcode_time sh -c 'exec iconv -f "$1" -t UTF-8 "$2" > "$3"' sh "$iname" "$input" "$out") || return 1
            iconvs+=("$seconds"); rm -f "$out" ;;
          uconv)
            seconds=$(transcode_time uconv -f "$uname" -t UTF-8 -o "$out" "$input") || return 1
            uconvs+=("$seconds"); rm -f "$out" ;;
        esac
      done
    done
    local b i u bm im um
    b=$(best_of "${brims[@]}"); i=$(best_of "${iconvs[@]}"); u=$(best_of "${uconvs[@]}")
    bm=$(median_of "${brims[@]}"); im=$(median_of "${iconvs[@]}"); um=$(median_of "${uconvs[@]}")
    awk -v id="$id" -v b="$b" -v i="$i" -v u="$u" -v bm="$bm" -v im="$im" -v um="$um" -v rss="$rss" -v bar="$bar" \
        -v agree="$agree" 'BEGIN {
      peer = (i < u) ? i : u; peerm = (im < um) ? im : um
      name = (i < u) ? "iconv" : "uconv"
      printf "%-10s brim %.3f s  iconv %.3f s  uconv %.3f s   (medians %.3f / %.3f / %.3f)\n", id, b, i, u, bm, im, um
      printf "%-10s against the faster peer (%s): %.2fx its time, best against best (median %.2fx); bar %.1fx: %s\n",
             "", name, b / peer, bm / peerm, bar, (b / peer <= bar) ? "holds" : "MISSED"
      printf "%-10s brim peak resident memory %s; output %s\n", "", rss, agree
    }'
    awk -v b="$b" -v i="$i" -v u="$u" -v bar="$bar" 'BEGIN { p = (i < u) ? i : u; exit !(b / p <= bar) }' || failed=1
    rm -f "$input"
  done
  say "machine load after: $(cut -d' ' -f1-3 /proc/loadavg)"
  [ "$failed" -eq 0 ] || say "transcode: at least one bar was missed (see MISSED above)"
}
