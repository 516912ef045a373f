# Turns one of docs/*.md into scdoc text, so that a reference stands once. Knows what those pages use: headings,
# paragraphs, flat lists, tables, fenced blocks, `code`, **bold** and links.
#
#   awk -v page='rvk-frames(7)' -v also='*rvkd*(8)' -f from-markdown.awk ../frames.md

BEGIN {
    manual["frames.md"] = "*rvk-frames*(7)"
    manual["messages.md"] = "*rvk-messages*(7)"
    manual["operation.md"] = "*rvkd*(8)"
    print page "\n\n# NAME\n"
}

# A paragraph, or a list's item, that has been gathered from its lines.
function flush_text() {
    if (text == "") { return }
    print mark inline(text) (mark == "" ? "\n" : "")
    text = ""
}

function flush_list() { flush_text(); if (mark != "") { print ""; mark = "" } }

function escaped(plain) {
    gsub(/\\/, "\\\\", plain)
    gsub(/[*_]/, "\\\\&", plain)
    return plain
}

# What a link says: the page that it leads to, or its own words.
function linked(words, target) {
    sub(/#.*/, "", target)
    return target in manual ? manual[target] : inline(words)
}

function inline(rest,   out, at, found, parts) {
    out = ""
    while (match(rest, /`[^`]*`|\*\*[^*]*\*\*|\[[^]]*\]\([^)]*\)/)) {
        found = substr(rest, RSTART, RLENGTH)
        out = out escaped(substr(rest, 1, RSTART - 1))
        rest = substr(rest, RSTART + RLENGTH)
        if (found ~ /^`/) { out = out "*" escaped(substr(found, 2, length(found) - 2)) "*" }
        else if (found ~ /^\*/) { out = out "*" escaped(substr(found, 3, length(found) - 4)) "*" }
        else {
            at = index(found, "](")
            out = out linked(substr(found, 2, at - 2), substr(found, at + 2, length(found) - at - 2))
        }
    }
    out = out escaped(rest)
    return out ~ /^[-#.;:|~]|^\[|^\]/ ? "\\" out : out
}

function heading(words) { gsub(/[`*]/, "", words); return toupper(words) }

# The first row is bold, and its last column takes the room there is.
function table_row(line,   cells, n, i, first) {
    sub(/^\| */, "", line)
    sub(/ *\|$/, "", line)
    n = split(line, cells, / *\| */)
    first = !in_table
    for (i = 1; i <= n; i++) {
        printf "%s%s %s\n", i == 1 ? (first ? "[" : "|") : ":", first ? (i == n ? "<" : "[") : " ",
            first && cells[i] != "" && cells[i] !~ /`/ ? "*" inline(cells[i]) "*" : inline(cells[i])
    }
    in_table = 1
}

/^```/ { flush_list(); fenced = !fenced; print "```" (fenced ? "" : "\n"); next }
fenced { print; next }

/^\|[-|]*$/ { next } # the line between a table's head and its rows
/^\|/ { flush_list(); table_row($0); next }
in_table { print ""; in_table = 0 }

/^# / {
    name = page
    sub(/\(.*/, "", name)
    print name " - " tolower(substr($0, 3, 1)) substr($0, 4) "\n\n# DESCRIPTION\n"
    next
}
/^## / { flush_list(); print "# " heading(substr($0, 4)) "\n"; next }
/^- / { flush_text(); mark = "- "; text = substr($0, 3); next }
/^  / && mark != "" { sub(/^ +/, ""); text = text " " $0; next }
/^$/ { flush_list(); next }
{
    if (mark != "") { flush_list() }
    text = text == "" ? $0 : text " " $0
}

END { flush_list(); if (in_table) { print "" }; print "# SEE ALSO\n\n" also }
