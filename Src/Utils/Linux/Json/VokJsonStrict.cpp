// The JSON layer's own reader and writer over json-c values.
//
// The reader is strict: json-c's strict mode still lets through numbers with leading zeros
// ("00", "-01"), a bare trailing dot ("1."), NaN and Infinity, raw control characters in strings,
// integers beyond what it can hold (silently clamped) and numbers that overflow a double; the
// reader refuses all of these, so that what JsonToken reads is JSON by RFC 8259. It builds the
// json-c values itself, checking every allocation, because json-c's tokener is not safe when
// malloc fails (it reports success with values missing or emptied, or crashes). The values it
// builds are those json-c's tokener builds: the same integer kinds, doubles that keep their text,
// the same replacement of unpaired surrogates, names cut at an escaped NUL.
//
// The writer produces json-c's spaced encoding into a std::string, whose growth throws
// std::bad_alloc where json-c's printbuf would silently drop what it could not append.
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"

namespace vok {

namespace {

struct Release {
    void operator()(json_object* value) const { json_object_put(value); }
};
// A value being built; freed, with everything already added to it, when reading stops.
using Owned = std::unique_ptr<json_object, Release>;

json_object* Allocated(json_object* value) {
    if (value == nullptr) {
        throw std::bad_alloc();
    }
    return value;
}

// U+FFFD, which json-c puts in place of a surrogate that has no partner.
const char kReplacement[] = "\xEF\xBF\xBD";

void AppendUtf8(unsigned long code, std::string* out) {
    if (code < 0x80) {
        out->push_back(static_cast<char>(code));
        return;
    }
    char bytes[4];
    size_t count = code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    for (size_t i = count - 1; i > 0; --i, code >>= 6) {
        bytes[i] = static_cast<char>(0x80 | (code & 0x3F));
    }
    bytes[0] = static_cast<char>((count == 2 ? 0xC0 : count == 3 ? 0xE0 : 0xF0) | code);
    out->append(bytes, count);
}

class Reader {
  public:
    // build: make the json-c values. Else only the grammar is checked, and nesting is bounded a
    // little beyond json-c's limit, leaving the last word on depth to a json-c tokener behind.
    Reader(const char* text, size_t length, bool build)
        : p_(text),
          end_(text + length),
          build_(build),
          maxDepth_(build ? JSON_TOKENER_DEFAULT_DEPTH - 1 : JSON_TOKENER_DEFAULT_DEPTH + 1) {}

