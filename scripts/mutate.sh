#!/usr/bin/env bash
# Mutation run: applies each mutant of scripts/mutants/*.txt to a scratch copy
# of the tree, rebuilds it incrementally (AddressSanitizer + UBSan, as the
# host tests) and runs the whole suite, tests and scenarios, with a time
# limit. A mutant is killed when the suite fails, survives when it passes.
#   scripts/mutate.sh [--sample] [--list FILE|DIR] [--timeout S] [ID...]
#                                        (S: the suite's time limit per mutant, 300)
#   scripts/mutate.sh --apply ID DIR     apply one mutant to the tree at DIR
#   scripts/mutate.sh --scratch DIR      bring the scratch copy at DIR up to the tree
#   scripts/mutate.sh --check            every mutant applies (no build)
# --sample runs the fixed CI sample (one mutant per library folder, and the
# sample fails on any survivor). Results: build/mutate/results.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

list=scripts/mutants
timeout_s=300
sample=0
mode=run
ids=()
apply_id=
apply_dir=
# One per library folder, each killed by a different part of the suite within seconds.
kSample=(sensor-05 component-14 interconnect-09 misc-03 psu-05 fan-16)

while (($#)); do
  case $1 in
    --sample) sample=1 ;;
    --list) list=$2; shift ;;
    --timeout) timeout_s=$2; shift ;;
    --apply) mode=apply; apply_id=$2; apply_dir=$3; shift 2 ;;
    --scratch) mode=scratch; apply_dir=$2; shift ;;
    --check) mode=check ;;
    -h|--help) sed -n '2,11p' "$0"; exit 0 ;;
    -*) echo "mutate.sh: unknown option $1" >&2; exit 2 ;;
    *) ids+=("$1") ;;
  esac
  shift
done
((sample)) && ids=("${kSample[@]}")

