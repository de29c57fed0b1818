// The sweep program's allocator (see AllocFailure.h); otherwise the C library's or sanitizer's.
#include "AllocFailure.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VOK_OOM_REPLACES_MALLOC 0
#define RawMalloc std::malloc
#define RawFree std::free
static void* RawMemalign(size_t alignment, size_t size) {
    void* block = nullptr;
    return posix_memalign(&block, alignment, size) == 0 ? block : nullptr;
}
#else
#define VOK_OOM_REPLACES_MALLOC 1
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}
#define RawMalloc __libc_malloc
#define RawFree __libc_free
#define RawMemalign __libc_memalign
#endif

namespace vok {
namespace test {
namespace oom {
namespace {

std::atomic<int> gMode{0};  // 0: disarmed; 1: the arming thread counts; 2: every thread counts.
std::atomic<uint64_t> gCounted{0}, gInjected{0}, gFailFirst{0};
std::atomic<uint64_t> gFailEnd{0};  // One past the last failing request.
std::atomic<const void*> gFirstFailureCaller{nullptr};
__thread bool tArmed = false;
// Set while the C library works for GLib (g_strdup_printf's vasprintf): its requests are GLib's.
__thread bool tForGlib = false;
// Where GLib is loaded: requests made from there are not counted.
uintptr_t gGlibBegin = UINTPTR_MAX, gGlibEnd = 0;

int CollectGlib(struct dl_phdr_info* info, size_t, void*) {
    for (int i = 0; info->dlpi_name != nullptr && std::strstr(info->dlpi_name, "libglib-2.0") &&
                    i < info->dlpi_phnum;
         ++i) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        const uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
        if (segment.p_type == PT_LOAD) {
            gGlibBegin = std::min(gGlibBegin, begin);
            gGlibEnd = std::max(gGlibEnd, begin + segment.p_memsz);
        }
    }
    return 0;
}

bool FromGlib(const void* caller) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(caller);
    return address >= gGlibBegin && address < gGlibEnd;
}

bool Counts(const void* caller) {
    const int mode = gMode.load(std::memory_order_relaxed);
    if (mode == 0 || (mode == 1 && !tArmed) || tForGlib) {
        return false;
    }
    return !FromGlib(caller);
}

// Recorded blocks: an open-addressing set in mmap'ed memory, used slots listed for the reset.
struct Slot {
    uintptr_t block;  // 0: never used; 1: freed.
    const void* caller;
    size_t size;
};
constexpr size_t kSlots = size_t(1) << 18;
Slot* gSlots = nullptr;
uint32_t* gUsed = nullptr;
size_t gUsedCount = 0;
std::atomic<size_t> gLive{0};  // Changed under gSlotLock.
std::atomic_flag gSlotLock = ATOMIC_FLAG_INIT;

struct SlotLock {
    SlotLock() {
        while (gSlotLock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~SlotLock() { gSlotLock.clear(std::memory_order_release); }
};

size_t SlotOf(uintptr_t block) {
    return static_cast<size_t>((block >> 4) * 0x9E3779B1u) & (kSlots - 1);
}

void Record(void* block, size_t size, const void* caller) {
    SlotLock lock;
    if (gUsedCount >= kSlots / 2) {
        std::fputs("AllocFailure: too many live blocks to record\n", stderr);
        std::abort();
    }
    size_t i = SlotOf(reinterpret_cast<uintptr_t>(block));
    while (gSlots[i].block > 1) {
        i = (i + 1) & (kSlots - 1);
    }
    if (gSlots[i].block == 0) {
        gUsed[gUsedCount++] = static_cast<uint32_t>(i);
    }
    gSlots[i] = {reinterpret_cast<uintptr_t>(block), caller, size};
    ++gLive;
}

bool Forget(void* block) {
    if (block == nullptr || gSlots == nullptr) {
        return false;
    }
    SlotLock lock;
    const uintptr_t key = reinterpret_cast<uintptr_t>(block);
    for (size_t i = SlotOf(key); gSlots[i].block != 0; i = (i + 1) & (kSlots - 1)) {
        if (gSlots[i].block == key) {
            gSlots[i].block = 1;
            --gLive;
            return true;
        }
    }
    return false;
}

// Numbers a counted request; true when it must fail.
bool NextFails(const void* caller) {
    const uint64_t index = gCounted.fetch_add(1, std::memory_order_relaxed) + 1;
    const uint64_t first = gFailFirst.load(std::memory_order_relaxed);
    if (first == 0 || index < first || index >= gFailEnd.load(std::memory_order_relaxed)) {
        return false;
    }
    if (gInjected.fetch_add(1, std::memory_order_relaxed) == 0) {
        gFirstFailureCaller.store(caller, std::memory_order_relaxed);
    }
    return true;
}

template <typename Allocate>
void* Obtain(size_t size, const void* caller, Allocate allocate) {
    if (!Counts(caller)) {
        return allocate();
    }
    if (NextFails(caller)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* block = allocate();
    if (block != nullptr) {
        Record(block, size, caller);
    }
    return block;
}

void Release(void* block) {
    if (gMode.load(std::memory_order_relaxed) != 0 || gLive.load(std::memory_order_relaxed) != 0) {
        Forget(block);
    }
    RawFree(block);
}

// operator new: retries through the new handler; then throws, or returns NULL when nothrow.
void* NewBlock(size_t size, size_t alignment, const void* caller, bool nothrow) {
    size = size == 0 ? 1 : size;
    for (;;) {
        void* block = Obtain(size, caller, [&] {
            return alignment != 0 ? RawMemalign(alignment, size) : RawMalloc(size);
        });
        if (block != nullptr) {
            return block;
        }
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr && nothrow) {
            return nullptr;
        }
        if (handler == nullptr) {
            throw std::bad_alloc();
        }
        handler();
    }
}

std::string DescribeCaller(const void* caller) {
    Dl_info info;
    const bool found = dladdr(caller, &info) != 0;
    char text[512];
    std::snprintf(text, sizeof text, "%p %s (%s)", caller,
                  found && info.dli_sname != nullptr ? info.dli_sname : "?",
                  found && info.dli_fname != nullptr ? info.dli_fname : "?");
    return text;
}

}  // namespace

void Arm(ArmScope scope, uint64_t firstFailure, uint32_t failCount) {
    if (gSlots == nullptr) {
        void* slots = mmap(nullptr, kSlots * (sizeof(Slot) + sizeof(uint32_t)),
                           PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (slots == MAP_FAILED) {
            std::abort();
        }
        gSlots = static_cast<Slot*>(slots);
        gUsed = reinterpret_cast<uint32_t*>(gSlots + kSlots);
    }
    if (gGlibEnd == 0) {
        dl_iterate_phdr(CollectGlib, nullptr);
    }
    {
        SlotLock lock;
        for (size_t i = 0; i < gUsedCount; ++i) {
            gSlots[gUsed[i]].block = 0;
        }
        gUsedCount = 0;
        gLive = 0;
    }
    gCounted.store(0);
    gInjected.store(0);
    gFirstFailureCaller.store(nullptr);
    gFailFirst.store(firstFailure);
    gFailEnd.store(failCount == kFailForever ? UINT64_MAX : firstFailure + failCount);
    tArmed = true;
    gMode.store(scope == ArmScope::kAllThreads ? 2 : 1);
}

uint64_t Disarm() {
    gMode.store(0);
    tArmed = false;
    return gCounted.load();
}

uint64_t InjectedFailures() {
    return gInjected.load();
}

size_t LiveBlocks() {
    SlotLock lock;
    return gLive;
}

std::string DescribeFirstFailure() {
    const void* caller = gFirstFailureCaller.load();
    return caller != nullptr ? DescribeCaller(caller) : std::string("none");
}

std::string DescribeLiveBlocks(size_t limit) {
    // Copied out first: formatting allocates, and freeing under the lock would deadlock.
    Slot found[32];
    size_t count = 0;
    {
        SlotLock lock;
        for (size_t i = 0; i < gUsedCount && count < limit && count < 32; ++i) {
            if (gSlots[gUsed[i]].block > 1) {
                found[count++] = gSlots[gUsed[i]];
            }
        }
    }
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += "  " + std::to_string(found[i].size) + " bytes from " +
                DescribeCaller(found[i].caller) + "\n";
    }
    return text;
}

bool CountsMalloc() {
    return VOK_OOM_REPLACES_MALLOC != 0;
}

}  // namespace oom
}  // namespace test
}  // namespace vok

