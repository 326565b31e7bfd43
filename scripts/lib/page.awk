# Finishes a page of section 3 that Doxygen has written. Variables: name (of the page), date,
# version, example (the path of the sample program, for pages of functions).

# Prints a line when the next one is known: paragraph marks that separate nothing are dropped.
function put(line) {
    if (line ~ /^\.(PP|br)$/ && last ~ /^\.(S[HS]|PP|br|RS)/) return
    if (last == ".PP" && line ~ /^\.(S[HS]|RE|RS|IP)/) last = ""
    if (last != "") out[++lines] = last
    last = line
}

# A line of a program as roff shows it unchanged.
function code(line) {
    gsub(/\\/, "\\e", line)
    gsub(/-/, "\\-", line)
    return line == "" || line ~ /^[.']/ ? "\\&" line : line
}

# Notes the pages that a line refers to.
function look_for_references(line, word) {
    while (match(line, /\\fBZEVO(Bandwidth|_BANDWIDTH)[A-Za-z_]*/)) {
        word = substr(line, RSTART + 3, RLENGTH - 3)
        referred[word] = 1
        line = substr(line, RSTART + RLENGTH)
    }
}

BEGIN {
    of_functions = name ~ /^ZEVOBandwidth/
    of_header = name == "zevobandwidth.h"
}

{
    sub(/[ \t]+$/, "")
    gsub(/\\fC/, "\\fB")
}
/^\.nf/ { literal = 1 }
/^\.fi/ { literal = 0 }
literal || $0 == "" {
    if ($0 != "") put($0)
    next
}
/^\.TH / {
    put(".TH \"" name "\" 3 \"" date "\" \"Zevo Bandwidth " version "\"")
    next
}
/^\.SH / {
    section = $0
    gsub(/^\.SH |"/, "", section)
}
section == "Author" { next }
section == "NAME" { # is printed at the end, when all functions are known
    if (index($0, " \\- ") > 1 && title == "") {
        title = substr($0, index($0, " \\- ") + 4)
        sub(/\\&\.$/, "", title)
    }
    next
}
{
    look_for_references($0)
    sub(/^ +/, "")
    if ($0 !~ /^\./) gsub(/-1/, "\\-1")
    else if ($0 == ".ti -1c") $0 = ".TP" # a name, with its text on a line below
    else if ($0 ~ /^\.in/) next
}
/^\.SH SYNOPSIS/ {
    put("@NAME")
    put($0)
    put(".B #include <zevobandwidth.h>")
    next
}
section == "SYNOPSIS" && /#include/ { next }
# What a reader needs first comes before the long lists of the header's names.
of_header && section == "SYNOPSIS" {
    if ($0 != ".br") held[++holding] = $0
    next
}
of_header && /^\.SH "Macro / {
    put(".SH OVERVIEW")
    for (i = 1; i <= holding; i++) put(held[i])
}
of_functions && section == "SYNOPSIS" { # the declarations only; Doxygen tells their texts twice
    if (match($0, /\\fBZEVOBandwidth[A-Za-z]+/)) {
        word = substr($0, RSTART + 3, RLENGTH - 3)
        if ($0 !~ /^\.RI "[^\\]*\\fB[A-Za-z]+\\fP \(/) next
        own[word] = 1
        names = names (names == "" ? "" : ", ") word
        gsub(/^\.RI "|"$/, "")
        sub(/ \(/, "(")
        put(".HP 4n")
        put($0 ";")
    }
    next
}
/^\.SH "(Detailed|Function|Field) / {
    if (!described++) put(".SH DESCRIPTION")
    next
}
of_functions && /^\.SS/ {
    match($0, /ZEVOBandwidth[A-Za-z]+/)
    put(".SS " substr($0, RSTART, RLENGTH) "()")
    next
}
/^\\fB[A-Z][a-z]+\\fP$/ { inside = $0 }
inside ~ /Parameters/ && /^\\fI/ { # one below the other
    put(".TP")
    put($1)
    sub(/^[^ ]+ /, "")
}
/^\.br/ && (inside ~ /Parameters/ || section == "SYNOPSIS") { next }
{ put(($0 ~ /^'/ ? "\\&" : "") $0) }

END {
    if (of_functions) {
        put(".SH NOTES")
        put("Any thread may call these functions, and no signal handler, unless the text above says")
        put("otherwise.")
        put(".BR zevobandwidth.h (3)")
        put("tells what holds for all functions: units, errors, threads, signals, forks.")
        put(".SH EXAMPLES")
        put(".nf")
        while ((getline line < example) > 0) put(code(line))
        put(".fi")
    }
    put(".SH \"SEE ALSO\"")
    for (word in referred)
        if (of_functions && !(word in own)) {
            for (i = ++count; i > 1 && also[i - 1] > word; i--) also[i] = also[i - 1]
            also[i] = word # sorted: the order of a table is awk's own
        }
    for (i = 1; i <= count; i++) put(".BR " also[i] " (3),")
    if (!of_header) put(".BR zevobandwidth.h (3),")
    put(".BR zevobandwidth (7)")
    put("")
    for (i = 1; i <= lines; i++)
        print out[i] == "@NAME" ? ".SH NAME\n" (of_functions ? names : name) " \\- " title : out[i]
}
