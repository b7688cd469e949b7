# shellcheck shell=bash
# Completion for the programs of uva-gst-backend, from what their --help says: it always fits the program.

# _uva_value HELP OPTION: what stands for its value there, such as "cenc|cbcs", or FILE; nothing for a switch.
_uva_value() {
    local value
    value=$(sed -nE "s/^ +(-[A-Za-z], ?)?${2//[^a-z0-9-]/} ([^ ]+).*/\2/p" <<<"$1")
    printf '%s' "${value%%$'\n'*}"
}

_uva_tool() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} help value first choices
    help=$("$1" --help 2>/dev/null) || return 0
    # The command in a box is completed as it is without one.
    if [[ ${1##*/} == tvbox ]]; then
        for ((first = 1; first < COMP_CWORD; ++first)); do
            case ${COMP_WORDS[first]} in
            --) ((++first)) && break ;;
            -*) [[ -z $(_uva_value "$help" "${COMP_WORDS[first]}") ]] || ((++first)) ;;
            *) break ;;
            esac
        done
        if ((first < COMP_CWORD)); then
            ! declare -F _command_offset >/dev/null || _command_offset "$first"
            return 0
        elif ((first == COMP_CWORD)) && [[ $word != -* ]]; then
            mapfile -t COMPREPLY < <(compgen -c -- "$word")
            return 0
        fi
    fi
    # Behind an option its value. One in capitals is a file or free text.
    if [[ $before == --* ]]; then
        value=$(_uva_value "$help" "$before")
        if [[ $value == *'|'* && $value != *[A-Z]* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "${value//|/ }" -- "$word")
            return 0
        fi
        [[ -z $value ]] || return 0
    fi
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(sed -nE 's/^ +(-[A-Za-z], ?)?(--[a-z0-9-]+).*/\2/p' <<<"$help")" -- "$word")
        return 0
    fi
    # The first word, where it is one of some: "  PLAYER    shaka | dash".
    choices=$(sed -nE 's/^  [A-Z]+ +([a-z]+( \| [a-z]+)+)$/\1/p' <<<"$help")
    if [[ -n $choices && " ${COMP_WORDS[*]:1:COMP_CWORD - 1} " != *" "@(${choices// | /|})" "* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${choices//|/ }" -- "$word")
    fi
}

complete -o default -F _uva_tool \
    tvbox uva-host uva-qualify uva-replay uva-scope uva-soak uva-web-player zant-mainsys zantsh
