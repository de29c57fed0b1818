/* The little JSON the library handles itself: the fixed replies it writes (error and status
 * replies) and the members it reads from payloads ("subscribe", "serviceName"). Everything is
 * built with GLib, which aborts rather than fail, so no reply comes out truncated or empty when
 * memory runs short. The reader takes what json-c's strict parser takes (one object, nesting at
 * most KV_JSON_MAX_DEPTH deep) and keeps nothing but the string values asked for. */
#include <string.h>

#include "kelvra-private.h"

#define KV_JSON_MAX_DEPTH 32

/* Appends text as a JSON string; text is UTF-8, which passes unchanged. */
static void AppendString(GString* out, const char* text) {
    g_string_append_c(out, '"');
    for (const unsigned char* c = (const unsigned char*)text; *c != '\0'; ++c) {
        switch (*c) {
            case '"':
                g_string_append(out, "\\\"");
                break;
            case '\\':
                g_string_append(out, "\\\\");
                break;
            case '\n':
                g_string_append(out, "\\n");
                break;
            case '\r':
                g_string_append(out, "\\r");
                break;
            case '\t':
                g_string_append(out, "\\t");
                break;
            default:
                if (*c < 0x20) {
                    g_string_append_printf(out, "\\u%04x", (unsigned)*c);
                } else {
                    g_string_append_c(out, (char)*c);
                }
        }
    }
    g_string_append_c(out, '"');
}

char* KvErrorPayload(int code, const char* text) {
    GString* out = g_string_sized_new(64);
    g_string_append_printf(out, "{\"returnValue\":false,\"errorCode\":%d,\"errorText\":", code);
    AppendString(out, text != NULL ? text : "");
    g_string_append_c(out, '}');
    return g_string_free(out, FALSE);
}

char* KvStatusPayload(const char* name, gboolean connected) {
    GString* out = g_string_sized_new(96);
    g_string_append(out, "{\"serviceName\":");
    AppendString(out, name);
    g_string_append_printf(out, ",\"connected\":%s,\"returnValue\":true}",
                           connected ? "true" : "false");
    return g_string_free(out, FALSE);
}

/* The reader: each function takes the text at *at, moves *at past what it read, and returns
 * FALSE on anything that is not JSON. */

static void SkipSpace(const char** at) {
    while (**at == ' ' || **at == '\t' || **at == '\n' || **at == '\r') {
        ++*at;
    }
}

static int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

/* The four hex digits of a \u escape. */
static gboolean ReadHex4(const char** at, gunichar* value) {
    *value = 0;
    for (int i = 0; i < 4; ++i) {
        const int digit = HexDigit((*at)[i]);
        if (digit < 0) {
            return FALSE;
        }
        *value = *value * 16 + (gunichar)digit;
    }
    *at += 4;
    return TRUE;
}

/* A string; decoded into out when out is not NULL (a \u0000 included: out->len tells). As in
 * json-c, control characters may stand unescaped, and a surrogate escape that is not half of a
 * pair stands for U+FFFD. */
static gboolean ReadString(const char** at, GString* out) {
    if (**at != '"') {
        return FALSE;
    }
    for (const char* c = *at + 1;;) {
        const unsigned char ch = (unsigned char)*c;
        if (ch == '"') {
            *at = c + 1;
            return TRUE;
        }
        if (ch == '\0') {
            return FALSE;
        }
        if (ch != '\\') {
            if (out != NULL) {
                g_string_append_c(out, (char)ch);
            }
            ++c;
            continue;
        }
        const char escape = c[1];
        if (escape == '\0') {
            return FALSE;
        }
        c += 2;
        const char* simple = strchr("\"\\/bfnrt", escape);
        if (simple != NULL) {
            if (out != NULL) {
                g_string_append_c(out, "\"\\/\b\f\n\r\t"[simple - "\"\\/bfnrt"]);
            }
            continue;
        }
        gunichar code = 0;
        if (escape != 'u' || !ReadHex4(&c, &code)) {
            return FALSE;
        }
        const char* next = c + 2;
        gunichar low = 0;
        if (code >= 0xD800 && code <= 0xDBFF && c[0] == '\\' && c[1] == 'u' &&
            ReadHex4(&next, &low) && low >= 0xDC00 && low <= 0xDFFF) {
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
            c = next;
        } else if (code >= 0xD800 && code <= 0xDFFF) {
            code = 0xFFFD;
        }
        if (out != NULL) {
            g_string_append_unichar(out, code);
        }
    }
}

