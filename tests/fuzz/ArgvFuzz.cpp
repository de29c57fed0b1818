// ArgvMaker: a failure has a message and no vector, a success argc arguments and a NULL (no
// vector when empty); every vector, quoted back into a line, splits into the same vector.
#include <glib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vok/ArgvMaker.h"

namespace {

[[noreturn]] void Fail(const char* what, const std::string& line) {
    std::fprintf(stderr, "ArgvFuzz: %s: <%s>\n", what, line.c_str());
    std::abort();
}

// Returns argc.
int CheckShape(const vok::ArgvMaker& maker, const std::string& line) {
    if (maker.ParseFailed() != 0) {
        if (maker.ErrorText() == nullptr || maker.Argv() != nullptr || maker.Argc() != 0) {
            Fail("a failed parse left a vector or no message", line);
        }
        return 0;
    }
    const int argc = maker.Argc();
    if (maker.ErrorText() != nullptr || argc < 0 || (argc == 0) != (maker.Argv() == nullptr)) {
        Fail("a parse that worked has an error text, or a vector that does not fit argc", line);
    }
    for (int i = 0; i <= argc && argc > 0; ++i) {
        if ((maker.Argv()[i] == nullptr) != (i == argc)) {
            Fail("the vector is not argc non-NULL arguments and a NULL", line);
        }
    }
    return argc;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    const vok::ArgvMaker maker(line.c_str());
    const int argc = CheckShape(maker, line);
    if (argc == 0) {
        return 0;
    }
    std::string quoted;
    for (int i = 0; i < argc; ++i) {
        gchar* word = g_shell_quote(maker.Argv()[i]);
        quoted += (i > 0 ? " " : "") + std::string(word);
        g_free(word);
    }
    const vok::ArgvMaker again(quoted.c_str());
    if (CheckShape(again, quoted) != argc) {
        Fail("the quoted vector splits into another count", quoted);
    }
    for (int i = 0; i < argc; ++i) {
        if (std::string(maker.Argv()[i]) != again.Argv()[i]) {
            Fail("the quoted vector splits into other words", quoted);
        }
    }
    return 0;
}
