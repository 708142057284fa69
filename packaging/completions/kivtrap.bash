# Completion of kivtrap for bash: options, message files, stations and trap types.

# Sets `operands` to the number of operands before the cursor.
_kivtrap_operands() {
  local i
  operands=0
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
    -[cfstu]) ((++i)) ;;
    -*) ;;
    *) ((++operands)) ;;
    esac
  done
}

# Offers the generic trap types with their names, which are not inserted.
_kivtrap_types() {
  local names='coldStart warmStart linkDown linkUp authenticationFailure egpNeighborLoss
    enterpriseSpecific' name number=0
  for name in $names; do
    [[ $number != "$1"* ]] || COMPREPLY+=("$number $name")
    ((++number))
  done
  [[ ${#COMPREPLY[@]} != 1 ]] || COMPREPLY=("${COMPREPLY[0]%% *}")
}

_kivtrap() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} operands
  COMPREPLY=()
  _kivtrap_operands
  case $previous in
  -f)
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    return
    ;;
  -t)
    _kivtrap_types "$current"
    return
    ;;
  -[csu]) return ;;
  esac
  if [[ $current == -* ]]; then
    local options="-c -d -f -s -t -u -v"
    ((operands == 0)) || options="-c -d -f"
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  elif ((operands == 0)); then
    mapfile -t COMPREPLY < <(compgen -A hostname -- "$current")
  elif ((operands == 1)) && [[ ${COMP_WORDS[1]} != -* ]]; then
    _kivtrap_types "$current"
  fi
}
complete -F _kivtrap kivtrap
