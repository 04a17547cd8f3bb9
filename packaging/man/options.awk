# Turns the options in a program's --help into a manual page's list: lines that begin with two blanks
# and an option, what it means behind at least two more blanks, and lines that go on in that column.
function roff(text) {
    gsub(/\\/, "\\e", text)
    gsub(/-/, "\\-", text)
    gsub(/"/, "\\(dq", text)
    return text ~ /^[.']/ ? "\\&" text : text
}
/^Options of / {
    sub(/^Options of /, "")
    sub(/:$/, "")
    print ".SS Options of " roff($0)
}
/^  --[a-z]/ {
    line = substr($0, 3)
    column = match(line, /  +[^ ]/)
    print ".TP\n.B " roff(column ? substr(line, 1, column - 1) : line)
    if (column) print roff(substr(line, column + RLENGTH - 1))
    taken = 1
    next
}
/^            +[^ ]/ && taken {
    sub(/^ +/, "")
    print roff($0)
    next
}
{ taken = 0 }
