# Completion of qixxwatch for bash. Quotes belong to the text of an option, so they are offered with it.

# The watchers that the system's file has lists for. Nothing that is read is expanded or run, now or
# when the line is entered. Behind an open quote only names are offered that need none.
_qixxwatch_watchers() {
  local name quoted
  while IFS= read -r name; do
    printf -v quoted %q "$name"
    [[ $quoted == "$1"* ]] || continue
    [[ ${COMP_WORDS[COMP_CWORD]} != [\"\']* || $quoted == "$name" ]] && COMPREPLY+=("$quoted")
  done < <(echo Watch; sed -n 's/^\[Watch \(.*\) \(Insert\|Remove\)\].*/\1/p' \
    "${qixconfigglobal:-/etc/qix.conf}" 2>/dev/null | sort -u)
}

_qixxwatch() {
  local current=$2 previous=$3
  COMPREPLY=()
  case $previous in
    -c | -p | --check)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      compopt -o filenames 2>/dev/null
      return ;;
    --list)
      COMPREPLY=(--json)
      return ;;
    -simulate)
      COMPREPLY=("'\"insert\"'" "'\"remove\"'")
      return ;;
    config)
      _qixxwatch_watchers "$current"
      return ;;
  esac
  if [[ $current == -* || -z $current ]]; then
    mapfile -t COMPREPLY < <(compgen -W '-match -wait -message -hide -sync -term -recognized -simulate
      -p -c -a -w -n --check --list --help --version config' -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -W config -- "$current"; compgen -c -- "$current")
  fi
}
complete -F _qixxwatch qixxwatch
