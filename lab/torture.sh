#!/bin/bash
# shellcheck disable=SC2034,SC2154  # shared with the files that it reads
# Disturbs the flows of the programs, one fault at a time, and checks after each that the device's
# state is whole. Runs inside the lab, beside the development cloud and the system log (lab/services);
# script/torture starts it, once for each share.
#
# How to disturb is told by KIND.sh beside this script:
#
#   set_up_kind        prepares the lab
#   survey FLOW        runs a flow undisturbed
#   list_cases FLOW    prints the cases that it found for this share
#   run_case CASE...   runs one of them
#   sample_step        a sample has one case in so many
#   counters           the names of what is counted
#
# and injected_call, output_failed and record_unread, for the checks of lab/flows.sh.
set -euo pipefail

usage() {
  cat <<'USAGE'
Usage: lab/torture KIND [--all | --each | --every K] [--flow FLOW]... [--share I/N] [--counts PREFIX]
       lab/torture KIND --only CASE

KIND: system_calls, allocations or power_loss. The counts of each flow go to PREFIX.FLOW.
USAGE
}

here=$(dirname "$(readlink -f "$0")")
kind=${1-}
if [[ ! -e $here/$kind.sh ]]; then usage >&2 && exit 2; fi
shift
# shellcheck source=lab/flows.sh
source "$here/flows.sh"
# shellcheck source=/dev/null
source "$here/$kind.sh"

# For awk, with `every`, `share` and `shares` set: chooses cases by their names.
hash_function='
  BEGIN { for (i = 32; i < 127; i++) code[sprintf("%c", i)] = i }
  function hash(name, i, sum) {
    sum = 7
    for (i = 1; i <= length(name); i++) sum = (sum * 31 + code[substr(name, i, 1)]) % 1000003
    return sum
  }
  function is_shared(name) { return hash(name) % shares == share }
  function is_sampled(name, step) {
    return int(hash(name) / shares) % (every * (step ? step : 1)) == 0
  }'

parse_options() {
  every=$sample_step each='' share=0 shares=1 counts='' only='' all_findings=0 chosen=()
  while (($#)); do
    case $1 in
      --all) every=1 && shift ;;
      --each) every=1 each=yes && shift ;;
      --every) every=${2?} && shift 2 ;;
      --flow) chosen+=("${2?}") && shift 2 ;;
      --share) share=${2%/*} shares=${2#*/} && shift 2 ;;
      --counts) counts=${2?} && shift 2 ;;
      --only) only=${2?} && shift 2 ;;
      *) usage >&2 && exit 2 ;;
    esac
  done
}

replay() {
  survey "$1"
  run_case "$@"
  printf 'at: %s\nstatus %d\n' "$(injected_call)" "$status"
  head -n 100 "$work/out" "$work/err"
}

disturb_flow() {
  local flow=$1 start=$SECONDS cases line
  reset_counts
  survey "$flow"
  mapfile -t cases < <(list_cases "$flow")
  printf '%-15s %d cases\n' "$flow" "${#cases[@]}"
  for line in "${cases[@]}"; do
    # shellcheck disable=SC2086
    run_case $line
  done
  [[ -z $counts ]] || write_counts "$((SECONDS - start))" >"$counts.$flow"
  all_findings=$((all_findings + findings))
}

reset_counts() {
  local name
  for name in "${counters[@]}" known_limits findings; do printf -v "$name" 0; done
}

write_counts() { # write_counts SECONDS
  local name
  for name in "${counters[@]}" known_limits findings; do printf '%s=%d\n' "$name" "${!name}"; done
  printf 'seconds=%d\n' "$1"
}

disturb_chosen() {
  local flow
  ((${#chosen[@]})) || chosen=("${flows[@]}")
  for flow in "${chosen[@]}"; do disturb_flow "$flow"; done
}

main() {
  [[ ${LAB_INSIDE-} == 1 ]] || die 'runs inside the lab only'
  parse_options "$@"
  cd / # traces name the working folder too
  set_up_cloud
  install_plugins
  note_jobs
  set_up_kind
  if [[ -n $only ]]; then
    # shellcheck disable=SC2086
    replay $only
    ((findings == 0))
  else
    disturb_chosen
    ((all_findings == 0))
  fi
}

main "$@"
