#!/bin/bash
# The plug-in exports exactly the global names of its linker version script.
set -eu
lib=$1 map=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
wanted=$(sed -n '/global:/,/local:/p' "$map" | grep -oE '^[[:space:]]*[A-Za-z_][A-Za-z0-9_]*;' |
         tr -d ' \t;' | sort)
if [ -z "$wanted" ] || [ "$actual" != "$wanted" ]; then
  echo "exported symbols differ from $map" >&2
  diff <(echo "$wanted") <(echo "$actual") >&2 || true
  exit 1
fi
