# Completion of qixxwatch for bash. Quotes belong to the text of an option, so they are offered with it.

_qixxwatch() {
  local current=$2 previous=$3
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
      # The watchers that the system's file has lists for.
      mapfile -t COMPREPLY < <(compgen -W "Watch $(sed -n \
        's/^\[Watch \(.*\) \(Insert\|Remove\)\].*/\1/p' \
        "${qixconfigglobal:-/etc/qix.conf}" 2>/dev/null | sort -u)" -- "$current")
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
