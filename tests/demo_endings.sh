#!/usr/bin/env bash
# The ways in which the demo can end: exit status, a message that names the cause,
# report, final record, and nothing left behind.
#   demo_endings.sh VISION_DEMO
set -uo pipefail
demo=$(realpath "$1")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/tmp"
# Character recognition takes long on a busy machine: no ending here is a time-out.
export TMPDIR=$scratch/tmp no_proxy='*' KX_VISION_TIMEOUT_S=600
unset ANTHROPIC_API_KEY ANTHROPIC_BASE_URL KX_VISION_SHADOW_LOG KX_VISION_FIXTURE_AUTO
cd "$scratch" || exit 1

fail() {
  echo "FAILED: $1: $2"
  sed 's/^/    /' "$scratch/output"
  exit 1
}

# check NAME STATUS WANTED_STATUS MESSAGE OUTCOME SCREENSHOTS: OUTCOME "none" wants no
# final record; the report must be private and show at least so many screenshots.
check() {
  [ "$2" -eq "$3" ] || fail "$1" "exit status $2 instead of $3"
  grep -q -- "$4" "$scratch/output" || fail "$1" "the output does not say \"$4\""
  local shown last
  shown=$(find "$scratch/out" -name report.html -type f -perm 600 -exec grep -o "<figure" {} + 2>/dev/null | wc -l)
  [ "$shown" -ge "$6" ] || fail "$1" "$shown screenshots in a private report instead of $6"
  last=$(tail -qn 1 "$scratch"/out/*.jsonl 2>/dev/null | grep -o '"final": true, "outcome": "[a-z]*"' | cut -d '"' -f 6)
  [ "${last:-none}" = "$5" ] || fail "$1" "a final record with the outcome $last instead of $5"
  pgrep -f "$scratch/tmp" >/dev/null && fail "$1" "a browser is still running"
  [ -z "$(ls -A "$scratch/tmp")" ] || fail "$1" "left in TMPDIR: $(ls "$scratch/tmp")"
  [ -z "$(ls -A -I out -I output -I tmp "$scratch")" ] || fail "$1" "files outside: $(ls "$scratch")"
  rm -rf "$scratch/out"
  echo "ok: $1"
}

run() { "$demo" --out "$scratch/out" "$@" >"$scratch/output" 2>&1; }

# Starts the demo and returns when it has printed its first step; $pid is running.
start_and_wait_for_a_step() {
  : >"$scratch/output"
  exec {steps}< <(exec "$demo" --out "$scratch/out" 2>&1)
  pid=$!
  while read -r line <&"$steps"; do
    echo "$line" >>"$scratch/output"
    case "$line" in *scroll*) return ;; esac
  done
  fail "starting" "no step was printed"
}

finish() { cat <&"$steps" >>"$scratch/output"; wait "$pid"; }

run --dpr 2
check "a right answer, at device pixel ratio 2" $? 0 "The mission succeeded" success 11
mkdir -p "$scratch/out/report.html"
KX_VISION_SHADOW_LOG=/dev/full run
check "a report that cannot be written" $? 3 "cannot write the report: .*report.html: Is a directory" none 0
grep -q "^records lost  *[1-9]" "$scratch/output" || fail "lost records" "the output does not say so"

ANTHROPIC_API_KEY=k ANTHROPIC_BASE_URL=http://127.0.0.1:1 run --light some-model
check "an endpoint that refuses" $? 1 "transport error: APIConnectionError" failure 1
ANTHROPIC_API_KEY=k run
check "a key without a model" $? 2 "no model is named" none 0
run --out /dev/null/x
check "a folder that cannot be" $? 2 "cannot use the folder /dev/null/x: Not a directory" none 0

start_and_wait_for_a_step
pkill -KILL -f -- "--user-data-dir=$scratch/tmp"
finish
check "a browser that is killed" $? 1 "escalate_to_cua" escalate 1
start_and_wait_for_a_step
kill -TERM "$pid"
finish
check "an interrupted mission" $? 130 "verdict  *none" none 1
