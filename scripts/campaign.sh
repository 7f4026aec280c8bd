#!/usr/bin/env bash
# Fault campaigns (znpdk-sim campaign) on the release build, for longer than CI runs them.
#   scripts/campaign.sh [--minutes N] [--seed S] [--steps M] [--processes K]
#       runs stories of a fresh seed (from the clock, or S) for N minutes (default 10) and
#       adds every new failing story, shrunk, to scenarios/found/ (CTest runs each one: a
#       story found and fixed stays as a regression scenario). Exit 1 when a story failed.
#   scripts/campaign.sh --mutants [--runs N] [--steps M] [ID...]
#       applies each mutant of scripts/mutants/*.txt (or the IDs given) to a scratch copy
#       and runs a campaign of a fixed budget on it (seed 1, N runs of M steps; default 200
#       of 60): the mutant is killed when a story fails. Beside each verdict stands the
#       suite's from build/mutate/results.txt (scripts/mutate.sh), when there is one.
#       Results: build/campaign-mutants/results.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

minutes=10 seed= steps=60 processes=4 runs=200 mutants=0
ids=()
while (($#)); do
  case $1 in
    --minutes) minutes=$2; shift ;;
    --seed) seed=$2; shift ;;
    --steps) steps=$2; shift ;;
    --processes) processes=$2; shift ;;
    --runs) runs=$2; shift ;;
    --mutants) mutants=1 ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    -*) echo "campaign.sh: unknown option $1" >&2; exit 2 ;;
    *) ids+=("$1") ;;
  esac
  shift
done

if ((!mutants)); then
  cmake --preset host-release >/dev/null
  cmake --build --preset host-release --target znpdk-sim >/dev/null
  mkdir -p scenarios/found build/campaign
  sim=build/host-release/tools/znpdk-sim/znpdk-sim
  rc=0
  "$sim" campaign ${seed:+--seed "$seed"} --minutes "$minutes" --steps "$steps" --processes "$processes" \
    --known scenarios/found --out scenarios/found || rc=$?
  ((rc <= 1)) || exit "$rc"
  git status --short --untracked-files=all scenarios/found | sed 's/^/new: /'
  exit "$rc"
fi

# Mutants: a scratch copy of the tree (scripts/mutate.sh keeps it), built in release.
work=build/campaign-mutants
src=$work/src
bld=$work/build
scripts/mutate.sh --scratch "$src"
if [[ ! -f $bld/CMakeCache.txt ]]; then
  cmake -S "$src" -B "$bld" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
echo "=== campaign mutants: building the unmutated tree"
cmake --build "$bld" -j2 --target znpdk-sim >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }

campaign() { # $1: where failing stories go; prints the first failure's signature, or nothing
  "$bld/tools/znpdk-sim/znpdk-sim" campaign --seed 1 --runs "$runs" --steps "$steps" --processes "$processes" \
    --shrink-attempts 0 --replays 0 --step-timeout 10000 --stop --json --out "$1" 2>/dev/null |
    sed -n 's/^ *"signature": "\(.*\)",\{0,1\}$/\1/p' | head -1 || true
}
# The campaign finds nothing without a mutant, or what it says about one means nothing.
first=$(campaign "$work/found-none")
if [[ -n $first ]]; then
  echo "campaign.sh: the campaign fails without a mutant: $first (see $work/found-none)" >&2
  exit 1
fi

declare -A suite=()
if [[ -f build/mutate/results.txt ]]; then
  while read -r id verdict _; do suite[$id]=$verdict; done < build/mutate/results.txt
fi
mapfile -t listed < <(cat scripts/mutants/*.txt | awk -F'\t' 'NF >= 6 && $1 !~ /^#/ && $6 !~ /^equivalent:/ { print $1 }')
((${#ids[@]})) || ids=("${listed[@]}")

results=$work/results.txt
: >"$results"
alone=0 both=0 suite_only=0 neither=0 unknown=0 broken=0
for id in "${ids[@]}"; do
  file=$(cat scripts/mutants/*.txt | awk -F'\t' -v id="$id" '$1 == id { print $2 }')
  [[ -n $file ]] || { echo "campaign.sh: no mutant $id" >&2; exit 2; }
  scripts/mutate.sh --apply "$id" "$src"
  t0=$SECONDS
  if ! cmake --build "$bld" -j2 --target znpdk-sim >"$work/build.log" 2>&1; then
    broken=$((broken + 1)); verdict=no-build; found=
  else
    rm -rf "$work/found-$id"
    found=$(campaign "$work/found-$id")
    verdict=$([[ -n $found ]] && echo killed || echo survived)
  fi
  cp "$file" "$src/$file" # a new time, so that the build takes the restored file
  by_suite=${suite[$id]:--}
  case $verdict/$by_suite in
    */-) unknown=$((unknown + 1)) ;;
    killed/killed|killed/timed-out) both=$((both + 1)) ;;
    killed/*) alone=$((alone + 1)) ;;
    survived/killed|survived/timed-out) suite_only=$((suite_only + 1)) ;;
    survived/*) neither=$((neither + 1)) ;;
  esac
  printf '%-18s campaign %-9s suite %-9s %4ds  %s\n' "$id" "$verdict" "$by_suite" $((SECONDS - t0)) "$found" |
    tee -a "$results"
done
cmake --build "$bld" -j2 --target znpdk-sim >/dev/null 2>&1 || true
echo "=== campaign mutants: ${#ids[@]}; killed by the campaign and the suite $both, by the campaign alone $alone," \
     "by the suite alone $suite_only, by neither $neither, not built $broken; no suite verdict for $unknown"
