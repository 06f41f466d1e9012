#!/bin/sh
# man_page.sh PROGRAM VERSION PAGE: a tool's manual page, from what it prints for --help, and for
# COMMAND --help if it has commands.
set -eu

name=$(basename "$1")
format() { awk -v name="$name" -v version="$2" -v of_command="$1" -f "${0%.sh}.awk"; }

help=$("$1" --help)
{
    echo "$help" | format 0 "$2"
    commands=$(echo "$help" | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
    [ -z "$commands" ] || echo .SH COMMANDS
    for command in $commands; do
        told=$("$1" "$command" --help)
        echo "$told" | format 1 "$2"
    done
    echo .SH SEE ALSO
    for other in provider client detect ctl; do
        [ "$name" = "fdstream-$other" ] || echo ".BR fdstream\\-$other (1)"
    done | sed '$!s/$/,/'
} >"$3.part"
mv "$3.part" "$3"
