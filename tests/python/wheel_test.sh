#!/usr/bin/env bash
# Builds the wheel, installs it, and runs outside of the tree what a user would: the
# examples with a real page and the local model, and every mode with both kinds of pages.
#   wheel_test.sh SOURCE BUILD LOCAL_MODEL
set -euo pipefail
source=$1 build=$2
unset ANTHROPIC_API_KEY ANTHROPIC_BASE_URL VELMORA_VISION_LIBRARY KX_VISION_SHADOW_LOG
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/tmp"
# Character recognition takes long on a busy machine.
export TMPDIR=$scratch/tmp VISION_LOCAL_MODEL=$3 PYTHONPATH=$scratch/installed KX_VISION_TIMEOUT_S=600
fail() { echo "wheel_test: $*" >&2; exit 1; }

cmake --build "$build" --target python_wheel > "$scratch/log" 2>&1 || { cat "$scratch/log"; fail "no wheel"; }
/usr/bin/python3 -m pip install --quiet --disable-pip-version-check --no-index --target "$scratch/installed" \
  "$build"/bindings/python/*.whl
mkdir -p "$scratch/examples/playwright" "$scratch/run"
cp "$source"/examples/playwright/*.py "$source/tests/python/real_pages.py" "$scratch/examples/playwright"
cp -r "$source/tests/python/playwright_names" "$scratch"
cp -r "$source/examples/demo" "$scratch/examples"
cd "$scratch/run"

# expect PROGRAM LINE...: it prints each line, a pattern.
expect() {
  /usr/bin/python3 "$scratch/examples/playwright/$1.py" > out 2>&1 || { cat out; fail "$1 failed"; }
  for line in "${@:2}"; do
    grep -q -x -e "$line" out || { cat out; fail "$1 does not say: $line"; }
  done
  ! pgrep -f -- "--user-data-dir=$scratch" || fail "$1 left its browser running"
  echo "wheel_test: $1 as it should be"
}

expect shadow_mode 'the agent: click .*: Link: panel-42' 'the pipeline goes on' "vision: click beside {'latency_ms.*" \
  "vision: click beside {'action'.*"
expect abort 'verdict: escalate_to_cua, aborted by caller before step 2; by the user: True' 'cancelled in the middle'
expect mission 'verdict: declare_success, the right link'
expect real_pages 'sync: declare_success, panel-42' 'chromium: declare_success, panel-42' 'closed: escalate_to_cua, .*'

exec 3< <(exec "$VISION_LOCAL_MODEL")
model=$!
trap 'kill $model; rm -rf "$scratch"' EXIT
read -r ANTHROPIC_BASE_URL <&3 || fail "the local model did not start"
export ANTHROPIC_BASE_URL ANTHROPIC_API_KEY=any PYTHONPATH=$PYTHONPATH:$scratch/playwright_names
expect fallback 'Shared'
