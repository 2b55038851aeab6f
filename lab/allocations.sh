#!/bin/bash
# shellcheck disable=SC2034,SC2154  # read by lab/torture.sh, beside lab/flows.sh
# Fails one allocation of the programs after another, and all from there on.
#
# A case is "FLOW N HOW": in FLOW the Nth allocation fails, and when HOW is "rest" every later one.
#
# nodelink may be aborted by an exception that no memory makes a library throw: its main catches
# nothing but the failures of a flow. nodelink-login ends in its own words, but for the formatting
# of a text.

# Without memory for a buffer of its connection a request waits for its own time-out of 30 s, three
# times; the rest is for a busy machine.
time_limit=150

allocator=${LAB_ALLOCATOR?} leak_checker=${LAB_LEAK_CHECKER?}

# Nine of ten allocations are those of the crypto library and of the parser that GnuTLS starts with:
# tables that they fill, thousands of times from the same few places. One for each way there will do.
alike='^lib(crypto|tasn1)'
sample_step=100
alike_step=5 # of those again

counters=(faults out_of_memory not_reached)
faults=0 out_of_memory=0 not_reached=0

# The modules and functions on a stack of the report, the innermost first.
stack_after() { # stack_after PATTERN
  sed -nE "/^$1/,/^ended/"'s/^.*\/([^/(]+)\(([^+)]*).*/\1 \2/p' "$work/report" |
    grep -vE '^lib(lab-alloc|lsan)'
}

injected_call() { stack_after failed | head -n 12 | paste -sd'<' | cut -c1-400; }

record_unread() { true; } # the reader has failed when it is not the record that is broken

output_failed() { false; }

disturbed() { # disturbed FIRST LAST: sets `wrapper`
  wrapper=(env "LD_PRELOAD=$allocator:$leak_checker" "LAB_ALLOCATION_REPORT=$work/report"
    "LAB_ALLOCATION_FIRST=$1" "LAB_ALLOCATION_LAST=$2"
    "LSAN_OPTIONS=leak_check_at_exit=0:abort_on_error=1:handle_segv=0:handle_abort=0:log_path=$work/leaks")
}

survey() {
  local flow=$1 wrapper
  make_base "$flow"
  prepare "$flow"
  note_start
  disturbed 0 0
  run_flow "$flow" "${wrapper[@]}"
  check_leaks
  note_end "$flow"
}

# The crypto library's blocks are its own to free: the programs hold none of them.
is_of_crypto_library() {
  awk '/^(Direct|Indirect) leak/ { leaks++ }
    /^ *#1 .*lib(crypto|ssl)\.so/ { own++ }
    END { exit !(leaks && own == leaks) }' "$1"
}

# Blocks that only refer to each other, all of a library's own, are a known limit: when libcurl has no
# memory for a new connection's bookkeeping it forgets the connection.
is_of_library() {
  ! grep -qE '^Direct|^ *#[0-9].*(nodelink|jsoncpp|stdc\+\+|sodium)' "$1"
}

# So is the loader's text about a module that it had no memory for: the C library does not free what
# its own dlerror() has made.
is_loaders_text() {
  grep -q 'libc.*(dlopen' "$work/report" && grep -q '^ *#1 .*__vasprintf_internal' "$1" &&
    is_single "$1"
}

# So is a value that cpr, a part of the HTTP module, had libcurl escape and then had no memory to copy.
is_escaped_value() {
  [[ $(injected_call) == 'nodelink_http.so <nodelink_http.so <'* ]] &&
    grep -q '^ *#1 .*libcurl' "$1" && is_single "$1"
}

is_single() { [[ $(grep -cE '^(Direct|Indirect) leak' "$1") == 1 ]]; }

check_leaks() {
  local file
  for file in "$work"/leaks.*; do
    [[ -e $file ]] || return 0
    if is_of_crypto_library "$file"; then
      known_limit 'the crypto library forgot a block'
    elif is_of_library "$file"; then
      known_limit 'libcurl forgot a connection'
    elif is_loaders_text "$file"; then
      known_limit "the loader's text was kept"
    elif is_escaped_value "$file"; then
      known_limit 'cpr forgot an escaped value'
    else
      finding "leaked: $(grep -m1 SUMMARY "$file")"
      head -n 25 "$file"
    fi
  done
  rm -f "$work"/leaks.*
}

# The cases of FLOW in this share. An allocation is told by the way there and how often it was taken
# before, so that each share chooses alike though it numbers them otherwise.
list_cases() {
  awk -v flow="$1" -v each="$each" -v alike="$alike" -v alike_step="$alike_step" \
    -v every="$every" -v share="$share" -v shares="$shares" "$hash_function"'
    { before = taken[$3]++; name = $3 " " before; is_alike = $2 ~ alike }
    is_alike && before && !each { next }
    !is_shared(name) || !is_sampled(name, every > 1 && is_alike ? alike_step : 1) { next }
    { print flow, $1, "once"; print flow, $1, "rest" }' "$work/report"
}

ended_out_of_memory() {
  local text
  text=$(<"$work/err")
  ((status == 134)) && [[ $text == 'terminate called '* ]] && { [[ $1 != *_login ]] || formatting_failed; }
}

# FormatString never throws: without memory for its text the process ends, in either program.
formatting_failed() {
  local frames
  mapfile -t frames < <(sed -nE '/^ended/,$s/^nodelink-login\(\+(0x[0-9a-f]+)\).*/\1/p' "$work/report")
  ((${#frames[@]})) &&
    [[ $(addr2line -Cfe /usr/kivo/bin/nodelink-login "${frames[@]}") == *nodelink::FormatString* ]]
}

# A known limit: the C library's resolver does not survive a failing allocation everywhere. It runs
# into its own assertions, follows a null pointer, or keeps a lock for which the next look-up waits.
resolver_failed() {
  grep -q 'libc.*(getaddrinfo' "$work/report" && ((status == 124 || status == 134 || status == 139))
}

# So are crashes inside a library of the connection: libcrypto follows null pointers or waits for its
# own lock when its configuration cannot be read, libcurl frees a session that it had no memory to
# remember once more at the end.
library_failed() {
  case $status in
    134 | 139) [[ $(ending_call) =~ ^lib(crypto|ssl|curl|gnutls|tasn1) ]] ;;
    124) [[ $(ending_call) =~ ^libcrypto ]] ;;
    *) return 1 ;;
  esac
}

ending_call() { stack_after ended | grep -v -m1 '^libc\.so' || true; }

# A library that libcurl links, and that is never used, tells of it when it has no memory at its start.
forget_gnutls() { sed -i '/^Error in GnuTLS initialization: /d' "$work/err"; }

check_own_end() {
  forget_gnutls
  if ended_out_of_memory "$1"; then
    out_of_memory=$((out_of_memory + 1))
  elif resolver_failed; then
    known_limit "the resolver ended it: status $status"
  elif library_failed; then
    known_limit "$(ending_call) ended it: status $status"
  else
    check_end "$1"
  fi
}

run_case() { # run_case FLOW N HOW
  local flow=$1 first=$2 last=$2 wrapper
  case_name="$*"
  if [[ $3 == rest ]]; then last=999999999; fi
  prepare "$flow"
  note_start
  disturbed "$first" "$last"
  run_flow "$flow" timeout --kill-after=5 "$time_limit" "${wrapper[@]}"
  if grep -q '^failed' "$work/report"; then faults=$((faults + 1)); else not_reached=$((not_reached + 1)); fi
  check_own_end "$flow"
  check_leaks
  check_leftovers 'after the fault'
  check_state "$flow"
  check_again "$flow"
}

set_up_kind() { true; }
