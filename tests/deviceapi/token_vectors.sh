#!/bin/bash
# Prints device tokens, computed with md5sum alone: lines "SERIAL ID PASSWORD TOKEN", "-" for none.
# The serial numbers are chosen so that the first digest begins with each hex digit in turn.
set -euo pipefail

md5() {
  printf '%s' "$1" | md5sum | cut -c 1-32
}

first_digit() {
  md5 "$1" | cut -c 1
}

token() {
  local text=$1 rounds round
  rounds=$((16#$(first_digit "$text") + 1))
  for ((round = 0; round < rounds; ++round)); do
    text=$(md5 "$text$(md5 "$text")")
  done
  printf '%s' "$text"
}

# The first serial number that, with $2 behind it, has a digest that begins with the digit $1.
serial_for() {
  local digit=$1 credentials=$2 number serial
  for ((number = 1; ; ++number)); do
    serial=$(printf 'NL%07dA' "$number")
    if [[ $(first_digit "$serial$credentials") == "$digit" ]]; then
      printf '%s' "$serial"
      return
    fi
  done
}

vector() {
  local serial=$1 id=${2-} password=${3-}
  printf '%s %s %s %s\n' "$serial" "${id:--}" "${password:--}" "$(token "$serial$id$password")"
}

for digit in 0 1 2 3 4 5 6 7 8 9 a b c d e f; do
  vector "$(serial_for "$digit" '')"
done
for digit in 0 7 f; do
  vector "$(serial_for "$digit" anna@example.org)" anna@example.org
  vector "$(serial_for "$digit" anna@example.orgs3cret%20word)" anna@example.org s3cret%20word
  vector "$(serial_for "$digit" orphan)" '' orphan
done
vector 1
vector z9-lower.case