static gboolean ReadDigits(const char** at) {
    if (!g_ascii_isdigit(**at)) {
        return FALSE;
    }
    while (g_ascii_isdigit(**at)) {
        ++*at;
    }
    return TRUE;
}

static gboolean ReadNumber(const char** at) {
    if (**at == '-') {
        ++*at;
    }
    if (**at == '0') {
        ++*at;
    } else if (!ReadDigits(at)) {
        return FALSE;
    }
    if (**at == '.') {
        ++*at;
        if (!ReadDigits(at)) {
            return FALSE;
        }
    }
    if (**at == 'e' || **at == 'E') {
        ++*at;
        if (**at == '+' || **at == '-') {
            ++*at;
        }
        return ReadDigits(at);
    }
    return TRUE;
}

static gboolean ReadValue(const char** at, int depth);

/* An object or an array (open is '{' or '['); in an object at the top, the value of the last
 * member called name is noted in *member. */
static gboolean ReadContainer(const char** at, int depth, const char* name, const char** member) {
    const char open = **at;
    const char close = open == '{' ? '}' : ']';
    if (depth > KV_JSON_MAX_DEPTH) {
        return FALSE;
    }
    ++*at;
    SkipSpace(at);
    if (**at == close) {
        ++*at;
        return TRUE;
    }
    GString* key = name != NULL ? g_string_new(NULL) : NULL;
    gboolean ok = TRUE;
    for (;;) {
        if (open == '{') {
            if (key != NULL) {
                g_string_truncate(key, 0);
            }
            ok = ReadString(at, key);
            SkipSpace(at);
            ok = ok && **at == ':';
            if (!ok) {
                break;
            }
            ++*at;
            SkipSpace(at);
            if (key != NULL && key->len == strlen(name) && strcmp(key->str, name) == 0) {
                *member = *at;
            }
        }
        ok = ReadValue(at, depth + 1);
        SkipSpace(at);
        if (!ok || **at != ',') {
            ok = ok && **at == close;
            *at += ok ? 1 : 0;
            break;
        }
        ++*at;
        SkipSpace(at);
    }
    if (key != NULL) {
        g_string_free(key, TRUE);
    }
    return ok;
}

static gboolean ReadValue(const char** at, int depth) {
    switch (**at) {
        case '{':
        case '[':
            return ReadContainer(at, depth, NULL, NULL);
        case '"':
            return ReadString(at, NULL);
        case 't':
        case 'f':
        case 'n': {
            static const char* const kLiterals[] = {"true", "false", "null"};
            for (size_t i = 0; i < G_N_ELEMENTS(kLiterals); ++i) {
                const size_t length = strlen(kLiterals[i]);
                if (strncmp(*at, kLiterals[i], length) == 0) {
                    *at += length;
                    return TRUE;
                }
            }
            return FALSE;
        }
        default:
            return ReadNumber(at);
    }
}

gboolean KvJsonReadObject(const char* text, const char* name, const char** member) {
    const char* at = text;
    *member = NULL;
    SkipSpace(&at);
    if (*at != '{' || !ReadContainer(&at, 1, name, member)) {
        *member = NULL;
        return FALSE;
    }
    SkipSpace(&at);
    if (*at != '\0') {
        *member = NULL;
        return FALSE;
    }
    return TRUE;
}

gboolean KvJsonIsTrue(const char* member) {
    return member != NULL && strncmp(member, "true", 4) == 0;
}

char* KvJsonGetString(const char* member) {
    GString* out = g_string_new(NULL);
    if (member == NULL || !ReadString(&member, out) || strlen(out->str) != out->len) {
        g_string_free(out, TRUE);
        return NULL;
    }
    return g_string_free(out, FALSE);
}
