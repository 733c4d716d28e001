// The tool's global operator new: large blocks are backed by transparent huge
// pages where the kernel offers them on request.
//
// A run allocates region-sized arrays level after level (energy tables, class
// arrays, children's values) and main() has every such block mapped afresh
// and returned when freed, so each one is first touched page by page.  In a
// virtual machine a 4 KiB page fault costs several microseconds: at 2048 x
// 2048 the faults alone took about a quarter of the run.  Asking for 2 MiB
// pages cuts their number some 500-fold and the TLB misses of the shuffled
// pixel order with them; the resident size barely moves, as the blocks are
// filled whole.

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;
// Below two huge pages a block rarely holds a whole aligned one.
constexpr std::size_t kLargeBlock = 2 * kHugePage;

void adviseHugePages(void* p, std::size_t size) {
#ifdef MADV_HUGEPAGE
    const auto at = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t begin = (at + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t end = (at + size) & ~(kHugePage - 1);
    // Advice only: where the kernel declines, the block keeps small pages.
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)p;
    (void)size;
#endif
}

}  // namespace

void* operator new(std::size_t size) {
    if (size == 0) size = 1;
    for (;;) {
        if (void* p = std::malloc(size)) {
            if (size >= kLargeBlock) adviseHugePages(p, size);
            return p;
        }
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) throw std::bad_alloc();
        handler();
    }
}

void* operator new[](std::size_t size) {
    return ::operator new(size);
}

// Every form a library may pair with the ones above (GDAL allocates with the
// nothrow form and frees with the plain one).
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return ::operator new(size, std::nothrow);
}

void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    ::operator delete(p);
}
void operator delete(void* p, std::size_t) noexcept {
    ::operator delete(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    ::operator delete(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    ::operator delete(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    ::operator delete(p);
}
