#include "Src/Console/MmTests.h"

#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace voktests {

namespace {

// strtoll or strtoull over the whole of text, without overflow.
template <typename T>
bool ParseWhole(const char* text, int base, T (*parse)(const char*, char**, int), T* value) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    *value = parse(text, &end, base);
    return errno == 0 && *end == '\0';
}

}  // namespace

bool NextSignedArg(long min, long max, long* value) {
    long long parsed;
    if (!ParseWhole(next_arg(), 10, &std::strtoll, &parsed) || parsed < min || parsed > max) {
        return false;
    }
    *value = static_cast<long>(parsed);
    return true;
}

bool NextUnsignedArg(unsigned long max, unsigned long* value) {
    const char* text = next_arg();
    unsigned long long parsed;
    // strtoull accepts a sign and negates; a count never has one.
    if (text == nullptr || *text == '-' || *text == '+' ||
        !ParseWhole(text, 10, &std::strtoull, &parsed) || parsed > max) {
        return false;
    }
    *value = static_cast<unsigned long>(parsed);
    return true;
}

bool NextAddressArg(void** address) {
    unsigned long long parsed;
    if (!ParseWhole(next_arg(), 16, &std::strtoull, &parsed) || parsed > UINTPTR_MAX) {
        return false;
    }
    *address = reinterpret_cast<void*>(static_cast<uintptr_t>(parsed));
    return true;
}

bool Require(const void* state, const char* complaint) {
    if (state == nullptr) {
        std::puts(complaint);
        return false;
    }
    return true;
}

bool NextArgIs(const char* word) {
    const char* arg = next_arg();
    return arg != nullptr && strcasecmp(arg, word) == 0;
}

void ReportProgress(unsigned long done) {
    if (done % kProgressInterval == 0) {
        std::printf("progress %lu...\n", done);
    }
}

void ReportCountAfterAdding(long before, long added, long now) {
    if (now == before + added) {
        std::printf("New element count is %ld as expected, after %ld added.\n", now, added);
    } else {
        std::printf("ERROR: element count is %ld after %ld added to %ld.\n", now, added, before);
    }
}

void MmTestsInstall(InteractiveTestManager& manager) {
    MmTestsMessageMoverFramework::Install(manager);
    MmTestsIntrusiveList::Install(manager);
    MmTestsSerialGenerator::Install(manager);
}

void MmTestsRelease() {
    MmTestsMessageMoverFramework::Release();
    MmTestsIntrusiveList::Release();
    MmTestsSerialGenerator::Release();
}

}  // namespace voktests
