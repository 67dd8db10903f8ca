#!/usr/bin/env bash
# Checks the rules of the house that no compiler knows: who may include whom, and which locks are used.
source "$(dirname "$0")/lib/common.sh"

usage() { echo "usage: scripts/rules.sh"; }
if (($# > 0)); then usage && exit 2; fi

broken=0

# forbid WHY REGEX PATH...: no tracked C++ file under PATH has a line that matches.
forbid() {
  local why=$1 regex=$2 found
  shift 2
  if found=$(git grep -nE "$regex" -- "$@"); then
    printf '%s:\n%s\n' "$why" "$found"
    broken=$((broken + 1))
  fi
}

quoted='^ *# *include *"'
forbid 'shared headers include shared headers only' "$quoted(orva_|support/|\.)" include
forbid 'the host knows no add-in' "$quoted(orva_(database|sqlite|events_log)|sqlite_base|support)/" host
forbid 'the history add-in sees only include/ and its own folder' \
  "$quoted(orva_(host|sqlite|events_log)|sqlite_base|support)/" addins/orva_database
forbid 'a provider sees only include/ and its own folder' \
  "$quoted(orva_(host|database)|support)/" addins/orva_sqlite addins/sqlite_base addins/orva_events_log
forbid 'includes are rooted' "$quoted\.\.?/" addins cli host include tests bench

standard='std::(recursive_|shared_|timed_)*mutex|std::(lock_guard|unique_lock|scoped_lock|shared_lock)'
forbid 'locks are orva::Mutex and orva::MutexLock, which clang can check' "$standard" \
  addins cli host include ':!include/share/mutex.h' ':!include/share/condition.h'
forbid 'RapidJSON comes by way of share/json.h' '^ *# *include *<rapidjson/(document|reader)\.h>' \
  addins cli host include tests bench ':!include/share/json.h'

echo "rules: $broken broken"
((broken == 0))
