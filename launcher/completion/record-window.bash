# Completion of record-window for bash. The options are those of launcher/optiontable.cpp; optiontable_test compares
# them.

# A column of record-window --list: the ids of the windows (1), or of their processes (3).
_record_window_listed() {
    "${COMP_WORDS[0]}" --list 2>/dev/null | awk -v column="$1" 'NR > 1 && $column ~ /^[0-9]/ { print $column }'
}

_record_window() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} name
    COMPREPLY=()
    # bash divides words at "=" and at ":".
    case $current in
        = | :) current= ;;
    esac
    case $previous in
        = | :) [ "$COMP_CWORD" -lt 2 ] || previous=${COMP_WORDS[COMP_CWORD - 2]} ;;
    esac
    # The one option with two values.
    [ "$COMP_CWORD" -lt 2 ] || [ "${COMP_WORDS[COMP_CWORD - 2]}" != --share-only ] || previous=--share-only
    case $previous in
        --window) mapfile -t COMPREPLY < <(compgen -W "$(_record_window_listed 1)" -- "$current") ;;
        --pid | app-pid) mapfile -t COMPREPLY < <(compgen -W "$(_record_window_listed 3)" -- "$current") ;;
        --audio) mapfile -t COMPREPLY < <(compgen -W "app app-pid: system none" -- "$current") ;;
        --pointer) mapfile -t COMPREPLY < <(compgen -W "on" -- "$current") ;;
        --canvas) mapfile -t COMPREPLY < <(compgen -W "1280x720 1920x1080" -- "$current") ;;
        --output | --recorder | --share | --contact-sheet | --share-only | --verify | --explain)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            ;;
        --log-dir)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            ;;
        --title | --seconds | --countdown | --click | --ready-timeout | --finish-timeout) ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W "
                --list --select --again --active --title --pid --window
                --seconds --countdown --keep-going --canvas --audio --pointer --no-popups --no-watch-clicks --click
                --output --force --log-dir
                --share --contact-sheet --sha256 --share-only --verify --explain
                --json --quiet --ready-timeout --finish-timeout --recorder
                --verbose --version --help" -- "$current")
            ;;
    esac
    for name in "${COMPREPLY[@]}"; do
        [ "$name" != app-pid: ] || compopt -o nospace 2>/dev/null
    done
}

complete -F _record_window record-window
