#!/usr/bin/env bash
# Runs the guide's program where no model can be reached: the pipeline must get its
# own outcome in every mode, and the log one record per observation. The start-up
# check must refuse an unknown tier.
#   run_guide.sh PROGRAM
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
unset KX_VISION_SHADOW_LOG KX_VISION_FIXTURE_AUTO
if KX_VISION_TIER=tier22 "$1" 2> refusal; then exit 1; fi
grep -F 'KX_VISION_TIER is "tier22"' refusal
# Nothing can listen on port 0, so the connection fails at once.
ANTHROPIC_BASE_URL=http://127.0.0.1:0 no_proxy='*' "$1" > output
cat output
[ "$(grep -c '^click 0.52,0.27: the share dialog is open$' output)" = 4 ]
grep -q '^calls 1, .*' output
grep -q '^1 x transport error: APIConnectionError: cannot reach 127.0.0.1:0' output
jq -e -s 'map([.run_id, (.source // "shadow"), .final // false]) == [
    ["run-shadow", "shadow", false],
    ["run-tier2", "act", false], ["run-tier2", "act", true],
    ["run-background", "dom_success", false]]' logs/vision_shadow.jsonl
