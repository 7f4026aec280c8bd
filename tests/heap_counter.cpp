#include "heap_counter.h"

#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZNPDK_HEAP_HOOKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZNPDK_HEAP_HOOKS 1
#endif
#endif

#ifdef ZNPDK_HEAP_HOOKS
/* The sanitizer owns malloc: it reports every allocation to a hook. */
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                                         void (*)(const volatile void*));
namespace {
void on_malloc(const volatile void*, size_t)
{
    on_heap_alloc(nullptr);
}
void on_free(const volatile void*) {}
/* Both hooks are required. */
const int g_hooks = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);
} // namespace
#else
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

/* Every way to get heap memory counts one allocation. */
#define ZNPDK_COUNTED(name, params, call)                                                                    \
    void* name params                                                                                        \
    {                                                                                                        \
        on_heap_alloc(__builtin_return_address(0));                                                          \
        return call;                                                                                         \
    }
ZNPDK_COUNTED(malloc, (size_t n), __libc_malloc(n))
ZNPDK_COUNTED(calloc, (size_t n, size_t size), __libc_calloc(n, size))
ZNPDK_COUNTED(realloc, (void* p, size_t n), __libc_realloc(p, n))
ZNPDK_COUNTED(aligned_alloc, (size_t align, size_t n), __libc_memalign(align, n))
ZNPDK_COUNTED(memalign, (size_t align, size_t n), __libc_memalign(align, n))
int posix_memalign(void** out, size_t align, size_t n)
{
    on_heap_alloc(__builtin_return_address(0));
    void* p = __libc_memalign(align, n);
    if (p == nullptr) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}
void free(void* p)
{
    __libc_free(p);
}
} // extern "C"
#endif
