# bash completion for kestrow: its commands and options, the volume letters
# of the attached disks, and files after --disk. The commands and options are
# read from `kestrow --help`, so they follow the program that is installed.

# The commands of `kestrow --help`, one a line: the name, then the first
# argument of its usage ("C:" for the commands that take a volume).
_kestrow_commands() {
    local line section=""
    while IFS= read -r line; do
        case $line in
            commands:) section=commands ;;
            "") section="" ;;
            *)
                if [[ $section == commands && $line =~ ^\ \ ([a-z][a-z-]*)(\ +([^ ]+))? ]]; then
                    printf '%s %s\n' "${BASH_REMATCH[1]}" "${BASH_REMATCH[3]}"
                fi
                ;;
        esac
    done <<<"$1"
}

# The options of `kestrow --help`: every spelling of each.
_kestrow_options() {
    local line
    while IFS= read -r line; do
        if [[ $line =~ ^\ \ (-[-a-zA-Z]+)(\ [A-Z]+)?(,\ (-[-a-zA-Z]+))? ]]; then
            printf '%s\n' "${BASH_REMATCH[1]}" ${BASH_REMATCH[4]:+"${BASH_REMATCH[4]}"}
        fi
    done <<<"$1"
}

_kestrow() {
    local cur prev words cword
    if declare -F _init_completion >/dev/null; then
        # Keeps "C:" one word although ':' breaks words for readline.
        _init_completion -n : || return
    else
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    fi
    COMPREPLY=()
    local program=${words[0]}

    case $prev in
        --disk)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --drive) return ;;
    esac

    local help
    help=$("$program" --help 2>/dev/null) || return
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_kestrow_options "$help")" -- "$cur")
        return
    fi

    # The command, the disks named so far and the arguments before the cursor.
    local i word command="" arguments=0
    local disks=()
    for ((i = 1; i < cword; i++)); do
        word=${words[i]}
        case $word in
            --disk)
                disks+=(--disk "${words[i + 1]}")
                ((i++))
                ;;
            --disk=*) disks+=("$word") ;;
            --drive) ((i++)) ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=$word
                else
                    ((arguments++))
                fi
                ;;
        esac
    done

    local commands
    commands=$(_kestrow_commands "$help")
    if [[ -z $command || ($command == help && $arguments -eq 0) ]]; then
        local names
        names=$(cut -d' ' -f1 <<<"$commands")
        [[ -z $command ]] && names+=$'\nhelp'
        mapfile -t COMPREPLY < <(compgen -W "$names" -- "$cur")
        return
    fi
    # The first argument of a command that takes a volume: the letters of the
    # volumes on the attached disks.
    if ((arguments == 0)) && grep -qx "$command C:" <<<"$commands"; then
        local letters
        letters=$("$program" "${disks[@]}" volumes 2>/dev/null | sed -n 's/^ \{1,\}\([A-Z]:\) .*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$letters" -- "$cur")
        declare -F __ltrim_colon_completions >/dev/null && __ltrim_colon_completions "$cur"
    fi
}

complete -F _kestrow kestrow
