#!/usr/bin/env bash
# Every way in which the demo can end: the exit status, a message that names the
# cause, the final record, and nothing left behind.
#   demo_endings.sh VISION_DEMO VISION_LOCAL_MODEL
set -uo pipefail
demo=$(realpath "$1") model=$(realpath "$2")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/tmp"
export TMPDIR=$scratch/tmp no_proxy='*'
unset ANTHROPIC_API_KEY ANTHROPIC_BASE_URL KX_VISION_SHADOW_LOG KX_VISION_FIXTURE_AUTO KX_VISION_TIMEOUT_S
cd "$scratch" || exit 1

fail() {
  echo "FAILED: $1: $2"
  sed 's/^/    /' "$scratch/output"
  exit 1
}

# check NAME STATUS WANTED_STATUS MESSAGE OUTCOME: OUTCOME "none" wants no final record.
check() {
  [ "$2" -eq "$3" ] || fail "$1" "exit status $2 instead of $3"
  grep -q -- "$4" "$scratch/output" || fail "$1" "no word of \"$4\""
  local last
  last=$(tail -n 1 "$scratch/out/vision_shadow.jsonl" 2>/dev/null)
  case "$5:$last" in
    none:*'"final": true'*) fail "$1" "a final record" ;;
    none:*) ;;
    *:*'"final": true, "outcome": "'"$5"'"'*) ;;
    *) fail "$1" "no final record with outcome $5: $last" ;;
  esac
  pgrep -f "$scratch/tmp" >/dev/null && fail "$1" "a browser is still running"
  [ -z "$(ls -A "$scratch/tmp")" ] || fail "$1" "left in TMPDIR: $(ls "$scratch/tmp")"
  [ -z "$(ls -A -I out -I output -I tmp "$scratch")" ] || fail "$1" "files outside: $(ls "$scratch")"
  rm -rf "$scratch/out"
  echo "ok: $1"
}

run() { "$demo" --out "$scratch/out" "$@" >"$scratch/output" 2>&1; }

# Starts the demo and goes on once it has told its first step; then $pid ends.
start_and_wait_for_a_step() {
  : >"$scratch/output"
  exec {steps}< <(exec "$demo" --out "$scratch/out" 2>&1)
  pid=$!
  while read -r line <&"$steps"; do
    echo "$line" >>"$scratch/output"
    case "$line" in *scroll*) return ;; esac
  done
  fail "starting" "no step was told"
}

finish() {
  cat <&"$steps" >>"$scratch/output"
  wait "$pid"
}

KX_VISION_TIMEOUT_S=abc run
check "an unreadable time-out setting is the default" $? 0 "The mission succeeded" success
run --dpr 2
check "the same answer at device pixel ratio 2" $? 0 "The mission succeeded" success

exec {served}< <(exec "$model" --key right)
model_pid=$!
read -r line <&"$served"
url=$(grep -o 'http://[0-9.:]*' <<<"$line")
ANTHROPIC_API_KEY=wrong ANTHROPIC_BASE_URL=$url run --light some-model
status=$?
kill "$model_pid"
check "a wrong key" $status 1 "AuthenticationError" failure

ANTHROPIC_API_KEY=k ANTHROPIC_BASE_URL=http://127.0.0.1:1 run --light some-model
check "an endpoint that refuses" $? 1 "transport error: APIConnectionError" failure
ANTHROPIC_API_KEY=k run
check "a key without a model" $? 2 "no model is named" none

start_and_wait_for_a_step
pkill -KILL -f -- "--user-data-dir=$scratch/tmp"
finish
check "a browser that is killed" $? 1 "escalate_to_cua" escalate
start_and_wait_for_a_step
kill -TERM "$pid"
finish
check "an interrupted mission" $? 130 "interrupted" none
