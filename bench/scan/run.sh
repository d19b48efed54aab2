#!/usr/bin/env bash
# Scan benchmark: vrkutil scan against YARA and ClamAV's clamscan on the same
# deterministic tree (>= 1 GiB) and the same signatures (>= 1,000 patterns
# with gaps, a few MD5s). Checks that all three report the same detections,
# then prints files/s, MB/s and the ratios.
#
# usage: bench/scan/run.sh [WORKDIR] [THREADS]     (default build/bench-scan, 1)
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
work=${1:-$top/build/bench-scan}
threads=${2:-1}
cd "$top"
bash scripts/deps.sh --bench
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target vrkutil >/dev/null

if [ ! -f "$work/expected.tsv" ]; then
  python3 bench/scan/make_corpus.py "$work" --gib "${VRK_BENCH_GIB:-1}" --patterns 1200
fi
tree=$work/tree
bytes=$(du -sb "$tree" | cut -f1)
files=$(find "$tree" -type f | wc -l)

# Each scanner's report becomes sorted "path<TAB>name" lines.
norm_vrk() { sed -n 's/^\(.*\): \([^ ]*\) FOUND.*$/\1\t\2/p' | sort -u; }
norm_yara() { awk '{ n = $1; $1 = ""; sub(/^ /, ""); gsub(/_/, ".", n); print $0 "\t" n }' | sort -u; }
norm_clam() { sed -n 's/^\(.*\): \(.*\)\.UNOFFICIAL FOUND$/\1\t\2/p' | sort -u; }

declare -A seconds
run() {  # name, normaliser, command...
  local name=$1 norm=$2; shift 2
  sync; echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
  cat $(find "$tree" -type f) > /dev/null  # same warm cache for every scanner
  local start end
  start=$(date +%s.%N)
  "$@" > "$work/$name.out" 2> "$work/$name.err" || true
  end=$(date +%s.%N)
  seconds[$name]=$(echo "$end - $start" | bc -l)
  $norm < "$work/$name.out" > "$work/$name.tsv"
  if cmp -s "$work/$name.tsv" <(sort -u "$work/expected.tsv"); then
    echo "$name: detections match ($(wc -l < "$work/$name.tsv"))"
  else
    echo "$name: detections DIFFER from the expected ones:"
    diff <(sort -u "$work/expected.tsv") "$work/$name.tsv" | head -10
  fi
}

run vrkutil norm_vrk build/bin/vrkutil scan -r -j "$threads" -d "$work/sigs/bench.vdb" "$tree"
run yara norm_yara yara -r -p "$threads" "$work/sigs/bench.yar" "$tree"
if [ "$threads" = 1 ]; then
  run clamscan norm_clam clamscan --no-summary --allmatch -r -d "$work/sigs/bench.ndb" -d "$work/sigs/bench.hdb" "$tree"
fi

echo
printf '%-10s %10s %10s %10s %8s\n' scanner seconds files/s MB/s ratio
for name in vrkutil yara clamscan; do
  [ -n "${seconds[$name]:-}" ] || continue
  s=${seconds[$name]}
  printf '%-10s %10.2f %10.0f %10.1f %8.2f\n' "$name" "$s" "$(echo "$files / $s" | bc -l)" \
    "$(echo "$bytes / 1000000 / $s" | bc -l)" "$(echo "$s / ${seconds[vrkutil]}" | bc -l)"
done
echo "(ratio: that scanner's time over vrkutil's; above 1 means vrkutil is faster; $threads thread(s), $files files, $((bytes / 1048576)) MiB)"
