#!/usr/bin/env bash
# Farm rendering end to end, as a user runs it: the default scene rendered
# as a 4-task Slurm array job plus its merge job on a one-node cluster of the
# test's own (scripts/slurm-local.sh) gives exactly the files of a single
# druxrender run (every pass's pixels in render.exr with its Cryptomatte
# manifests, every PNG, the contact sheet, the image statistics); so do an
# array task cancelled half-way followed by --resume, and --tiles 4 --local;
# druxmerge refuses parts that do not make one render and writes nothing.
#
#   farm_check.sh BIN_DIR SOURCE_DIR     (BIN_DIR holds druxrender, druxmerge)
#
# Needs root and Slurm (scripts/setup.sh installs slurmctld, slurmd,
# slurm-client, munge).  Without them it reports itself skipped (exit 77),
# except under CI, where that is a failure.
set -euo pipefail
bin=$1
src=$2
R=$bin/druxrender
M=$bin/druxmerge
work=$(mktemp -d /tmp/drux-farm-check.XXXXXX)
cluster=$work/slurm
export DRUX_SLURM_PORT=${DRUX_SLURM_PORT:-26817}

fail() { echo "farm_check: FAILED: $*" >&2; exit 1; }
say() { echo "farm_check: $*"; }
cleanup() {
  if [ -d "$cluster" ]; then bash "$src/scripts/slurm-local.sh" stop "$cluster" >/dev/null 2>&1 || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

if [ "$(id -u)" -ne 0 ] || ! command -v sbatch >/dev/null || ! [ -x /usr/sbin/slurmctld ]; then
  [ -n "${CI:-}" ] && fail "CI must run the farm check: it needs root and Slurm (scripts/setup.sh)"
  echo "farm_check: skipped: needs root and Slurm (scripts/setup.sh installs it)"
  exit 77
fi

# The files of two renders are the same byte for byte.
same() { # name dir-a dir-b
  local f n=0
  for f in "$2"/*.exr "$2"/*.png; do
    cmp -s "$f" "$3/$(basename "$f")" || fail "$1: $(basename "$f") differs from the single render's"
    n=$((n + 1))
  done
  [ "$n" -ge 20 ] || fail "$1: only $n files to compare"
  cmp -s "$2.stats" "$3.stats" || fail "$1: the image statistics differ"
  say "$1: $n files and the statistics equal the single render's"
}

wait_queue() { # until squeue lists none of our jobs, at most $1 seconds
  local i
  for i in $(seq 1 "$1"); do
    [ -z "$(squeue -h -o %i)" ] && return 0
    sleep 1
  done
  fail "jobs still queued after $1 s: $(squeue)"
}

say "single render"
"$R" --out "$work/single" --image-stats "$work/single.stats" --no-progress --quiet
manifest=$(grep -a -c 'cryptomatte/.*/manifest' "$work/single/render.exr" || true)
[ "$manifest" -ge 1 ] || fail "the single render has no Cryptomatte manifest"

say "starting a one-node cluster"
eval "$(bash "$src/scripts/slurm-local.sh" start "$cluster" | tail -1)"

# 1. A 4-task array job and the merge job after it.
out=$("$R" --out "$work/farm" --tiles 4 --submit slurm --image-stats "$work/farm.stats" --quiet)
echo "$out"
echo "$out" | grep -q '^tiles job [0-9]* (4 tasks)$' || fail "no tiles job id printed"
echo "$out" | grep -q '^merge job [0-9]* ' || fail "no merge job id printed"
tiles=$(echo "$out" | awk '/^tiles job/ {print $3}')
merge=$(echo "$out" | awk '/^merge job/ {print $3}')
scontrol show job "$merge" | grep -q "Dependency=afterok:${tiles}" || fail "the merge job does not wait for the tiles"
wait_queue 600
status=$("$R" --status "$work/farm")
echo "$status"
echo "$status" | grep -q '^4 done, 0 queued or running, 0 failed or missing$' || fail "status after the farm render"
echo "$status" | grep -q "merge     done" || fail "the merge is not reported done"
same "4-task array job + merge job" "$work/farm" "$work/single"

# 2. One array task cancelled while it runs; --resume renders it alone.
out=$("$R" --out "$work/cancel" --tiles 4 --submit slurm --image-stats "$work/cancel.stats" --quiet)
job=$(echo "$out" | awk '/^tiles job/ {print $3}')
for _ in $(seq 1 600); do
  squeue -h -o '%i %T' | grep -q "^${job}_2 RUNNING" && break
  sleep 0.2
done
squeue -h -o '%i %T' | grep -q "^${job}_2 RUNNING" || fail "task 2 of job $job never ran"
scancel "${job}_2"
wait_queue 600
status=$("$R" --status "$work/cancel")
echo "$status"
echo "$status" | grep -q '^  tile 2/4  failed (missing' || fail "the cancelled tile is not reported failed"
echo "$status" | grep -q '^3 done, 0 queued or running, 1 failed or missing' || fail "status after the cancel"
[ ! -e "$work/cancel/render.exr" ] || fail "the merge ran although a tile was cancelled"
ls "$work/cancel/partial" | grep -q '^\.druxrender' && fail "a temporary file of the cancelled task was left"
out=$("$R" --resume "$work/cancel" 2>&1)
echo "$out"
echo "$out" | grep -q '^tiles job [0-9]* (1 task)$' || fail "--resume did not submit the one missing tile"
wait_queue 600
same "array job with a task cancelled, then --resume" "$work/cancel" "$work/single"

# 3. The same tile tasks as local processes.
"$R" --out "$work/local" --tiles 4 --local --image-stats "$work/local.stats" --quiet --no-progress
same "--tiles 4 --local" "$work/local" "$work/single"

# 4. druxmerge refuses what is not one render, naming the files, writing nothing.
p=$work/farm/partial
refused() { # what expected-words... -- partials...
  local what=$1 words=() msg
  shift
  while [ "$1" != "--" ]; do words+=("$1"); shift; done
  shift
  mkdir -p "$work/refused"
  if msg=$("$M" "$work/refused" "$@" 2>&1); then fail "druxmerge merged $what"; fi
  for w in "${words[@]}"; do
    echo "$msg" | grep -qF -- "$w" || fail "druxmerge on $what does not say \"$w\": $msg"
  done
  [ ! -e "$work/refused/render.exr" ] || fail "druxmerge wrote render.exr for $what"
  say "druxmerge refuses $what"
}
refused "a missing tile" "a tile is missing" "nothing written" -- "$p/tile-1-of-4.exr" "$p/tile-2-of-4.exr" "$p/tile-4-of-4.exr"
refused "a tile given twice" "$p/tile-2-of-4.exr and $p/tile-2-of-4.exr" "both hold pixel" -- \
  "$p/tile-1-of-4.exr" "$p/tile-2-of-4.exr" "$p/tile-2-of-4.exr" "$p/tile-3-of-4.exr" "$p/tile-4-of-4.exr"
"$R" --out "$work/other" --tile 3/4 --samples 1 --quiet --no-progress
refused "a tile of another render" "$work/other/tile-3-of-4.exr and $p/tile-1-of-4.exr" "different renders" -- \
  "$p/tile-1-of-4.exr" "$p/tile-2-of-4.exr" "$work/other/tile-3-of-4.exr" "$p/tile-4-of-4.exr"
head -c 20000 "$p/tile-3-of-4.exr" >"$work/cut.exr"
refused "a damaged tile" "$work/cut.exr is not a whole partial render" -- \
  "$p/tile-1-of-4.exr" "$p/tile-2-of-4.exr" "$work/cut.exr" "$p/tile-4-of-4.exr"
say "passed"
