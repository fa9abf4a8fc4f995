# bash completion for modem_api_test. Commands and options come from the program's own --help, so that they are those
# of the program that is completed.

_modem_api_test() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word
  case $previous in
    --output | -o | --csv | --plot | --from | --modem | --trace)
      compopt -o default
      return
      ;;
  esac
  if [[ $current == @* ]]; then # a file with the data
    local IFS=$'\n'
    COMPREPLY=($(compgen -P @ -f -- "${current#@}"))
    return
  fi

  # The commands that are there already, without options and data: the words that --help of the ones before lists.
  local program=$1 help commands=() listed
  help=$("$program" --help 2>/dev/null) || return
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    listed=$(_modem_api_test_commands <<<"$help")
    if [[ $word != -* && $'\n'$listed$'\n' == *$'\n'"$word"$'\n'* ]]; then
      commands+=("$word")
      help=$("$program" "${commands[@]}" --help 2>/dev/null) || return
    fi
  done
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "$(grep -oE '^  (-[a-zA-Z],)?--[a-z-]+' <<<"$help" | grep -oE -- '--[a-z-]+')" -- "$current"))
  else
    COMPREPLY=($(compgen -W "$(_modem_api_test_commands <<<"$help")" -- "$current"))
  fi
}

# The commands that a help text lists.
_modem_api_test_commands() {
  sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p'
}

complete -F _modem_api_test modem_api_test
