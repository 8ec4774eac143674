#!/usr/bin/env bash
# The program as people call it: exit statuses, messages, outputs.
#   cli.sh VISION WRITE_LOG PAGE_THAT_DESCRIBES_THE_JSON
set -uo pipefail
vision=$(realpath "$1") write_log=$(realpath "$2") page=$(realpath "$3")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
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

"$write_log" 3000 51 1 >log.jsonl
"$write_log" 30 1 1 | gzip >"more of it.jsonl.gz"

check 1 "site-0: NOT YET" report log.jsonl
[ "$(stat -c %a report.html)" = 600 ] || fail "the page is not private"
check 0 "site-50: PROMOTE" report log.jsonl --site site-50
check 1 "nowhere: INCONCLUSIVE: no record in the logs" report log.jsonl --site site-50 --site nowhere
check 1 "site-50: NOT YET" report log.jsonl --site site-50 --agreement 0.99
check 1 "leave no records" report log.jsonl --since 2027-01-01
check 1 "skipped 6 lines that are not records" report log.jsonl '*.gz' --split --out pages
[ -s pages/index.html ] && [ "$(find pages -name 'site-*.html' | wc -l)" -eq 51 ] || fail "not a page for every site"
"$vision" report - --json <log.jsonl >report.json 2>output
[ "$(jq .input.records report.json)" = 3000 ] || fail "standard input is not read"

check 2 "none.jsonl: No such file" report none.jsonl
check 2 "--since takes" report log.jsonl --since yesterday
check 2 "--viewport takes" report log.jsonl --viewport 1280
check 2 "--confidence" report log.jsonl --confidence 95
check 2 "prices.json: cannot be read" report log.jsonl --prices prices.json
check 2 "not a JSON object" report log.jsonl --labels "more of it.jsonl.gz"
check 2 "cannot write /nowhere/report.html" report log.jsonl --out /nowhere/report.html
check 2 "subcommand is required"
check 2 "The following argument was not expected: --colour" report log.jsonl --colour
check 0 "Exit status" report --help
check 0 "0." --version

# A port that nothing listens at, and no key.
export ANTHROPIC_API_KEY=
check 1 "failure  key       no key: ANTHROPIC_API_KEY is not set" check --no-browser --base-url http://127.0.0.1:1
check 1 "a picture of 2560 x 1600" check --no-browser --ratio 2 --light m --heavy m --base-url http://127.0.0.1:1
check 2 "--viewport takes" check --viewport 1280
check 1 "leave out the /v1" check --no-browser --base-url http://127.0.0.1:1/v1/
"$vision" check --no-browser --base-url http://127.0.0.1:1 >/dev/full 2>output
[ $? -eq 2 ] || fail "a full disk goes unnoticed"
"$vision" check --no-browser --base-url http://127.0.0.1:1 --json >check.json 2>output
[ "$(jq '.ok, (.checks | map(select(.subject == "tcp" and .level == "failure")) | length)' check.json | xargs)" = "false 1" ] ||
  fail "the findings as JSON"

# Every member of the JSON is described. Free names are those of models, failures, days and files.
jq -r 'del(.. | .by_kind?, .by_day?, .failures?, .endings?, .unasked_missions?) | [paths[-1] | strings] | unique[]' report.json |
  while read -r member; do
    grep -qF "\`$member\`" "$page" || echo "$page does not describe $member"
  done | tee undescribed
[ ! -s undescribed ] || exit 1
echo "ok"
