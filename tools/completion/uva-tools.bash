# shellcheck shell=bash
# Completion for the programs of uva-gst-backend, from what their --help says: it always fits the program.

_uva_tool() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} help value
    help=$("$1" --help 2>/dev/null) || return 0
    # Behind an option its value: "  --protect cenc|cbcs". One in capitals is a file or free text.
    if [[ $before == --* ]]; then
        value=$(sed -nE "s/^ +(-[A-Za-z], ?)?${before//[^a-z0-9-]/} ([^ ]+).*/\2/p" <<<"$help")
        value=${value%%$'\n'*}
        if [[ $value == *'|'* && $value != *[A-Z]* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "${value//|/ }" -- "$word")
            return 0
        fi
        [[ -z $value ]] || return 0
    fi
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(sed -nE 's/^ +(-[A-Za-z], ?)?(--[a-z0-9-]+).*/\2/p' <<<"$help")" -- "$word")
    fi
}

complete -o default -F _uva_tool \
    tvbox uva-host uva-qualify uva-replay uva-scope uva-soak uva-web-player zant-mainsys zantsh
