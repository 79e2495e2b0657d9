# Sourced by the other scripts: runs commands as announced steps with their time, and keeps their
# output in build/logs.
# shellcheck shell=sh

set -eu
cd "$(dirname "$0")/.."
logs=$PWD/build/logs
mkdir -p "$logs"
if [ -t 1 ]; then terminal=yes; else terminal=no; fi
running=

# A step, which is a session of its own, does not outlive the script.
trap 'test -z "$running" || kill -- "-$running" 2>/dev/null; exit 130' INT TERM

# step TITLE LOG COMMAND...: runs the command with its output in build/logs/LOG.log. When it fails,
# shows the end of that and ends the script.
step() {
  title=$1 log=$logs/$2.log begin=$(date +%s)
  shift 2
  [ "$terminal" = yes ] || printf '%s ...\n' "$title"
  setsid "$@" >"$log" 2>&1 </dev/null &
  running=$!
  show_progress
  status=0
  wait "$running" || status=$?
  running=
  if [ "$status" = 0 ]; then
    finished "$title: done"
    return
  fi
  finished "$title: FAILED with status $status"
  tail -n 200 "$log"
  echo "The full output is in $log"
  failed_tests "$log"
  exit 1
}

# Shows on a terminal the seconds and the last line of output, elsewhere a line every half minute.
show_progress() {
  told=0
  while kill -0 "$running" 2>/dev/null; do
    sleep 0.2
    seconds=$(($(date +%s) - begin))
    if [ "$terminal" = yes ]; then
      last=$(tail -n 1 "$log" | tr -cd '[:print:]')
      printf '\r\033[K%s ... %s s  %.60s' "$title" "$seconds" "$last"
    elif [ $((seconds - told)) -ge 30 ]; then
      told=$seconds
      printf '  ... %s s  %.90s\n' "$seconds" "$(tail -n 1 "$log")"
    fi
  done
}

finished() {
  [ "$terminal" = no ] || printf '\r\033[K'
  printf '%s (%s s)\n' "$1" $(($(date +%s) - begin))
}

# build PRESET [CMAKE ARGUMENT]... [-- BUILD ARGUMENT...]: configures, unless that is done and
# there are no arguments for it, and builds.
build() {
  preset=$1
  shift
  configuration=
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    configuration="$configuration $1"
    shift
  done
  [ $# = 0 ] || shift
  if [ -n "$configuration" ] || [ ! -e "build/$preset/build.ninja" ]; then
    # shellcheck disable=SC2086  # arguments without blanks
    step "Configuring ($preset)" "configure-$preset" cmake --preset "$preset" $configuration
  fi
  step "Building ($preset)" "build-$preset" cmake --build --preset "$preset" "$@"
}

# closing_lines LOG: shows the closing lines of CTest and pytest in build/logs/LOG.log.
closing_lines() {
  sed -n -e 's/^\([0-9]*: \)\{0,1\}\(=.* in [0-9].*=\)$/  pytest: \2/p' \
    -e 's/^[0-9]*% tests passed.*/  ctest:  &/p' \
    -e 's/^Total Test time.*/  ctest:  &/p' "$logs/$1.log"
}

# failed_tests FILE: shows which of pytest's tests failed and why, a line each.
failed_tests() {
  sed -n 's/^\([0-9]*: \)\{0,1\}\(\(FAILED\|ERROR\) .*\)$/  \2/p' "$1" | sort -u
}

# Makes what builds for 32-bit ARM link against, unless it is there: $sysroot.
make_sysroot() {
  sysroot=$PWD/build/sysroot-armhf
  scripts/setup scripts/packages.armhf
  [ -d "$sysroot" ] || step "Making the sysroot (armhf)" sysroot-armhf scripts/unpack-armhf "$sysroot" \
    libc6-dev libstdc++-12-dev libdbus-1-dev libglib2.0-dev libmount-dev libpcap-dev libudev-dev \
    libgtest-dev libgmock-dev libbenchmark-dev
}
