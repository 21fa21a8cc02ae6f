# Converts the headers' comments for doxygen: `//` becomes `///`, or `///<` after a declaration. The first comment of a
# file becomes the file's page. Lines indented by three spaces become code. A comment documents all declarations below it
# up to an empty line, another comment, or a declaration with a comment of its own; each declaration gets a copy.
# Comments inside function bodies are not changed. A part of a contract ("Fails: ...") becomes a paragraph; its further
# lines may be indented.
function say(prefix, text)
{
    if (text ~ /^ (Returns|Fails|Lock|Invalidates|Cost|Page|Values): /) {
        in_part = 1
        sub(/: +/, ": ", text)
        said = said prefix "\n"
    } else if (in_part && text ~ /^   /)
        sub(/^ +/, " ", text)
    else
        in_part = 0
    if (text ~ /^   / && !in_code)
        said = said prefix "\n"
    if (text ~ /^   /)
        text = "   " text
    in_code = text ~ /^   /
    said = said prefix text "\n"
}
NR == 1 && /^\/\// { printf "/// \\file\n"; is_head = 1 }
/^(    )?\/\/( |$)/ {
    if (!in_comment)
        said = ""
    in_comment = 1
    match($0, /^ *\/\//)
    say(substr($0, 1, RLENGTH) "/", substr($0, RLENGTH + 1))
    next
}
{
    if (in_comment)
        printf "%s", said
    else if (said != "" && is_end && /^(    )?[A-Za-z_].*[;,(){>]|^#define [A-Z_]+ [0-9]+$/ &&
             !/ \/\/ / && !/^ *(public|private|protected|class|struct|enum|namespace)/)
        printf "%s", said
    in_comment = in_code = in_part = 0
    is_end = /[;}] *(\/\/.*)?$|^#define [A-Z_]+ [0-9]+$/
    if (/^(class|struct|enum|namespace)/)
        is_type = 1
    if (/^$/ || is_head || (/^\{/ && is_type))
        said = is_type = ""
    is_head = 0
}
/^(    )?[^ ].*[;,}] +\/\/ / { sub(/ \/\/ /, " ///< ") }
{ print }
