#!/bin/bash
# The plug-in imports strongly only host operations of the agent's contract;
# a weak import (an extra the plug-in can do without) is allowed.
set -euo pipefail
lib=$1 contract=$2
imported=$(nm -D --undefined-only "$lib" | awk '$1 == "U" {print $2}' |
           grep -E '^(qve|sqve|qvl|strcaseeq|csidlookup)' | sort -u)
allowed=$(grep -v '^#' "$contract" | sed '/^$/d' | sort -u)
outside=$(comm -23 <(echo "$imported") <(echo "$allowed"))
if [ -n "$outside" ]; then
  echo "the plug-in imports host operations outside $contract:" >&2
  echo "$outside" >&2
  exit 1
fi
echo "$(echo "$imported" | wc -l) host operations imported, all of the contract"
