#!/usr/bin/env bash
# Scan benchmark: vrkutil scan against YARA and ClamAV's clamscan, in one
# run, on the same deterministic tree (256 MiB of text, random, zero-heavy
# and executable-like files) and the same signature sets (1,000, 10,000 and
# 50,000 patterns, and 50,000 with 1% opening with common bytes; see
# make_corpus.py). Checks that every scanner reports exactly the planted
# detections, then prints seconds and MB/s per scanner and set: the whole
# run, and the run less the time the scanner needs to start and load the
# set (measured on an empty folder), which is what the MB/s are of.
#
# usage: bench/scan/run.sh [WORKDIR] [SET...]   (default build/bench-scan, all sets)
#        VRK_BENCH_MIB=64 bench/scan/run.sh ...  (a smaller tree)
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
work=${1:-$top/build/bench-scan}
shift || true
sets=("$@")
[ ${#sets[@]} -gt 0 ] || sets=(1k 10k 50k 50k-common)
cd "$top"
bash scripts/deps.sh --bench >/dev/null
cmake -S . -B build >/dev/null
cmake --build build -j2 --target vrkutil >/dev/null

if [ ! -f "$work/expected.tsv" ]; then
  python3 bench/scan/make_corpus.py "$work" --mib "${VRK_BENCH_MIB:-256}"
fi
tree=$work/tree
empty=$work/empty
mkdir -p "$empty"
bytes=$(du -sb --apparent-size "$tree" | cut -f1)
files=$(find "$tree" -type f | wc -l)
sort -u "$work/expected.tsv" > "$work/expected.sorted"

# Each scanner's report becomes sorted "path<TAB>name" lines.
norm_vrk() { sed -n 's/^\(.*\): \([^ ]*\) FOUND.*$/\1\t\2/p' | sort -u; }
norm_yara() { awk '{ n = $1; $1 = ""; sub(/^ /, ""); gsub(/_/, ".", n); print $0 "\t" n }' | sort -u; }
norm_clam() { sed -n 's/^\(.*\): \(.*\)\.UNOFFICIAL FOUND$/\1\t\2/p' | sort -u; }

elapsed() {  # command... ; prints seconds
  local start end
  start=$(date +%s.%N)
  "$@" > "$work/last.out" 2> "$work/last.err" || true
  end=$(date +%s.%N)
  echo "$end - $start" | bc -l
}

declare -A total net
run() {  # key, normaliser, command...  (the command's last argument is the folder)
  local key=$1 norm=$2; shift 2
  local args=("$@")
  local n=${#args[@]}
  args[$((n - 1))]=$empty
  local load
  load=$(elapsed "${args[@]}")
  cat $(find "$tree" -type f) > /dev/null  # same warm cache for every scanner
  total[$key]=$(elapsed "$@")
  net[$key]=$(echo "${total[$key]} - $load" | bc -l)
  local out=$work/${key//\//-}.tsv
  $norm < "$work/last.out" > "$out"
  if cmp -s "$out" "$work/expected.sorted"; then
    echo "$key: detections match ($(wc -l < "$out")), load $(printf %.2f "$load") s"
  else
    echo "$key: detections DIFFER from the planted ones:"
    diff "$work/expected.sorted" "$out" | head -10
    head -5 "$work/last.err"
  fi
}

for set in "${sets[@]}"; do
  sig=$work/sigs/$set
  [ -f "$sig.yarc" ] || yarac "$sig.yar" "$sig.yarc" 2> /dev/null
  run "vrkutil/$set" norm_vrk build/bin/vrkutil scan -r -j 1 -d "$sig.vdb" "$tree"
  run "yara/$set" norm_yara yara -C -r -p 1 "$sig.yarc" "$tree"
  run "clamscan/$set" norm_clam clamscan --no-summary --allmatch -r -d "$sig.ndb" -d "$sig.ldb" "$tree"
done
# Threads: the same scan on two.
last=${sets[-1]}
run "vrkutil-j2/$last" norm_vrk build/bin/vrkutil scan -r -j 2 -d "$work/sigs/$last.vdb" "$tree"

echo
mb() { echo "$bytes / 1000000 / $1" | bc -l; }
printf '%-22s %9s %9s %9s %16s\n' "scanner/set" "seconds" "less load" "MB/s" "time / vrkutil's"
for set in "${sets[@]}"; do
  for s in vrkutil yara clamscan; do
    key=$s/$set
    printf '%-22s %9.2f %9.2f %9.1f %16.2f\n' "$key" "${total[$key]}" "${net[$key]}" "$(mb "${net[$key]}")" \
      "$(echo "${net[$key]} / ${net[vrkutil/$set]}" | bc -l)"
  done
done
key=vrkutil-j2/$last
printf '%-22s %9.2f %9.2f %9.1f %16.2f\n' "$key" "${total[$key]}" "${net[$key]}" "$(mb "${net[$key]}")" \
  "$(echo "${net[$key]} / ${net[vrkutil/$last]}" | bc -l)"
echo "($files files, $((bytes / 1048576)) MiB, one thread unless -j2; MB/s of the run less load;"
echo " a ratio above 1 means vrkutil is faster; load $(nproc) cores: $(cut -d' ' -f1-3 /proc/loadavg))"