using namespace vok::test::oom;
#define VOK_OOM_CALLER __builtin_return_address(0)

#if VOK_OOM_REPLACES_MALLOC
// GLib formats through vasprintf (fortified: __vasprintf_chk) and aborts when that fails.
template <typename... Args>
static int FormatFor(const void* caller, const char* name, Args... args) {
    using Format = int (*)(Args...);
    const Format next = reinterpret_cast<Format>(dlsym(RTLD_NEXT, name));
    const bool forGlib = tForGlib;
    tForGlib = forGlib || FromGlib(caller);
    const int length = next(args...);
    tForGlib = forGlib;
    return length;
}

extern "C" {

void* malloc(size_t size) {
    return Obtain(size, VOK_OOM_CALLER, [&] { return __libc_malloc(size); });
}

void* calloc(size_t count, size_t size) {
    return Obtain(count * size, VOK_OOM_CALLER, [&] { return __libc_calloc(count, size); });
}

void* realloc(void* block, size_t size) {
    const void* caller = VOK_OOM_CALLER;
    if (block == nullptr) {
        return Obtain(size, caller, [&] { return __libc_realloc(nullptr, size); });
    }
    if (size == 0) {
        Release(block);
        return nullptr;
    }
    if (Counts(caller) && NextFails(caller)) {
        errno = ENOMEM;
        return nullptr;
    }
    // Only a block obtained while counting is recorded, wherever it moves.
    const bool recorded = gLive.load(std::memory_order_relaxed) != 0 && Forget(block);
    void* moved = __libc_realloc(block, size);
    if (recorded) {
        Record(moved != nullptr ? moved : block, size, caller);
    }
    return moved;
}

void free(void* block) {
    Release(block);
}

void* memalign(size_t alignment, size_t size) {
    return Obtain(size, VOK_OOM_CALLER, [&] { return __libc_memalign(alignment, size); });
}

void* aligned_alloc(size_t alignment, size_t size) {
    return Obtain(size, VOK_OOM_CALLER, [&] { return __libc_memalign(alignment, size); });
}

int posix_memalign(void** result, size_t alignment, size_t size) {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) {
        return EINVAL;
    }
    void* block = Obtain(size, VOK_OOM_CALLER, [&] { return __libc_memalign(alignment, size); });
    if (block == nullptr) {
        return ENOMEM;
    }
    *result = block;
    return 0;
}

