#include "vok/ArgvMaker.h"

#include <glib.h>

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace vok {
namespace {

char* PrvStrDup(const char* text) {
    assert(text);
    char* copy = strdup(text);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}

void PrvStrFree(char* pStr) {
    assert(pStr);
    free(pStr);
}

// Frees the GLib vector and error if the constructor is left by an exception.
struct GlibParseHolder {
    char** argv = nullptr;
    GError* error = nullptr;
    ~GlibParseHolder() {
        if (argv != nullptr) {
            g_strfreev(argv);
        }
        if (error != nullptr) {
            g_error_free(error);
        }
    }
};

}  // namespace

ArgvMaker::ArgvMaker(const char* pCommandLine) {
    assert(pCommandLine);
    GlibParseHolder holder;
    gint count = 0;
    if (g_shell_parse_argv(pCommandLine, &count, &holder.argv, &holder.error)) {
        argc_ = count;
        ppArgv_ = holder.argv;
        holder.argv = nullptr;
        return;
    }
    if (holder.error != nullptr && holder.error->domain == G_SHELL_ERROR &&
        holder.error->code == G_SHELL_ERROR_EMPTY_STRING) {
        // An empty or blank command line is an empty argument list, not a failure.
        return;
    }
    if (holder.error != nullptr && holder.error->message != nullptr) {
        pErrorText_ = PrvStrDup(holder.error->message);
    } else {
        const std::string text =
            std::string("Unknown command-line parse error. (The text was: '") + pCommandLine + "')";
        pErrorText_ = PrvStrDup(text.c_str());
    }
    parseFailed_ = 1;
}

ArgvMaker::~ArgvMaker() {
    if (pErrorText_ != nullptr) {
        PrvStrFree(pErrorText_);
    }
    if (ppArgv_ != nullptr) {
        g_strfreev(ppArgv_);
    }
}

}  // namespace vok