    // The whole text is one JSON value with optional white space around it.
    bool Document(Owned* value) {
        SkipSpace();
        if (!Value(0, value)) {
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

    // A value depth levels below the document's; a JSON null is left as no value at all.
    bool Value(int depth, Owned* out) {
        if (AtEnd() || depth > maxDepth_) {
            return false;
        }
        switch (*p_) {
            case '{':
            case '[':
                return Members(depth, out);
            case '"': {
                std::string text;
                if (!String(&text)) {
                    return false;
                }
                if (build_) {
                    out->reset(Allocated(
                        json_object_new_string_len(text.data(), static_cast<int>(text.size()))));
                }
                return true;
            }
            case 't':
            case 'f': {
                const bool truth = *p_ == 't';
                if (!Literal(truth ? "true" : "false")) {
                    return false;
                }
                if (build_) {
                    out->reset(Allocated(json_object_new_boolean(truth ? 1 : 0)));
                }
                return true;
            }
            case 'n':
                return Literal("null");
            default:
                return Number(out);
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

    // An object ("name": value members) or an array, from its opening bracket to its close.
    bool Members(int depth, Owned* out) {
        const bool keyed = *p_++ == '{';
        const char close = keyed ? '}' : ']';
        if (build_) {
            out->reset(Allocated(keyed ? json_object_new_object() : json_object_new_array()));
        }
        SkipSpace();
        if (Take(close)) {
            return true;
        }
        std::string name;
        for (;;) {
            SkipSpace();
            if (keyed) {
                name.clear();
                if (AtEnd() || *p_ != '"' || !String(&name)) {
                    return false;
                }
                SkipSpace();
                if (!Take(':')) {
                    return false;
                }
                SkipSpace();
            }
            Owned element;
            if (!Value(depth + 1, &element)) {
                return false;
            }
            // The name is copied up to an escaped NUL, as json-c's tokener keeps it. On failure
            // json-c has not taken the element.
            if (build_ && (keyed ? JsonObjectAdd(out->get(), name.c_str(), element.get())
                                 : json_object_array_add(out->get(), element.get())) != 0) {
                throw std::bad_alloc();
            }
            element.release();
            SkipSpace();
            if (Take(close)) {
                return true;
            }
            if (!Take(',')) {
                return false;
            }
        }
    }

    static int HexValue(char c) {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    }

    // A high surrogate not followed by its low half stands for U+FFFD.
    static void FlushHigh(unsigned long* high, std::string* text) {
        if (*high != 0) {
            text->append(kReplacement);
            *high = 0;
        }
    }

    // A string into text, unescaped: the escapes, no raw control characters, and UTF-8 by the
    // same rule the writer applies (json-c's own check lets overlong forms through).
    bool String(std::string* text) {
        const char* start = ++p_;  // after '"'
        unsigned long high = 0;
        while (!AtEnd()) {
            const char* run = p_;
            while (!AtEnd() && *p_ != '"' && *p_ != '\\' &&
                   static_cast<unsigned char>(*p_) >= 0x20) {
                ++p_;
            }
            if (p_ != run) {
                FlushHigh(&high, text);
                text->append(run, p_);
            }
            if (AtEnd() || static_cast<unsigned char>(*p_) < 0x20) {
                return false;
            }
            if (*p_++ == '"') {
                FlushHigh(&high, text);
                return JsonIsUtf8(start, static_cast<size_t>(p_ - 1 - start));
            }
            if (AtEnd()) {
                return false;
            }
            const char escape = *p_++;
            if (escape != 'u') {
                static const char kEscapes[] = "\"\\/bfnrt";
                static const char kMeanings[] = "\"\\/\b\f\n\r\t";
                const void* found = std::memchr(kEscapes, escape, sizeof kEscapes - 1);
                if (found == nullptr) {
                    return false;
                }
                FlushHigh(&high, text);
                text->push_back(kMeanings[static_cast<const char*>(found) - kEscapes]);
                continue;
            }
            unsigned long code = 0;
            for (int i = 0; i < 4; ++i) {
                const int digit = AtEnd() ? -1 : HexValue(*p_++);
                if (digit < 0) {
                    return false;
                }
                code = code << 4 | static_cast<unsigned long>(digit);
            }
            if (high != 0 && code >= 0xDC00 && code <= 0xDFFF) {
                code = 0x10000 + ((high - 0xD800) << 10) + (code - 0xDC00);
                high = 0;
            }
            FlushHigh(&high, text);
            if (code >= 0xD800 && code <= 0xDBFF) {
                high = code;
            } else if (code >= 0xDC00 && code <= 0xDFFF) {
                text->append(kReplacement);
            } else {
                AppendUtf8(code, text);
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

    // -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?, and a value json-c holds exactly:
    // an integer in int64_t (or uint64_t when positive) or a finite double, which keeps its
    // text for writing.
    bool Number(Owned* out) {
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
        const std::string number(start, p_);
        errno = 0;
        json_object* value = nullptr;
        if (!integer) {
            const double real = std::strtod(number.c_str(), nullptr);
            if (!std::isfinite(real)) {
                return false;
            }
            value = build_ ? json_object_new_double_s(real, number.c_str()) : nullptr;
        } else if (number[0] == '-') {
            const long long whole = std::strtoll(number.c_str(), nullptr, 10);
            if (errno == ERANGE) {
                return false;
            }
            value = build_ ? json_object_new_int64(whole) : nullptr;
        } else {
            const unsigned long long whole = std::strtoull(number.c_str(), nullptr, 10);
            if (errno == ERANGE) {
                return false;
            }
            if (build_) {
                value = whole <= static_cast<unsigned long long>(INT64_MAX)
                            ? json_object_new_int64(static_cast<int64_t>(whole))
                            : json_object_new_uint64(whole);
            }
        }
        if (build_) {
            out->reset(Allocated(value));
        }
        return true;
    }

    const char* p_;
    const char* const end_;
    const bool build_;
    const int maxDepth_;
};

bool IsContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

void AppendQuoted(const char* text, size_t length, std::string* out) {
    static const char kSpecial[] = "\b\n\r\t\f\"\\/";
    static const char* const kEscaped[] = {"\\b", "\\n",  "\\r",  "\\t",
                                           "\\f", "\\\"", "\\\\", "\\/"};
    out->push_back('"');
    const char* const end = text + length;
    while (text != end) {
        const char* run = text;
        while (text != end && static_cast<unsigned char>(*text) >= 0x20 && *text != '"' &&
               *text != '\\' && *text != '/') {
            ++text;
        }
        out->append(run, text);
        if (text == end) {
            break;
        }
        const unsigned char c = static_cast<unsigned char>(*text++);
        const void* special = c != 0 ? std::memchr(kSpecial, c, sizeof kSpecial - 1) : nullptr;
        if (special != nullptr) {
            out->append(kEscaped[static_cast<const char*>(special) - kSpecial]);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out->append(escaped);
        }
    }
    out->push_back('"');
}

}  // namespace

bool JsonParse(const char* text, size_t length, json_object** value) {
    Owned built;
    if (!Reader(text, length, true).Document(&built)) {
        return false;
    }
    *value = built.release();
    return true;
}

bool JsonIsStrictDocument(const char* text, size_t length) {
    Owned nothing;
    return Reader(text, length, false).Document(&nothing);
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

int JsonObjectAdd(json_object* object, const char* name, json_object* value) {
    if (json_object_object_get_ex(object, name, nullptr) == 0) {
        // Entered first as a constant, which json-c does not copy, the name grows the table if
        // it must; then the real entry cannot need to.
        if (json_object_object_add_ex(
                object, name, nullptr,
                JSON_C_OBJECT_ADD_KEY_IS_NEW | JSON_C_OBJECT_ADD_CONSTANT_KEY) != 0) {
            return -1;
        }
        json_object_object_del(object, name);
    }
    return json_object_object_add(object, name, value);
}

const char* JsonWrite(json_object* value, std::string* out) {
    char number[32];
    switch (json_object_get_type(value)) {
        case json_type_null:
            out->append("null");
            return nullptr;
        case json_type_boolean:
            out->append(json_object_get_boolean(value) ? "true" : "false");
            return nullptr;
        case json_type_int:
            // A uint64_t above INT64_MAX reads as INT64_MAX through json_object_get_int64.
            if (json_object_get_int64(value) < 0) {
                std::snprintf(number, sizeof number, "%" PRId64, json_object_get_int64(value));
            } else {
                std::snprintf(number, sizeof number, "%" PRIu64, json_object_get_uint64(value));
            }
            out->append(number);
            return nullptr;
        case json_type_double: {
            // A parsed double keeps its text, as a written one does.
            if (const void* text = json_object_get_userdata(value)) {
                out->append(static_cast<const char*>(text));
                return nullptr;
            }
            const double real = json_object_get_double(value);
            if (!std::isfinite(real)) {
                return "not a finite number";
            }
            // Always with a '.' or an exponent, so that it reads back as a double.
            std::snprintf(number, sizeof number, "%.17g", real);
            if (char* comma = std::strchr(number, ',')) {
                *comma = '.';  // a locale's decimal comma
            }
            out->append(number);
            if (std::strpbrk(number, ".e") == nullptr) {
                out->append(".0");
            }
            return nullptr;
        }
        case json_type_string: {
            const char* text = json_object_get_string(value);
            const size_t length = static_cast<size_t>(json_object_get_string_len(value));
            if (!JsonIsUtf8(text, length)) {
                return "string is not UTF-8";
            }
            AppendQuoted(text, length, out);
            return nullptr;
        }
        case json_type_array: {
            out->push_back('[');
            const size_t length = json_object_array_length(value);
            for (size_t i = 0; i < length; ++i) {
                out->append(i == 0 ? " " : ", ");
                if (const char* why = JsonWrite(json_object_array_get_idx(value, i), out)) {
                    return why;
                }
            }
            out->append(" ]");
            return nullptr;
        }
        case json_type_object: {
            out->push_back('{');
            json_object_iterator it = json_object_iter_begin(value);
            const json_object_iterator end = json_object_iter_end(value);
            for (bool first = true; !json_object_iter_equal(&it, &end);
                 json_object_iter_next(&it), first = false) {
                const char* name = json_object_iter_peek_name(&it);
                const size_t length = std::strlen(name);
                if (!JsonIsUtf8(name, length)) {
                    return "name is not UTF-8";
                }
                out->append(first ? " " : ", ");
                AppendQuoted(name, length, out);
                out->append(": ");
                if (const char* why = JsonWrite(json_object_iter_peek_value(&it), out)) {
                    return why;
                }
            }
            out->append(" }");
            return nullptr;
        }
    }
    return nullptr;
}

}  // namespace vok
