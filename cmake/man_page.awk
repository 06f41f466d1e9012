# The manual page of a program, or a section of it for one of its commands, from its help. That is
# laid out by kit/command_line.cpp: a description up to "Usage:", groups of options, each with a
# text that is indented by 21 columns, and what the program says beside that in paragraphs.

function escaped(text) {
    gsub(/\\/, "\\e", text)
    gsub(/-/, "\\-", text)
    gsub(/'/, "\\(aq", text)
    gsub(/`/, "\\(ga", text)
    gsub(/\^/, "\\(ha", text)
    gsub(/~/, "\\(ti", text)
    return text ~ /^\./ ? "\\&" text : text
}

function bold(text) { return "\\fB" escaped(text) "\\fR" }

# Lines are kept as they are, as far to the left as leaves them within 80 columns, or filled.
function keep(on) {
    if (on != kept) print on ? ".in 2n\n.EX" : ".EE\n.in"
    kept = on
}

# A command has one section, of options and paragraphs.
function section(title) {
    keep(0)
    if (!of_command && title != current) print ".SH " title
    else if (title == "NOTES") print ".PP"
    current = title
}

function heading(usage,   summary) {
    if (of_command) {
        print ".SS " usage "\n" description
        return
    }
    summary = description
    gsub(/\n/, " ", summary)
    sub(/\.( .*)?$/, "", summary)
    print ".TH " toupper(name) " 1 \"\" \"fdstream " version "\" \"User Commands\""
    print ".SH NAME\n" escaped(name) " \\- " tolower(substr(summary, 1, 1)) substr(summary, 2)
    print ".SH SYNOPSIS\n" usage "\n.SH DESCRIPTION\n" description
}

# "  --size WxH         what it is", or the name alone where that is long.
function option(line,   name, rest) {
    match(line "  ", /  +/)
    name = substr(line, 1, RSTART - 1)
    rest = index(name " ", " ")
    print ".TP\n" bold(substr(name, 1, rest - 1)) escaped(substr(name, rest))
    if (RSTART < length(line)) print escaped(substr(line, RSTART + RLENGTH))
}

BEGIN { kept = 0 }
/^Usage: / { heading(bold(substr($0, 8))); part = "groups"; next }
part == "" { description = description (description == "" ? "" : "\n") escaped($0); next }
/^$/ { begins = 1; next }

begins && /^[A-Z][a-z]+:$/ && !/^Examples/ {
    part = /^Subcommands/ ? "commands" : "groups"
    if (part == "groups") section(toupper(substr($0, 1, length($0) - 1)))
    begins = 0
    next
}
part == "commands" && /^ / { next }
of_command && /^  -h,--help / { next }
part == "groups" && !begins && /^  [^ ]/ { option(substr($0, 3)); next }
part == "groups" && !begins && /^ / { sub(/^ +/, ""); print escaped($0); next }

{ part = "paragraphs" }
begins && /^Examples/ { section("EXAMPLES"); begins = 0; next }
begins && sub(/^Exit code: /, "") { section("EXIT STATUS"); begins = 0 }
begins && /^[^ ]/ { section("NOTES") }
begins && /^ / { keep(0); print ".PP" }
{ begins = 0; keep(/^ /); sub(/^  /, ""); print escaped($0) }
END { keep(0) }