int vasprintf(char** result, const char* format, va_list args) {
    return FormatFor(VOK_OOM_CALLER, "vasprintf", result, format, args);
}

int __vasprintf_chk(char** result, int flag, const char* format, va_list args) {
    return FormatFor(VOK_OOM_CALLER, "__vasprintf_chk", result, flag, format, args);
}

}  // extern "C"
#endif

#define VOK_OOM_NEW(alignment, nothrow, ...)                       \
    void* operator new(__VA_ARGS__) noexcept(nothrow) {            \
        return NewBlock(size, alignment, VOK_OOM_CALLER, nothrow); \
    }                                                              \
    void* operator new[](__VA_ARGS__) noexcept(nothrow) {          \
        return NewBlock(size, alignment, VOK_OOM_CALLER, nothrow); \
    }
#define VOK_OOM_DELETE(...)                        \
    void operator delete(__VA_ARGS__) noexcept {   \
        Release(block);                            \
    }                                              \
    void operator delete[](__VA_ARGS__) noexcept { \
        Release(block);                            \
    }

VOK_OOM_NEW(0, false, size_t size)
VOK_OOM_NEW(static_cast<size_t>(a), false, size_t size, std::align_val_t a)
VOK_OOM_NEW(0, true, size_t size, const std::nothrow_t&)
VOK_OOM_NEW(static_cast<size_t>(a), true, size_t size, std::align_val_t a, const std::nothrow_t&)
VOK_OOM_DELETE(void* block)
VOK_OOM_DELETE(void* block, size_t)
VOK_OOM_DELETE(void* block, std::align_val_t)
VOK_OOM_DELETE(void* block, size_t, std::align_val_t)
VOK_OOM_DELETE(void* block, const std::nothrow_t&)
VOK_OOM_DELETE(void* block, std::align_val_t, const std::nothrow_t&)
