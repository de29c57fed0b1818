// Splits one command-line text into an argument vector with shell quoting rules.
#ifndef VOK_ARGVMAKER_H
#define VOK_ARGVMAKER_H

#include <cstdint>

namespace vok {

// Turns a command line into argc/argv with shell-style quoting (g_shell_parse_argv). An empty
// or blank text gives an empty list and is not a failure; any other parse error sets the
// failure flag and an error text instead of throwing. Owns the vector and the text, which live
// as long as the object. Use on one thread; not copyable.
class ArgvMaker {
  public:
    // commandLine must not be NULL.
    explicit ArgvMaker(const char* commandLine);
    ~ArgvMaker();
    ArgvMaker(const ArgvMaker&) = delete;
    ArgvMaker& operator=(const ArgvMaker&) = delete;

    // 1 when the text could not be parsed.
    uint32_t ParseFailed() const { return parseFailed_; }
    // Why the parse failed, or NULL.
    const char* ErrorText() const { return pErrorText_; }
    // Null-terminated argument vector, or NULL when the parse failed or the text was empty.
    char** Argv() const { return ppArgv_; }
    int32_t Argc() const { return argc_; }

  private:
    uint32_t parseFailed_ = 0;
    char* pErrorText_ = nullptr;
    char** ppArgv_ = nullptr;
    int32_t argc_ = 0;
};

}  // namespace vok

#endif  // VOK_ARGVMAKER_H
