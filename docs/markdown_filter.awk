# Gives a code span with an apostrophe in it double backticks: doxygen would take the first one for a quotation mark. And
# an expression that begins with ! is no link to what it calls.
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
