#!/usr/bin/env bash
# Runs the example programs: each says what came of its mode, leaves its records,
# and nothing else.
#   examples_test.sh FOLDER [URL of a model that takes any key]
set -euo pipefail
programs=$(realpath "$1")
unset ANTHROPIC_API_KEY ANTHROPIC_BASE_URL KX_VISION_SHADOW_LOG KX_VISION_FIXTURE_AUTO
[ -z "${2:-}" ] || export ANTHROPIC_API_KEY=any ANTHROPIC_BASE_URL=$2 no_proxy='*'
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/tmp"
# Character recognition takes long on a busy machine.
export TMPDIR=$scratch/tmp KX_VISION_TIMEOUT_S=600

# expect TIER PROGRAM RECORDS LINE...: the program prints each line (a pattern) and
# leaves that many records.
expect() {
  local tier=$1 program=$2 records=$3
  local folder=$scratch/$tier-$program
  mkdir "$folder"
  (cd "$folder" && KX_VISION_TIER=$tier "$programs/example_$program" > out 2>&1) ||
    { cat "$folder/out"; echo "examples_test: $program failed"; exit 1; }
  for line in "${@:4}"; do
    grep -q -x -e "$line" "$folder/out" || { cat "$folder/out"; echo "examples_test: $program does not say: $line"; exit 1; }
  done
  local written=0
  [ ! -e "$folder/logs/vision_shadow.jsonl" ] || written=$(wc -l < "$folder/logs/vision_shadow.jsonl")
  [ "$written" -eq "$records" ] || { echo "examples_test: $program left $written records, not $records"; exit 1; }
  local left
  left=$(find "$scratch/tmp" -mindepth 1; find "$folder" -mindepth 1 -not -path "$folder/logs*" -not -name out)
  [ -z "$left" ] || { echo "examples_test: $program left behind: $left"; exit 1; }
  ! pgrep -f -- "--user-data-dir=$scratch" || { echo "examples_test: $program left its browser running"; exit 1; }
  echo "examples_test: $program ($tier) as it should be"
}

expect off act_loop 3 'verdict: declare_success, panel-42'
expect off shadow_mode 1 'the agent: "click .*: the board is shared"'
expect off observer 1 'the pipeline goes on' 'recorded: {"action":"click".* beside {"true_x_ratio":.*'
expect off fallback 0 'the step looks for #old-share' 'the step: Link: panel-42'
expect off pipeline 0 'done by the agent' 'run-2: calls 0, .*'
expect shadow pipeline 2 'done by the agent' 'run-1: calls 1, .*' 'run-2: calls 1, .*'
expect tier2 pipeline 0 'done by the script' 'run-1: calls 1, .*' 'run-2: calls 1, .*'
