#!/usr/bin/env bash
# The README shows the quickstart program as it is built.
set -euo pipefail
cd "$(dirname "$0")/.."
shown=$(awk '/^<!-- examples\/quickstart\/main.cpp -->$/ { wanted = 1 } wanted && /^```$/ { exit } inside { print } wanted && /^```cpp$/ { inside = 1 }' README.md)
diff <(echo "$shown") examples/quickstart/main.cpp && echo "the README shows the program that is built"
