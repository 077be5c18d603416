#!/bin/bash
# The host library exports the operations host.h (with the host_*.h it
# includes) declares and the C++ API of embedded.h (qvehost::, not
# qvehost::internal::), and nothing else; the contract list names only
# operations that those headers declare.
set -euo pipefail
lib=$1 header=$2 contract=$3
declared=$(grep -ohE '\b(qve|sqve|qvl|strcaseeq|csidlookup)[A-Za-z0-9_]*\(' \
             "$header" "${header%.h}"_*.h |
           tr -d '(' | sort -u)
defined=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort -u)
fail=0
report() { echo "$1" >&2; echo "$2" >&2; fail=1; }
missing=$(comm -23 <(echo "$declared") <(echo "$defined"))
[ -z "$missing" ] || report "declared in $header but not exported:" "$missing"
undeclared=$(grep -v '^#' "$contract" | sed '/^$/d' | sort -u |
             comm -23 - <(echo "$declared"))
[ -z "$undeclared" ] || report "in $contract but not declared:" "$undeclared"
others=$(comm -13 <(echo "$declared") <(echo "$defined"))
extra=""
while read -r symbol; do
  [ -n "$symbol" ] || continue
  name=$(echo "$symbol" | c++filt)
  if [[ $name != qvehost::* || $name == qvehost::internal::* ]]; then
    extra+="$symbol ($name)"$'\n'
  fi
done <<< "$others"
[ -z "$extra" ] || report "exported beyond the contract and the embedded API:" "$extra"
[ $fail = 0 ] && echo "$(echo "$defined" | wc -l) symbols exported"
exit $fail
