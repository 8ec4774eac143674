#!/usr/bin/env bash
# Logs of two machines, judged by the report and by the guide's query.
#   run.sh VISION WRITE_LOG GUIDE
# Status 77, which ctest takes for skipped, when npm is missing or has no registry.
set -euo pipefail
vision=$(realpath "$1") write_log=$(realpath "$2") guide=$(realpath "$3") here=$(dirname "$(realpath "$0")")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cp "$here"/package*.json "$scratch"
cd "$scratch"
npm ci --no-audit --no-fund > npm.log 2>&1 || { cat npm.log; exit 77; }

mkdir -p logs/worker-1 logs/worker-2
"$write_log" 2000 51 3 > logs/worker-1/vision_shadow.jsonl
"$write_log" 1000 51 4 | gzip > logs/worker-2/vision_shadow.1794000000.jsonl.gz
# What the agent said, and an element's box that is easily missed.
sed -n '1,400s/"source": "dom_success", \("vision": .*\), "dom_ground_truth": .*/\1, "cua": {"latency_ms": 5, "text_head": "click 0.5,0.5: done"}}/p' \
  logs/worker-1/vision_shadow.jsonl | sed 's/site-/said-/' > logs/worker-2/said.jsonl
sed -n '1,400s/"label"/"true_w_ratio": 0.03, "true_h_ratio": 0.1, "label"/p' logs/worker-1/vision_shadow.jsonl |
  sed 's/site-/boxed-/' > logs/worker-2/boxed.jsonl
"$vision" report 'logs/*/*' --json > report.json || [ $? -eq 1 ]
node "$here/fleet_query.mjs" "$guide" report.json node_modules/@duckdb/node-api/lib/index.js
