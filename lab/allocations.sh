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
  local flow=$1
  make_base "$flow"
  prepare "$flow"
  note_start
  run_disturbed "$flow" 0 0
  check_leaks
  note_end "$flow"
}

# Runs FLOW with the allocations from FIRST to LAST failing in whichever of its programs is disturbed.
run_disturbed() { # run_disturbed FLOW FIRST LAST
  local wrapper flow=$1
  if [[ $flow == worker_* ]]; then
    disturb_worker "$2" "$3"
    run_flow "$flow" timeout --kill-after=5 "$time_limit"
    end_workers_report
  else
    disturbed "$2" "$3"
    run_flow "$flow" timeout --kill-after=5 "$time_limit" "${wrapper[@]}"
  fi
}

# The worker, which may not write into files once it is confined, reports into a pipe. What it leaks
# is not looked for: that takes calls that it has given up.
disturb_worker() { # disturb_worker FIRST LAST
  start_worker_behind env "LD_PRELOAD=$allocator" "LAB_ALLOCATION_REPORT=$workers_folder/report" \
    "LAB_ALLOCATION_FIRST=$1" "LAB_ALLOCATION_LAST=$2"
  exec {report}<>"$workers_folder/report"
  cat "$workers_folder/report" >"$work/report" {report}<&- &
  report_reader=$!
}

end_workers_report() {
  start_worker_alone
  exec {report}<&-
  wait "$report_reader"
}

check_leaks() {
  local file
  for file in "$work"/leaks.*; do
    [[ -e $file ]] || return 0
    finding "leaked: $(grep -m1 SUMMARY "$file")"
    head -n 25 "$file"
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

check_own_end() {
  if ended_out_of_memory "$1"; then
    out_of_memory=$((out_of_memory + 1))
  else
    check_end "$1"
  fi
}

# A worker may end as it likes: the program takes that for a failed request. Yet only memory that
# nobody has, or a library of the connection, may be what ends it.
check_workers_end() {
  local ended
  ended=$(sed -nE '/^ended by signal /{s///p;q}' "$work/report")
  if [[ -z $ended ]]; then
    return
  elif library_failed; then
    known_limit "$(ending_call) ended the worker: signal $ended"
  elif ((ended == 6)); then
    out_of_memory=$((out_of_memory + 1))
  else
    finding "the worker was ended by signal $ended"
  fi
}

# Known limits: the C library's resolver runs into its own assertions or follows a null pointer;
# libcrypto follows null pointers when its configuration cannot be read; libcurl frees a session that
# it had no memory to remember once more at the end; libseccomp follows null pointers.
library_failed() {
  [[ $(ending_call) =~ ^lib(crypto|ssl|curl|gnutls|tasn1|seccomp) ]] ||
    stack_after ended | grep -q '^libc.*getaddrinfo'
}

ending_call() { stack_after ended | grep -v -m1 '^libc\.so' || true; }

run_case() { # run_case FLOW N HOW
  local flow=$1 first=$2 last=$2
  case_name="$*"
  if [[ $3 == rest ]]; then last=999999999; fi
  prepare "$flow"
  note_start
  run_disturbed "$flow" "$first" "$last"
  if grep -q '^failed' "$work/report"; then faults=$((faults + 1)); else not_reached=$((not_reached + 1)); fi
  check_own_end "$flow"
  if [[ $flow == worker_* ]]; then check_workers_end; fi
  check_leaks
  check_leftovers 'after the fault'
  check_state "$flow"
  check_again "$flow"
}

set_up_kind() {
  flows+=("${worker_flows[@]}")
  mkfifo -m 622 "$workers_folder/report"
}
