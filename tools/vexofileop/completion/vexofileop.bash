# Completion of vexofileop for bash. Commands and options are asked of the program, so they are always its own.

# The words of a section of the help: _vexofileop_words Section command...
_vexofileop_words() {
    local section=$1 help=--help
    shift
    [[ $section != Options ]] || help=--help-all
    vexofileop "$@" $help 2>/dev/null | awk -v section="$section:" '
        $0 == section || ($0 == "More options:" && section == "Options:") { on = 1; next }
        /^[^ ]/ || /^$/ { on = 0 }
        # A command is the last word of its column: what it is for may stand before it.
        on && section == "Subcommands:" { count = split(substr($0, 1, 24), words, " "); if (count) print words[count]; next }
        on && /^  [^ ]/ { sub(/\[=.*/, "", $1); count = split($1, words, ","); for (i = 1; i <= count; i++) print words[i] }'
}

# What an option takes, where that is one of some words: "--clone=" takes them behind the "=" alone.
_vexofileop_values() {
    case $1 in
    --accept | --accept=) vexofileop explain 2>/dev/null | cut -d' ' -f1 | grep -v -e '^0x' -e '^store-' -e '^extra' ;;
    --only | --only= | --ignore | --ignore=)
        vexofileop explain 2>/dev/null | cut -d' ' -f1 | grep -v -e '^0x' -e '^store-'
        ;;
    --clone=) printf '%s\n' auto always never ;;
    --sync=) printf '%s\n' file volume ;;
    --names | --names=) printf '%s\n' reversible plain ;;
    --progress | --progress=) printf '%s\n' json bar none ;;
    --to | --to=) printf '%s\n' native eadir double fileea ;;
    esac
}

_vexofileop() {
    local current=${COMP_WORDS[COMP_CWORD]} word commands at option values before= first=1
    local -a path=()
    COMPREPLY=()
    # The commands named so far; the first word that is none ends them. Behind "help" come the same.
    [[ $COMP_CWORD -gt 1 && ${COMP_WORDS[1]} == help ]] && first=2
    for ((at = first; at < COMP_CWORD; at++)); do
        word=${COMP_WORDS[at]}
        [[ $word == -* ]] && continue
        grep -qxF -- "$word" <<<"$(_vexofileop_words Subcommands "${path[@]}")" || break
        path+=("$word")
    done
    # The shell takes "=" for a word of its own.
    option=${COMP_WORDS[COMP_CWORD - 1]}
    if [[ $current == = ]]; then
        option+== current=
    elif [[ $option == = && COMP_CWORD -gt 1 ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}=
    fi
    values=$(_vexofileop_values "$option")
    if [[ -n $values ]]; then
        [[ $current == *,* && $option != --progress* && $option != --to* ]] && before=${current%,*},
        mapfile -t COMPREPLY < <(compgen -P "$before" -W "$values" -- "${current##*,}")
        return
    fi
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_vexofileop_words Options "${path[@]}")" -- "$current")
        return
    fi
    commands=$(_vexofileop_words Subcommands "${path[@]}")
    # Where "plan" cuts a directory no command follows.
    if [[ -n $commands && " ${COMP_WORDS[*]} " != *" --shards"[\ =]* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
    elif [[ $first -eq 2 ]]; then
        :
    elif [[ ${path[0]} == explain ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(vexofileop explain 2>/dev/null | cut -d' ' -f1)" -- "$current")
    else
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -F _vexofileop vexofileop
