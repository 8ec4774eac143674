#!/usr/bin/env bash
# Checks README.md, CONTRIBUTING.md, docs/ and bindings/ against the code. A comment directly
# before a fenced block says what the block must be:
#   <!-- path -->        a program: the whole file;  <!-- path#name -->  the piece of it
#                        between two "// [name]" lines, without their indentation
#   <!-- run -->         sh: run in a directory that holds the sample log
#                        logs/vision_shadow.jsonl and the log lines vision.log
#   <!-- shown: why -->  not run
#   <!-- output -->      exactly what the commands before it print
#   <!-- run by path -->  by that program of the tests
#   <!-- record -->      every line stands in the sample log
#   <!-- log -->         every line stands in the sample log lines
# Every c, cpp, js, python and sh block needs one. Links between files must lead somewhere.
#   check.sh PROJECT_FOLDER SAMPLES_PROGRAM
set -euo pipefail
unset KX_VISION_TIMEOUT_S  # the samples show the default
project=$(realpath "$1") samples=$(realpath "$2")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
here=$project/tests/docs
mistakes=0

mistake() {
  echo "$1"
  mistakes=$((mistakes + 1))
}

piece() { # FILE NAME
  awk -v mark="// [$2]" '
    { text = $0; sub(/^ +/, "", text) }
    text == mark { if (inside) exit; inside = 1; next }
    text ~ /^\/\/ \[[a-z-]+\]$/ { next }  # of a smaller piece
    inside { lines[++n] = $0; match($0, /^ */); if ($0 != "" && (n == 1 || RLENGTH < indent)) indent = RLENGTH }
    END { for (i = 1; i <= n; i++) print substr(lines[i], indent + 1) }' "$1"
}

check_program() { # PLACE BLOCK MARK
  local file=${3%%#*}
  if [ ! -f "$project/$file" ]; then
    mistake "$1: no file $file"
    return
  fi
  case "$3" in
    *#*) piece "$project/$file" "${3#*#}" > "$scratch/expected" ;;
    *) cp "$project/$file" "$scratch/expected" ;;
  esac
  [ -s "$scratch/expected" ] || mistake "$1: $file has no piece \"${3#*#}\""
  diff -u "$2" "$scratch/expected" || mistake "$1: the block is not what $3 holds"
}

check_lines() { # PLACE BLOCK FILE
  local line
  while IFS= read -r line; do
    grep -qxF -- "$line" "$3" || mistake "$1: the library does not write this line: $line"
  done < "$2"
}

run_commands() { # PLACE BLOCK FOLDER
  (cd "$3" && bash -euo pipefail "$2") > "$scratch/output" 2> "$scratch/errors" && return
  cat "$scratch/output" "$scratch/errors"
  mistake "$1: the commands fail"
}

check_blocks() { # PAGE
  local number line language mark place
  rm -rf "$scratch/blocks" "$scratch/world"
  mkdir "$scratch/blocks"
  cp -r "$scratch/samples" "$scratch/world"
  while IFS=$'\t' read -r number line language mark; do
    place="$1:$line"
    case "$language|$mark" in
      'c|shown: '* | 'cpp|shown: '* | 'js|shown: '* | 'python|shown: '* | 'sh|shown: '*) ;;
      'sh|run') run_commands "$place" "$scratch/blocks/$number" "$scratch/world" ;;
      *'|run by '*) [ -x "$project/${mark#run by }" ] || mistake "$place: no program ${mark#run by }" ;;
      *'|output') diff -u "$scratch/blocks/$number" "$scratch/output" || mistake "$place: the output differs" ;;
      *'|record') check_lines "$place" "$scratch/blocks/$number" "$scratch/world/logs/vision_shadow.jsonl" ;;
      *'|log') check_lines "$place" "$scratch/blocks/$number" "$scratch/world/vision.log" ;;
      'c|' | 'cpp|' | 'js|' | 'python|') mistake "$place: a $language block without a comment that names its source" ;;
      'sh|'*) mistake "$place: an sh block that is neither run nor shown" ;;
      'c|'* | 'cpp|'* | 'js|'* | 'python|'*) check_program "$place" "$scratch/blocks/$number" "$mark" ;;
      *'|') ;;
      *) mistake "$place: \"$mark\" is not a mark of a $language block" ;;
    esac
  done < <(awk -v OUT="$scratch/blocks" -f "$here/blocks.awk" "$project/$1")
}

# The anchors of a page as its headings make them.
anchors() {
  awk '/^```/ { inside = !inside } !inside && /^#+ / {
    sub(/^#+ /, ""); $0 = tolower($0); gsub(/[^a-z0-9 _-]/, ""); gsub(/ /, "-"); print }' "$1"
}

check_links() { # PAGE
  local target file anchor
  while IFS= read -r target; do
    case "$target" in *://* | mailto:*) continue ;; esac
    file=${target%%#*} anchor=
    case "$target" in *#*) anchor=${target#*#} ;; esac
    [ -n "$file" ] && file=$(dirname "$1")/$file || file=$1
    if [ ! -e "$project/$file" ]; then
      mistake "$1: the link to $target leads nowhere"
    elif [ -n "$anchor" ] && ! anchors "$project/$file" | grep -xF -- "$anchor" > /dev/null; then
      mistake "$1: $file has no heading #$anchor"
    fi
  done < <(awk '/^```/ { inside = !inside } !inside' "$project/$1" | grep -oE '\]\([^) ]+\)' | sed 's/^](//; s/)$//')
}

mkdir "$scratch/samples"
(cd "$scratch/samples" && "$samples")
pages=0
while IFS= read -r page; do
  check_blocks "$page"
  check_links "$page"
  pages=$((pages + 1))
done < <(cd "$project" && { ls ./*.md; find ./docs ./bindings -name node_modules -prune -o -name '*.md' -print; } | sed 's,^\./,,' | sort)
echo "$pages pages checked, $mistakes mistakes"
[ "$mistakes" -eq 0 ]
