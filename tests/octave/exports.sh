#!/bin/sh
# exports.sh NM MODULE: the module's dynamic symbol table defines mexFunction
# and nothing else (undefined references to Octave and the C++ runtime aside).
nm_tool=$1
module=$2
defined=$("$nm_tool" -D --defined-only "$module" | awk '{ print $NF }') || exit 1
if [ "$defined" != "mexFunction" ]; then
  echo "$module exports $(echo "$defined" | wc -l) symbols, expected mexFunction only:"
  echo "$defined" | head -20
  exit 1
fi
echo "exports: mexFunction only"
