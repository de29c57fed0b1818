// Replacement allocator of the sweep program: counts, fails and records as AllocFailure.h says,
// and otherwise hands every request to the C library's allocator (or, in sanitizer builds, to
// the sanitizer's malloc).
#include "AllocFailure.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VOK_OOM_REPLACES_MALLOC 0
#else
#define VOK_OOM_REPLACES_MALLOC 1
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}
#endif

namespace vok {
namespace test {
namespace oom {
namespace {

#if VOK_OOM_REPLACES_MALLOC
void* RawMalloc(size_t size) {
    return __libc_malloc(size);
}
void* RawCalloc(size_t count, size_t size) {
    return __libc_calloc(count, size);
}
void* RawRealloc(void* block, size_t size) {
    return __libc_realloc(block, size);
}
void* RawMemalign(size_t alignment, size_t size) {
    return __libc_memalign(alignment, size);
}
void RawFree(void* block) {
    __libc_free(block);
}
#else
void* RawMalloc(size_t size) {
    return std::malloc(size);
}
void* RawMemalign(size_t alignment, size_t size) {
    void* block = nullptr;
    return posix_memalign(&block, alignment, size) == 0 ? block : nullptr;
}
void RawFree(void* block) {
    std::free(block);
}
#endif

// 0: disarmed; 1: the arming thread counts; 2: every thread counts.
std::atomic<int> gMode{0};
std::atomic<uint64_t> gCounted{0};
std::atomic<uint64_t> gInjected{0};
std::atomic<uint64_t> gFailFirst{0};
std::atomic<uint64_t> gFailEnd{0};  // One past the last failing request; UINT64_MAX: persistent.
__thread bool tArmed = false;
__thread bool tInside = false;  // The injector's own bookkeeping allocates uncounted.

// Address ranges of GLib's loaded segments: requests made from there are not counted.
struct Range {
    uintptr_t begin, end;
};
Range gGlibRanges[16];
int gGlibRangeCount = 0;
bool gGlibRangesKnown = false;

int CollectGlib(struct dl_phdr_info* info, size_t, void*) {
    if (info->dlpi_name == nullptr || std::strstr(info->dlpi_name, "libglib-2.0") == nullptr) {
        return 0;
    }
    for (int i = 0; i < info->dlpi_phnum && gGlibRangeCount < 16; ++i) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD) {
            const uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
            gGlibRanges[gGlibRangeCount++] = {begin, begin + segment.p_memsz};
        }
    }
    return 0;
}

bool FromGlib(const void* caller) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(caller);
    for (int i = 0; i < gGlibRangeCount; ++i) {
        if (address >= gGlibRanges[i].begin && address < gGlibRanges[i].end) {
            return true;
        }
    }
    return false;
}

// Open-addressing set of the blocks counted requests obtained, in memory of its own (mmap), so
// recording allocates nothing. Slots that were ever used are listed for a cheap reset.
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
    const uintptr_t key = reinterpret_cast<uintptr_t>(block);
    for (size_t i = SlotOf(key);; i = (i + 1) & (kSlots - 1)) {
        if (gSlots[i].block <= 1) {
            if (gSlots[i].block == 0) {
                gUsed[gUsedCount++] = static_cast<uint32_t>(i);
            }
            gSlots[i] = {key, caller, size};
            ++gLive;
            return;
        }
    }
}

// Drops block from the set; true when it was recorded.
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

bool Counts() {
    const int mode = gMode.load(std::memory_order_relaxed);
    return mode != 0 && !tInside && (mode == 2 || tArmed);
}

std::atomic<const void*> gFirstFailureCaller{nullptr};

// Numbers a counted request; true when it must fail.
bool NextFails(const void* caller) {
    const uint64_t index = gCounted.fetch_add(1, std::memory_order_relaxed) + 1;
    const uint64_t first = gFailFirst.load(std::memory_order_relaxed);
    if (first != 0 && index >= first && index < gFailEnd.load(std::memory_order_relaxed)) {
        if (gInjected.fetch_add(1, std::memory_order_relaxed) == 0) {
            gFirstFailureCaller.store(caller, std::memory_order_relaxed);
        }
        return true;
    }
    return false;
}

// The common path of every allocating entry: counts, fails or allocates, records.
template <typename Allocate>
void* Obtain(size_t size, const void* caller, Allocate allocate) {
    if (!Counts() || FromGlib(caller)) {
        return allocate();
    }
    if (NextFails(caller)) {
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
    if (size == 0) {
        size = 1;
    }
    for (;;) {
        void* block = Obtain(size, caller, [&] {
            return alignment != 0 ? RawMemalign(alignment, size) : RawMalloc(size);
        });
        if (block != nullptr) {
            return block;
        }
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) {
            if (nothrow) {
                return nullptr;
            }
            throw std::bad_alloc();
        }
        handler();
    }
}

}  // namespace

