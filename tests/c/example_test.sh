#!/usr/bin/env bash
# Looks at what the library shows, and runs the example with the local model.
#   example_test.sh EXAMPLE LIBRARY LOCAL_MODEL
set -euo pipefail
example=$1 library=$2 local_model=$3
fail() { echo "example_test: $*" >&2; exit 1; }

soname=$(objdump -p "$library" | sed -n 's/^ *SONAME *//p')
[ "$soname" = libvision_c.so.0.1 ] || fail "the SONAME is $soname"
foreign=$(nm -D --defined-only "$library" | grep -v ' T vision_[a-z_]*$' || true)
[ -z "$foreign" ] || fail "the library shows: $foreign"

exec 3< <(exec "$local_model")
model=$!
scratch=$(mktemp -d)
trap 'kill $model; rm -rf "$scratch"' EXIT
read -r ANTHROPIC_BASE_URL <&3 || fail "the local model did not start"
# Character recognition takes long on a busy machine.
export ANTHROPIC_BASE_URL ANTHROPIC_API_KEY=any no_proxy='*' KX_VISION_TIMEOUT_S=600
cd "$scratch"
page="data:text/html,<body style='font:32px DejaVu Sans'><p><button style='font:32px DejaVu Sans;padding:12px 24px' "
page+="onclick='state.textContent=this.name' name='Link: panel-42'>Share</button><p id='state'>Nobody else can see it"
"$example" "$page" > out 2>&1 || { cat out; fail "the example failed"; }
grep -q '^act_loop: {"action": "declare_success", "reason": "panel-42",' out || { cat out; fail "another verdict"; }
[ "$(wc -l < logs/vision_shadow.jsonl)" -eq 3 ] || fail "not three records"
