// The strict side of the JSON layer: a grammar check of documents before json-c parses them, and
// the check that a value can be written as JSON.
//
// json-c's strict mode still lets through numbers with leading zeros ("00", "-01"), a bare
// trailing dot ("1."), NaN and Infinity, raw control characters in strings, integers beyond what
// it can hold (silently clamped) and numbers that overflow a double. The scanner below refuses
// all of these, so that what JsonToken reads is JSON by RFC 8259 and what it writes back is too.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"

namespace vok {

namespace {

// json-c refuses deeper nesting than its default depth; the scanner stops a little further so
// that its recursion stays bounded and json-c still has the last word.
const int kMaxScanDepth = JSON_TOKENER_DEFAULT_DEPTH + 1;

class StrictScanner {
  public:
    StrictScanner(const char* text, size_t length) : p_(text), end_(text + length) {}

    // The whole text is one JSON value with optional white space around it.
    bool Document() {
        SkipSpace();
        if (!Value(0)) {
            return false;
        }
        SkipSpace();
        return p_ == end_;
    }

  private:
    bool AtEnd() const { return p_ == end_; }

    void SkipSpace() {
        while (!AtEnd() && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) {
            ++p_;
        }
    }

    bool Take(char c) {
        if (AtEnd() || *p_ != c) {
            return false;
        }
        ++p_;
        return true;
    }

    bool Value(int depth) {
        if (AtEnd() || depth > kMaxScanDepth) {
            return false;
        }
        switch (*p_) {
            case '{':
                return Members('}', true, depth + 1);
            case '[':
                return Members(']', false, depth + 1);
            case '"':
                return String();
            case 't':
                return Literal("true");
            case 'f':
                return Literal("false");
            case 'n':
                return Literal("null");
            default:
                return Number();
        }
    }

    bool Literal(const char* word) {
        for (; *word != '\0'; ++word) {
            if (!Take(*word)) {
                return false;
            }
        }
        return true;
    }

    // An object (keyed: "name": value members) or an array, from its opening bracket to close.
    bool Members(char close, bool keyed, int depth) {
        ++p_;  // '{' or '['
        SkipSpace();
        if (Take(close)) {
            return true;
        }
        for (;;) {
            SkipSpace();
            if (keyed) {
                if (AtEnd() || *p_ != '"' || !String()) {
                    return false;
                }
                SkipSpace();
                if (!Take(':')) {
                    return false;
                }
                SkipSpace();
            }
            if (!Value(depth)) {
                return false;
            }
            SkipSpace();
            if (Take(close)) {
                return true;
            }
            if (!Take(',')) {
                return false;
            }
        }
    }

    static bool IsHex(char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    }

    // The escapes, no raw control characters, and UTF-8 by the same rule the writer applies
    // (json-c's own check lets overlong forms through).
    bool String() {
        const char* start = ++p_;  // after '"'
        while (!AtEnd()) {
            const unsigned char c = static_cast<unsigned char>(*p_++);
            if (c == '"') {
                return JsonIsUtf8(start, static_cast<size_t>(p_ - 1 - start));
            }
            if (c < 0x20) {
                return false;
            }
            if (c != '\\') {
                continue;
            }
            if (AtEnd()) {
                return false;
            }
            const char escape = *p_++;
            if (escape == 'u') {
                for (int i = 0; i < 4; ++i) {
                    if (AtEnd() || !IsHex(*p_++)) {
                        return false;
                    }
                }
            } else if (escape != '"' && escape != '\\' && escape != '/' && escape != 'b' &&
                       escape != 'f' && escape != 'n' && escape != 'r' && escape != 't') {
                return false;
            }
        }
        return false;
    }

    bool Digits() {
        const char* start = p_;
        while (!AtEnd() && *p_ >= '0' && *p_ <= '9') {
            ++p_;
        }
        return p_ != start;
    }

    // -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?, and a value json-c holds exactly
    // as an integer or a finite double.
    bool Number() {
        const char* start = p_;
        Take('-');
        if (AtEnd() || *p_ < '0' || *p_ > '9') {
            return false;
        }
        if (!Take('0')) {
            Digits();
        }
        bool integer = true;
        if (Take('.')) {
            integer = false;
            if (!Digits()) {
                return false;
            }
        }
        if (Take('e') || Take('E')) {
            integer = false;
            if (!Take('+')) {
                Take('-');
            }
            if (!Digits()) {
                return false;
            }
        }
        return InRange(std::string(start, p_), integer);
    }

    // Integers json-c keeps in int64_t or, when positive, uint64_t; beyond that it clamps.
    static bool InRange(const std::string& number, bool integer) {
        errno = 0;
        if (!integer) {
            return std::isfinite(std::strtod(number.c_str(), nullptr));
        }
        if (number[0] == '-') {
            (void)std::strtoll(number.c_str(), nullptr, 10);
        } else {
            (void)std::strtoull(number.c_str(), nullptr, 10);
        }
        return errno != ERANGE;
    }

    const char* p_;
    const char* const end_;
};

bool IsContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

}  // namespace

bool JsonIsStrictDocument(const char* text, size_t length) {
    return StrictScanner(text, length).Document();
}

bool JsonIsUtf8(const char* text, size_t length) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    const unsigned char* const end = p + length;
    while (p < end) {
        const unsigned char c = *p++;
        if (c < 0x80) {
            continue;
        }
        // The lead byte says how many continuation bytes follow and what the smallest code
        // point of that length is.
        size_t more = 0;
        unsigned long code = 0;
        unsigned long min = 0;
        if ((c & 0xE0) == 0xC0) {
            more = 1;
            code = c & 0x1F;
            min = 0x80;
        } else if ((c & 0xF0) == 0xE0) {
            more = 2;
            code = c & 0x0F;
            min = 0x800;
        } else if ((c & 0xF8) == 0xF0) {
            more = 3;
            code = c & 0x07;
            min = 0x10000;
        } else {
            return false;
        }
        if (static_cast<size_t>(end - p) < more) {
            return false;
        }
        for (size_t i = 0; i < more; ++i, ++p) {
            if (!IsContinuation(*p)) {
                return false;
            }
            code = (code << 6) | (*p & 0x3F);
        }
        // Overlong forms, UTF-16 surrogates and code points past Unicode's last.
        if (code < min || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) {
            return false;
        }
    }
    return true;
}

const char* JsonFindUnwritable(json_object* value) {
    switch (json_object_get_type(value)) {
        case json_type_double:
            return std::isfinite(json_object_get_double(value)) ? nullptr : "not a finite number";
        case json_type_string:
            return JsonIsUtf8(json_object_get_string(value),
                              static_cast<size_t>(json_object_get_string_len(value)))
                       ? nullptr
                       : "string is not UTF-8";
        case json_type_array: {
            const size_t length = json_object_array_length(value);
            for (size_t i = 0; i < length; ++i) {
                if (const char* why = JsonFindUnwritable(json_object_array_get_idx(value, i))) {
                    return why;
                }
            }
            return nullptr;
        }
        case json_type_object: {
            json_object_iterator it = json_object_iter_begin(value);
            const json_object_iterator end = json_object_iter_end(value);
            for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) {
                const char* name = json_object_iter_peek_name(&it);
                if (!JsonIsUtf8(name, std::char_traits<char>::length(name))) {
                    return "name is not UTF-8";
                }
                if (const char* why = JsonFindUnwritable(json_object_iter_peek_value(&it))) {
                    return why;
                }
            }
            return nullptr;
        }
        default:
            return nullptr;
    }
}

}  // namespace vok