void Arm(ArmScope scope, uint64_t firstFailure, uint32_t failCount) {
    if (gSlots == nullptr) {
        void* slots = mmap(nullptr, kSlots * sizeof(Slot), PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        void* used = mmap(nullptr, kSlots * sizeof(uint32_t), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (slots == MAP_FAILED || used == MAP_FAILED) {
            std::abort();
        }
        gSlots = static_cast<Slot*>(slots);
        gUsed = static_cast<uint32_t*>(used);
    }
    if (!gGlibRangesKnown) {
        dl_iterate_phdr(CollectGlib, nullptr);
        gGlibRangesKnown = true;
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

namespace {

std::string DescribeCaller(const void* caller) {
    Dl_info info;
    const char* symbol = "?";
    const char* object = "?";
    if (dladdr(caller, &info) != 0) {
        symbol = info.dli_sname != nullptr ? info.dli_sname : "?";
        object = info.dli_fname != nullptr ? info.dli_fname : "?";
    }
    char text[512];
    std::snprintf(text, sizeof text, "%p %s (%s)", caller, symbol, object);
    return text;
}

}  // namespace

std::string DescribeFirstFailure() {
    const void* caller = gFirstFailureCaller.load();
    return caller != nullptr ? DescribeCaller(caller) : std::string("none");
}

std::string DescribeLiveBlocks(size_t limit) {
    // Copied out first: formatting allocates, and freeing under the slot lock would deadlock.
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
        char line[128];
        std::snprintf(line, sizeof line, "  %lu bytes at %p from ",
                      static_cast<unsigned long>(found[i].size),
                      reinterpret_cast<void*>(found[i].block));
        text += line + DescribeCaller(found[i].caller) + "\n";
    }
    return text;
}

bool CountsMalloc() {
    return VOK_OOM_REPLACES_MALLOC != 0;
}

}  // namespace oom
}  // namespace test
}  // namespace vok

using vok::test::oom::NewBlock;
using vok::test::oom::Release;

#if VOK_OOM_REPLACES_MALLOC
extern "C" {

void* malloc(size_t size) {
    return vok::test::oom::Obtain(size, __builtin_return_address(0),
                                  [&] { return vok::test::oom::RawMalloc(size); });
}

void* calloc(size_t count, size_t size) {
    return vok::test::oom::Obtain(count * size, __builtin_return_address(0),
                                  [&] { return vok::test::oom::RawCalloc(count, size); });
}

void* realloc(void* block, size_t size) {
    using namespace vok::test::oom;
    if (block == nullptr) {
        return Obtain(size, __builtin_return_address(0), [&] { return RawRealloc(nullptr, size); });
    }
    if (size == 0) {
        Release(block);
        return nullptr;
    }
    const void* caller = __builtin_return_address(0);
    if (Counts() && !FromGlib(caller) && NextFails(caller)) {
        return nullptr;
    }
    // Only a block obtained while counting is recorded, wherever it moves; growing an older one
    // is not a new block.
    const bool recorded = gLive.load(std::memory_order_relaxed) != 0 && Forget(block);
    void* moved = RawRealloc(block, size);
    if (recorded) {
        Record(moved != nullptr ? moved : block, size, caller);
    }
    return moved;
}

void free(void* block) {
    Release(block);
}

void* memalign(size_t alignment, size_t size) {
    return vok::test::oom::Obtain(size, __builtin_return_address(0),
                                  [&] { return vok::test::oom::RawMemalign(alignment, size); });
}

void* aligned_alloc(size_t alignment, size_t size) {
    return vok::test::oom::Obtain(size, __builtin_return_address(0),
                                  [&] { return vok::test::oom::RawMemalign(alignment, size); });
}

int posix_memalign(void** result, size_t alignment, size_t size) {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) {
        return EINVAL;
    }
    void* block = vok::test::oom::Obtain(size, __builtin_return_address(0), [&] {
        return vok::test::oom::RawMemalign(alignment, size);
    });
    if (block == nullptr) {
        return ENOMEM;
    }
    *result = block;
    return 0;
}

}  // extern "C"
#endif

#define VOK_OOM_CALLER __builtin_return_address(0)
void* operator new(size_t size) {
    return NewBlock(size, 0, VOK_OOM_CALLER, false);
}
void* operator new[](size_t size) {
    return NewBlock(size, 0, VOK_OOM_CALLER, false);
}
void* operator new(size_t size, std::align_val_t alignment) {
    return NewBlock(size, static_cast<size_t>(alignment), VOK_OOM_CALLER, false);
}
void* operator new[](size_t size, std::align_val_t alignment) {
    return NewBlock(size, static_cast<size_t>(alignment), VOK_OOM_CALLER, false);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return NewBlock(size, 0, VOK_OOM_CALLER, true);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return NewBlock(size, 0, VOK_OOM_CALLER, true);
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return NewBlock(size, static_cast<size_t>(alignment), VOK_OOM_CALLER, true);
}
void* operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return NewBlock(size, static_cast<size_t>(alignment), VOK_OOM_CALLER, true);
}

void operator delete(void* block) noexcept {
    Release(block);
}
void operator delete[](void* block) noexcept {
    Release(block);
}
void operator delete(void* block, size_t) noexcept {
    Release(block);
}
void operator delete[](void* block, size_t) noexcept {
    Release(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    Release(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    Release(block);
}
void operator delete(void* block, size_t, std::align_val_t) noexcept {
    Release(block);
}
void operator delete[](void* block, size_t, std::align_val_t) noexcept {
    Release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    Release(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    Release(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Release(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Release(block);
}
