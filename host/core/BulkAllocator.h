#pragma once

// An allocator for the large arrays of an index (tens of millions of entries) that are filled
// right after they are made:
// - elements made without arguments are left uninitialised (the array is about to be written
//   whole, so zeroing it first would only cost a pass over fresh memory);
// - blocks of 2 MiB and more are aligned on 2 MiB and, on Linux, marked for transparent huge
//   pages: the first touch of fresh memory then costs one page fault per 2 MiB instead of one per
//   4 KiB, which is most of the cost of filling a new array on a virtual machine.

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace TZLib {

template<typename T> class BulkAllocator
{
public:
    using value_type = T;

    BulkAllocator() noexcept = default;
    template<typename U> BulkAllocator(const BulkAllocator<U> &) noexcept { }

    T *allocate(std::size_t n)
    {
        if (n > std::size_t(-1) / sizeof(T))
            throw std::bad_alloc();
        const std::size_t bytes = n * sizeof(T);
        if (bytes < HUGE_PAGE)
            return static_cast<T *>(::operator new(bytes));
        const std::size_t rounded = (bytes + HUGE_PAGE - 1) / HUGE_PAGE * HUGE_PAGE;
        void *p = nullptr;
#if defined(_WIN32)
        p = _aligned_malloc(rounded, HUGE_PAGE);
#else
        if (posix_memalign(&p, HUGE_PAGE, rounded) != 0)
            p = nullptr;
#endif
        if (!p)
            throw std::bad_alloc();
#if defined(__linux__) && defined(MADV_HUGEPAGE)
        madvise(p, rounded, MADV_HUGEPAGE); // advice only: failing it changes nothing
#endif
        return static_cast<T *>(p);
    }

    void deallocate(T *p, std::size_t n) noexcept
    {
        if (n * sizeof(T) < HUGE_PAGE) {
            ::operator delete(p);
            return;
        }
#if defined(_WIN32)
        _aligned_free(p);
#else
        std::free(p);
#endif
    }

    //! Default-initialises: a resize leaves the new elements as they are.
    template<typename U> void construct(U *p) noexcept
    {
        ::new (static_cast<void *>(p)) U;
    }
    template<typename U, typename... Args> void construct(U *p, Args &&...args)
    {
        ::new (static_cast<void *>(p)) U(std::forward<Args>(args)...);
    }

    template<typename U> bool operator==(const BulkAllocator<U> &) const noexcept
    {
        return true;
    }
    template<typename U> bool operator!=(const BulkAllocator<U> &) const noexcept
    {
        return false;
    }

private:
    static constexpr std::size_t HUGE_PAGE = std::size_t(2) << 20;
};

} // namespace TZLib
