# Doxygen input filter for the public headers. The headers keep plain comments; this filter shows
# Doxygen what a reader sees in them:
#   - a comment directly above a declaration documents it ("//" becomes "///", "/*" "/**");
#   - a comment above a run of declarations with no blank line or other comment between them
#     documents each of the run (a member group: "@{" at the comment's end, "@}" after the run).
#     Destructors and defaulted or deleted members end a run.
# Comments above preprocessor lines (file comments, include guards) and comments followed by a
# blank line stay plain. No line is added or removed, so warnings point at the source lines.
{ line[NR] = $0 }

function documents(text) {
    if (text ~ /^[ \t]*$/) return 0
    if (text ~ /^[ \t]*#/ && text !~ /^[ \t]*#[ \t]*define[ \t]/) return 0
    if (text ~ /^[ \t]*(}|public:|private:|protected:)/) return 0
    return 1
}

# The code of a line without a trailing "//" comment.
function code(text) {
    sub(/[ \t]*\/\/.*$/, "", text)
    return text
}

# The last line of the run of declarations starting at first, or 0 when it holds fewer than two.
function run_end(first,    k, depth, text, opens, closes, count, last) {
    depth = 0
    count = 0
    last = 0
    for (k = first; k <= NR; k++) {
        text = code(line[k])
        if (depth == 0 && (text ~ /^[ \t]*$/ || line[k] ~ /^[ \t]*(\/\/|\/\*|#|}|~|public:|private:|protected:)/ ||
                           text ~ /=[ \t]*(default|delete)[ \t]*;/))
            break
        opens = gsub(/{/, "{", text)
        closes = gsub(/}/, "}", text)
        depth += opens - closes
        if (depth < 0) break
        if (depth == 0 && text ~ /[;}][ \t]*$/) {
            count++
            last = k
        }
    }
    return count >= 2 ? last : 0
}

function close_group(k,    at) {
    at = index(line[k], "//")
    if (at > 0)
        line[k] = substr(line[k], 1, at - 1) "/** @} */ " substr(line[k], at)
    else
        line[k] = line[k] " /** @} */"
}

END {
    i = 1
    while (i <= NR) {
        if (line[i] ~ /^[ \t]*\/\/([^\/!]|$)/) {
            j = i
            while (j + 1 <= NR && line[j + 1] ~ /^[ \t]*\/\/([^\/!]|$)/) j++
            if (j < NR && documents(line[j + 1])) {
                for (k = i; k <= j; k++) sub(/\/\//, "///", line[k])
                last = run_end(j + 1)
                if (last) {
                    line[j] = line[j] " @{"
                    close_group(last)
                }
            }
            i = j + 1
        } else if (line[i] ~ /^[ \t]*\/\*([^*!]|$)/) {
            j = i
            while (j < NR && line[j] !~ /\*\//) j++
            if (j < NR && documents(line[j + 1])) {
                sub(/\/\*/, "/**", line[i])
                last = run_end(j + 1)
                if (last) {
                    sub(/\*\/[ \t]*$/, "@{ */", line[j])
                    close_group(last)
                }
            }
            i = j + 1
        } else {
            i++
        }
    }
    for (i = 1; i <= NR; i++) print line[i]
}
