# Encloses a code span with an apostrophe in double backticks: doxygen would take the single backtick for a quotation
# mark. Prevents a link from `!Mem::...`.
/^```/ { in_fence = !in_fence }
in_fence || /^(```.*)?$/ { in_code = 0; print; next }
{
    count = split($0, part, "`")
    line = part[1]
    for (i = 2; i <= count; i++) {
        in_code = !in_code # part i is code
        sub(/^!Mem::/, "!Mem::%", part[i])
        is_double = in_code ? i < count && part[i] ~ /'/ : is_double
        line = line (is_double ? "``" : "`") part[i]
    }
    print line
}
