# Completion of kivtrap for bash: options, message files and host names.
_kivtrap() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $previous in
  -f)
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    ;;
  -t) mapfile -t COMPREPLY < <(compgen -W "0 1 2 3 4 5 6" -- "$current") ;;
  -c | -s | -u) ;;
  *)
    if [[ $current == -* ]]; then
      mapfile -t COMPREPLY < <(compgen -W "-c -d -f -s -t -u -v" -- "$current")
    else
      mapfile -t COMPREPLY < <(compgen -A hostname -- "$current")
    fi
    ;;
  esac
}
complete -F _kivtrap kivtrap
