# Doxygen input filter for the public headers. The headers keep plain comments; this filter shows
# Doxygen what a reader sees in them:
#   - a comment directly above a declaration documents it ("//" becomes "///", "/*" "/**");
#   - a comment above a run of declarations with no blank line or other comment between them
#     documents each of the run (a member group: "@{" at the comment's end, "@}" after the run).
#     Destructors, defaulted or deleted members and forward declarations end a run;
#   - a comment after a variable, field, constant or enumerator on its line documents it
#     ("//" becomes "///<", "/*" "/**<");
#   - the comment at the top of a header, above its include guard, documents the file.
# Other comments above preprocessor lines and comments followed by a blank line stay plain. No
# line is added or removed (a group after macros closes on the blank line that follows them), so
# warnings point at the source lines.
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
        if (depth == 0 && (text ~ /^[ \t]*$/ || line[k] ~ /^[ \t]*(\/\/|\/\*|}|~|virtual[ \t]+~|public:|private:|protected:)/ ||
                           (text ~ /^[ \t]*#/ && text !~ /^[ \t]*#[ \t]*define[ \t]/) ||
                           text ~ /=[ \t]*(default|delete)[ \t]*;/))
            break
        # A forward declaration is documented where its class is defined.
        if (k > first && text ~ /^[ \t]*(class|struct)[ \t]+[A-Za-z_][A-Za-z0-9_]*[ \t]*;/) break
        opens = gsub(/{/, "{", text)
        closes = gsub(/}/, "}", text)
        depth += opens - closes
        if (depth < 0) break
        if (depth == 0 && (text ~ /[;}][ \t]*$/ || text ~ /^[ \t]*#[ \t]*define[ \t]/)) {
            count++
            last = k
        }
    }
    return count >= 2 ? last : 0
}

# Turns the trailing comment of a declaration line ("TYPE NAME [= VALUE];" or "NAME [= VALUE],")
# into a member comment.
function trailing(k,    text) {
    text = line[k]
    if (text ~ /^[ \t]*(\/\/|\/\*|#|return[ \t])/) return
    if (text ~ /^[ \t]*[A-Za-z_][A-Za-z0-9_:<>, *&]*[ \t*&]+[A-Za-z_][A-Za-z0-9_]*(\[[^]]*\])?([ \t]*=[^;{]*)?;[ \t]*\/[\/*]/ ||
        text ~ /^[ \t]*[A-Za-z_][A-Za-z0-9_]*([ \t]*=[^,;{]*)?,[ \t]*\/[\/*]/) {
        if (!sub(/;[ \t]*\/\/[ \t]*/, "; ///< ", text) && !sub(/;[ \t]*\/\*[ \t]*/, "; /**< ", text) &&
            !sub(/,[ \t]*\/\/[ \t]*/, ", ///< ", text))
            sub(/,[ \t]*\/\*[ \t]*/, ", /**< ", text)
        line[k] = text
    }
}

# Ends the group at line k. A macro cannot carry the marker on its line: it goes on the blank
# line after it, and without one there is no group (returns 0).
function close_group(k,    at) {
    if (line[k] ~ /^[ \t]*#/) {
        if (k == NR || line[k + 1] !~ /^[ \t]*$/) return 0
        line[k + 1] = "/** @} */"
        return 1
    }
    if (sub(/\/\/\/<.*$/, "/**&", line[k])) {
        sub(/\/\*\*\/\/\/</, "/**<", line[k])
        line[k] = line[k] " */ /** @} */"
        return 1
    }
    at = index(line[k], "//")
    if (at > 0)
        line[k] = substr(line[k], 1, at - 1) "/** @} */ " substr(line[k], at)
    else
        line[k] = line[k] " /** @} */"
    return 1
}

END {
    for (i = 1; i <= NR; i++) trailing(i)
    i = 1
    if (line[1] ~ /^\/\/([^\/!]|$)/) {
        for (j = 1; j + 1 <= NR && line[j + 1] ~ /^\/\/([^\/!]|$)/; j++) sub(/\/\//, "///", line[j])
        sub(/\/\//, "///", line[j])
        line[j] = line[j] " @file"
        i = j + 1
    } else if (line[1] ~ /^\/\*([^*!]|$)/) {
        sub(/\/\*/, "/**", line[1])
        for (j = 1; j < NR && line[j] !~ /\*\//; j++) ;
        sub(/\*\/[ \t]*$/, "@file */", line[j])
        i = j + 1
    }
    while (i <= NR) {
        if (line[i] ~ /^[ \t]*\/\/([^\/!]|$)/) {
            j = i
            while (j + 1 <= NR && line[j + 1] ~ /^[ \t]*\/\/([^\/!]|$)/) j++
            if (j < NR && documents(line[j + 1])) {
                for (k = i; k <= j; k++) sub(/\/\//, "///", line[k])
                last = run_end(j + 1)
                if (last && close_group(last)) line[j] = line[j] " @{"
            }
            i = j + 1
        } else if (line[i] ~ /^[ \t]*\/\*([^*!]|$)/) {
            j = i
            while (j < NR && line[j] !~ /\*\//) j++
            if (j < NR && documents(line[j + 1])) {
                sub(/\/\*/, "/**", line[i])
                last = run_end(j + 1)
                if (last && close_group(last)) sub(/\*\/[ \t]*$/, "@{ */", line[j])
            }
            i = j + 1
        } else {
            i++
        }
    }
    for (i = 1; i <= NR; i++) print line[i]
}
