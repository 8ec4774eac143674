#!/usr/bin/env bash
# Records the demo's mission in a real browser once, replays it a hundred times without
# browser and model, damages the recording, and asks another model about it.
#   replay_cli.sh VISION VISION_DEMO VISION_LOCAL_MODEL
set -uo pipefail
vision=$(realpath "$1") demo=$(realpath "$2") local_model=$(realpath "$3")
scratch=$(mktemp -d)
model_pid=
cleanup() {
  [ -z "$model_pid" ] || kill "$model_pid"
  rm -rf "$scratch"
}
trap cleanup EXIT
# Character recognition takes long on a busy machine.
export no_proxy='*' KX_VISION_TIMEOUT_S=600
unset ANTHROPIC_API_KEY ANTHROPIC_BASE_URL KX_VISION_SHADOW_LOG KX_VISION_FIXTURE_AUTO
cd "$scratch" || exit 1

fail() {
  echo "FAILED: $1"
  cat output
  exit 1
}

# check STATUS MESSAGE ARGUMENTS...
check() {
  "$vision" "${@:3}" >output 2>&1
  local status=$?
  [ "$status" -eq "$1" ] || fail "exit status $status instead of $1: ${*:3}"
  grep -qF -- "$2" output || fail "no word of \"$2\": ${*:3}"
}

"$demo" --out out --record tape >output 2>&1 || fail "the demo failed"
for run in $(seq 100); do
  check 0 "no difference" replay tape --log log.jsonl
  [ "$run" -eq 1 ] && mv log.jsonl first.jsonl && continue
  cmp first.jsonl log.jsonl || fail "replay $run wrote another log"
  rm log.jsonl
done
# The recorded run and its replays differ in what was measured only.
diff <(jq -c 'del(.ts, .vision.latency_ms)' out/vision_shadow.jsonl) <(jq -c 'del(.ts, .vision.latency_ms)' first.jsonl) >output ||
  fail "the replay did something else than the mission"

tape() { cp -r tape "$1" && sed -i -E "$2" "$1/cassette.jsonl"; }
tape moved '0,/"call": "click", "arguments": \[[0-9.]+/s//"call": "click", "arguments": [7.5/'
check 1 "is click [7.5, " replay moved
tape reworded '0,/"key": "..../s//"key": "none/; 0,/Click \\"Harvest festival/s//Click \\"Harvest/'
check 1 'the picture is the same; messages[0].content[1].text differs at byte' replay reworded
tape aimless '/"call": "act_loop"/d'
check 2 "holds no mission" replay aimless
check 2 "there is no recording in nowhere" replay nowhere
check 2 "first.jsonl exists already" replay tape --log first.jsonl

exec 3< <(exec "$local_model")
model_pid=$!
read -r ANTHROPIC_BASE_URL <&3 || fail "the local model did not start"
export ANTHROPIC_BASE_URL ANTHROPIC_API_KEY=local
asked=$(grep -c '"call": "create"' tape/cassette.jsonl)
check 0 "$asked requests: $asked answered with the recorded action, 0 not answered" replay tape --model other --out compared
check 1 "actions agree in 100 %" report compared/shadow.jsonl --fixtures compared/fixtures --out compared/report.html
[ "$(find compared/fixtures -name '*.png' | wc -l)" -eq "$asked" ] || fail "not a picture for every request"
check 2 "exists already" replay tape --model other --out compared
echo "ok"