# The lists (a file, or every *.txt of a folder, one per library folder):
# one mutant a line, tab-separated: id, file, anchor, original,
# replacement, reason. The anchor names one line of the file (it occurs
# once); the first occurrence of the original text from the start of that
# line, which must begin on it, becomes the replacement. "\n" and "\t" in
# the two texts stand for a new line and a tab. A reason that begins with
# "equivalent:" marks a mutant no behaviour can show; it is applied by
# --check only.
declare -a m_id m_file m_anchor m_orig m_repl m_reason
while IFS=$'\t' read -r id file anchor orig repl reason || [[ -n ${id:-} ]]; do
  [[ -z $id || $id == \#* ]] && continue
  if [[ -z ${reason:-} ]]; then
    echo "mutate.sh: $list: mutant $id has fewer than six fields" >&2
    exit 2
  fi
  m_id+=("$id"); m_file+=("$file"); m_anchor+=("$anchor"); m_orig+=("$orig"); m_repl+=("$repl")
  m_reason+=("$reason")
done < <(if [[ -d $list ]]; then cat "$list"/*.txt; else cat "$list"; fi)

index_of() {
  local i
  for i in "${!m_id[@]}"; do
    [[ ${m_id[$i]} == "$1" ]] && { echo "$i"; return 0; }
  done
  echo "mutate.sh: no mutant $1 in $list" >&2
  return 1
}

# Applies mutant $1 (an index) to the file below directory $2.
apply() {
  local i=$1 dir=$2
  ANCHOR=${m_anchor[$i]} ORIG=${m_orig[$i]} REPL=${m_repl[$i]} perl -0777 -i -pe '
    BEGIN { for my $k (qw(ORIG REPL)) { $ENV{$k} =~ s/\\n/\n/g; $ENV{$k} =~ s/\\t/\t/g; } }
    my ($a, $o, $r) = ($ENV{ANCHOR}, $ENV{ORIG}, $ENV{REPL});
    my $n = () = /\Q$a\E/g;
    die "anchor found $n times\n" unless $n == 1;
    /\Q$a\E/g; my $line = rindex($_, "\n", pos($_) - length($a)) + 1;
    my $at = index($_, $o, $line);
    my $eol = index($_, "\n", $line);
    die "original text not on the anchor line\n" if $at < 0 || ($eol >= 0 && $at > $eol);
    substr($_, $at, length($o)) = $r;
  ' "$dir/${m_file[$i]}"
}

# The scratch copy at $1: the tracked files as they stand in the working tree,
# copied only where they differ, so that builds stay incremental. Copies
# take the current time (no -p): a file put back with its old time would
# look older than the objects built from its mutant and not be rebuilt.
sync_scratch() {
  local f
  mkdir -p "$1"
  while IFS= read -r -d '' f; do
    [[ -f $f ]] || continue
    if ! cmp -s "$f" "$1/$f" 2>/dev/null; then
      mkdir -p "$1/$(dirname "$f")"
      cp "$f" "$1/$f"
    fi
  done < <(git ls-files -z)
}

if [[ $mode == scratch ]]; then
  sync_scratch "$apply_dir"
  exit 0
fi

if [[ $mode == apply ]]; then
  apply "$(index_of "$apply_id")" "$apply_dir"
  exit 0
fi

if [[ $mode == check ]]; then
  scratch=$(mktemp -d)
  trap 'rm -rf "$scratch"' EXIT
  bad=0
  for i in "${!m_id[@]}"; do
    mkdir -p "$scratch/$(dirname "${m_file[$i]}")"
    cp "${m_file[$i]}" "$scratch/${m_file[$i]}"
    if ! err=$(apply "$i" "$scratch" 2>&1); then
      echo "${m_id[$i]}: ${m_file[$i]}: $err"
      bad=1
    elif cmp -s "${m_file[$i]}" "$scratch/${m_file[$i]}"; then
      echo "${m_id[$i]}: changes nothing"
      bad=1
    fi
  done
  echo "${#m_id[@]} mutants checked"
  exit $bad
fi

if ((${#ids[@]} == 0)); then
  ids=("${m_id[@]}")
fi

work=build/mutate
src=$work/src
sync_scratch "$src"

bld=$work/build
if [[ ! -f $bld/CMakeCache.txt ]]; then
  cmake -S "$src" -B "$bld" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZNPDK_SANITIZE=ON >/dev/null
fi
# The suite in a process group of its own, stopped whole at the time limit
# (a mutant that never frees a lock makes every test wait out its own bound).
run_suite() {
  setsid ctest --test-dir "$bld" -j2 "$@" >"$work/ctest.log" 2>&1 &
  local pid=$! rc=0
  (
    trap 'kill "$nap" 2>/dev/null; exit 0' TERM
    sleep "$timeout_s" &
    nap=$!
    wait "$nap" && kill -KILL -- "-$pid" 2>/dev/null
  ) &
  local dog=$!
  wait "$pid" || rc=$?
  kill -TERM "$dog" 2>/dev/null || true
  wait "$dog" 2>/dev/null || true
  if ((rc == 137)); then
    echo "(Timeout) the suite ran past ${timeout_s} s" >>"$work/ctest.log"
  fi
  return "$rc"
}

echo "=== mutate: building the unmutated tree"
cmake --build "$bld" -j2 >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
# The suite passes as it stands, or nothing it says about a mutant means anything.
if ! run_suite; then
  grep -E 'Failed|Timeout' "$work/ctest.log" >&2 || true
  echo "mutate.sh: the suite fails without a mutant" >&2
  exit 1
fi

results=$work/results.txt
: >"$results"
killed=0 survived=0 timedout=0 equivalent=0 broken=0 total=0
restore() { cp "$1" "$src/$1"; }

for id in "${ids[@]}"; do
  i=$(index_of "$id")
  f=${m_file[$i]}
  reason=${m_reason[$i]}
  total=$((total + 1))
  if [[ $reason == equivalent:* ]]; then
    equivalent=$((equivalent + 1))
    printf '%-18s %-10s %s\n' "$id" equivalent "${reason#equivalent: }" | tee -a "$results"
    continue
  fi
  t0=$SECONDS
  apply "$i" "$src"
  if ! cmake --build "$bld" -j2 >"$work/build.log" 2>&1; then
    broken=$((broken + 1))
    printf '%-18s %-10s %s\n' "$id" "no-build" "$(grep -m1 'error' "$work/build.log")" | tee -a "$results"
    restore "$f"
    continue
  fi
  verdict=survived
  detail=
  if ! run_suite --stop-on-failure; then
    if grep -q '(Timeout)' "$work/ctest.log"; then
      verdict=timed-out
    else
      verdict=killed
    fi
    detail=$(grep -oE '[0-9]+ - [A-Za-z0-9_.-]+ \((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception)' \
             "$work/ctest.log" | head -3 | sed -E 's/^[0-9]+ - //' | tr '\n' ' ' || true)
  fi
  case $verdict in
    killed) killed=$((killed + 1)) ;;
    timed-out) timedout=$((timedout + 1)) ;;
    survived) survived=$((survived + 1)); detail="${f}: ${reason}" ;;
  esac
  printf '%-18s %-10s %4ds  %s\n' "$id" "$verdict" $((SECONDS - t0)) "$detail" | tee -a "$results"
  restore "$f"
done
# Leave the scratch tree as the source stands.
cmake --build "$bld" -j2 >/dev/null 2>&1 || true

counted=$((total - equivalent - broken))
score=$(awk -v k=$((killed + timedout)) -v n=$counted 'BEGIN { printf "%.1f", n ? 100 * k / n : 0 }')
echo "=== mutants: $total, equivalent $equivalent, killed $killed, timed out $timedout, survived $survived, not built $broken"
echo "=== score: $((killed + timedout)) of $counted non-equivalent mutants killed ($score %); time-outs count as killed"
((broken == 0)) || exit 1
if ((sample)); then
  ((survived == 0)) || exit 1
elif (( $(awk -v s="$score" 'BEGIN { print (s < 95) }') )); then
  exit 1
fi
exit 0
