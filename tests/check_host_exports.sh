#!/bin/bash
# Every operation the host contract declares is defined by the host library.
set -euo pipefail
lib=$1 header=$2
declared=$(grep -oE '\b(qve|sqve|qvl|strcaseeq|csidlookup)[A-Za-z0-9_]*\(' "$header" |
           tr -d '(' | sort -u)
defined=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort -u)
missing=$(comm -23 <(echo "$declared") <(echo "$defined"))
if [ -n "$missing" ]; then
  echo "declared in $header but not defined by $lib:" >&2
  echo "$missing" >&2
  exit 1
fi
echo "$(echo "$declared" | wc -l) host operations defined"
