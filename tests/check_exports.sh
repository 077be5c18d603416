#!/bin/bash
# Compares the dynamic symbols the plug-in defines with the expected list.
set -eu
lib=$1 expected=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
wanted=$(grep -v '^#' "$expected" | sed '/^$/d' | sort)
if [ "$actual" != "$wanted" ]; then
  echo "exported symbols differ from $expected" >&2
  diff <(echo "$wanted") <(echo "$actual") >&2 || true
  exit 1
fi
