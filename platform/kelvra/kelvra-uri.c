/* URIs and method names. */
#include <string.h>

#include "kelvra-private.h"

#define KV_URI_SCHEME "kelvra://"

/* D-Bus bus names: at most 255 characters, at least two dot-separated elements of
 * [A-Za-z0-9_-]; a well-known name's elements do not start with a digit, a unique name starts
 * with ':'. */
static gboolean IsNameOf(const char* name, gboolean unique) {
    const size_t length = name != NULL ? strlen(name) : 0;
    if (length == 0 || length > 255) {
        return FALSE;
    }
    int elements = 1;
    gboolean elementStart = TRUE;
    for (const char* c = name; *c != '\0'; ++c) {
        if (*c == '.') {
            if (elementStart) {
                return FALSE;
            }
            ++elements;
            elementStart = TRUE;
            continue;
        }
        if (!g_ascii_isalnum(*c) && *c != '_' && *c != '-') {
            return FALSE;
        }
        if (elementStart && !unique && g_ascii_isdigit(*c)) {
            return FALSE;
        }
        elementStart = FALSE;
    }
    return !elementStart && elements >= 2;
}

gboolean KvIsServiceName(const char* name) {
    return IsNameOf(name, FALSE);
}

gboolean KvIsBusName(const char* name) {
    return name != NULL && (name[0] == ':' ? IsNameOf(name + 1, TRUE) : IsNameOf(name, FALSE));
}

/* [A-Za-z_][A-Za-z0-9_]*, at most 255 characters. */
static gboolean IsMemberName(const char* name) {
    if (name[0] == '\0' || g_ascii_isdigit(name[0]) || strlen(name) > 255) {
        return FALSE;
    }
    for (const char* c = name; *c != '\0'; ++c) {
        if (!g_ascii_isalnum(*c) && *c != '_') {
            return FALSE;
        }
    }
    return TRUE;
}

/* An element of an object path: one or more of [A-Za-z0-9_]. */
static gboolean IsPathElement(const char* begin, const char* end) {
    if (begin == end) {
        return FALSE;
    }
    for (const char* c = begin; c < end; ++c) {
        if (!g_ascii_isalnum(*c) && *c != '_') {
            return FALSE;
        }
    }
    return TRUE;
}

gboolean KvSplitMethod(const char* method, char** path, char** member) {
    const char* last = strrchr(method, '/');
    const char* name = last != NULL ? last + 1 : method;
    if (!IsMemberName(name)) {
        return FALSE;
    }
    for (const char* begin = method; last != NULL && begin <= last;) {
        const char* end = strchr(begin, '/');
        if (!IsPathElement(begin, end)) {
            return FALSE;
        }
        begin = end + 1;
    }
    *path = last != NULL ? g_strconcat("/", method, NULL) : g_strdup("/");
    if (last != NULL) {
        (*path)[last - method + 1] = '\0';
    }
    *member = g_strdup(name);
    return TRUE;
}

gboolean KvParseUri(const char* uri, char** service, char** path, char** member) {
    if (uri == NULL || strncmp(uri, KV_URI_SCHEME, strlen(KV_URI_SCHEME)) != 0) {
        return FALSE;
    }
    const char* start = uri + strlen(KV_URI_SCHEME);
    const char* slash = strchr(start, '/');
    if (slash == NULL) {
        return FALSE;
    }
    char* name = g_strndup(start, (gsize)(slash - start));
    if (!KvIsServiceName(name) || !KvSplitMethod(slash + 1, path, member)) {
        g_free(name);
        return FALSE;
    }
    *service = name;
    return TRUE;
}

char* KvMethodKey(const char* path, const char* member) {
    if (path == NULL || member == NULL) {
        return NULL;
    }
    if (strcmp(path, "/") == 0) {
        return g_strdup(member);
    }
    return g_strconcat(path + 1, "/", member, NULL);
}
