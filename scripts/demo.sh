# Shared by the two demos; sourced after common.sh, not run. bash.

home=$(mktemp -d)
service=
stop_and_clean() {
  [ -z "$service" ] || kill -KILL "$service" 2>/dev/null || true
  rm -rf "$home"
}
trap stop_and_clean EXIT
trap 'fail "line $LINENO went wrong: $BASH_COMMAND"' ERR

# The service reads this file only, whatever the desktop's own user has set.
export HOME=$home qixconfiglocal=$home/qix.conf qixconfigglobal=$home/qix.conf
unset qixconfigref

title() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

start_service() {
  (cd "$home" && exec "$project/build/qixxwatch") &
  service=$!
}

# Waits until the trace has at least $1 lines that match $2, up to $3 seconds (20 without); 1 when it never does.
seen() {
  local tries=$((${3:-20} * 10))
  until [ "$(grep -c -- "$2" "$home/trace.log" 2>/dev/null)" -ge "$1" ] 2>/dev/null; do
    [ $tries -gt 0 ] || return 1
    tries=$((tries - 1))
    kill -0 "$service" 2>/dev/null || fail "the service ended by itself; its trace: $(cat "$home/trace.log")"
    sleep 0.1
  done
}

stop_service() {
  local code=0
  kill -TERM "$service"
  wait "$service" || code=$?
  service=
  [ $code -eq 0 ] || fail "the service ended with $code"
}
