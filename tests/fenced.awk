# The fenced code of one language in a Markdown file, with lines numbered as there:
#   awk -v language=c -f fenced.awk FILE.md
/^```/ {
    inside = $0 == "```" language
    if (inside) printf "#line %d \"%s\"\n", FNR + 1, FILENAME
    next
}
inside
