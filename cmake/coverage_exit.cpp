/* Coverage builds only: a process that ends with _exit (forked test
 * children, the simulator's scenario children) writes its counts first. */
#include <link.h>
#include <string.h>

extern "C" void __gcov_dump(void);
extern "C" [[noreturn]] void __real__exit(int status);

namespace {

/* The library's version script keeps its copy of the counts' writer to
 * itself, out of __gcov_dump's reach: run the library's finalisers (the
 * writer among them) as a normal exit would. */
int finish_library(struct dl_phdr_info* info, size_t, void*)
{
    if (info->dlpi_name == nullptr || strstr(info->dlpi_name, "/libznpdk.so") == nullptr) {
        return 0;
    }
    ElfW(Addr) array = 0;
    size_t bytes = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type != PT_DYNAMIC) {
            continue;
        }
        for (auto* d = reinterpret_cast<ElfW(Dyn)*>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
             d->d_tag != DT_NULL; ++d) {
            if (d->d_tag == DT_FINI_ARRAY) {
                array = info->dlpi_addr + d->d_un.d_ptr;
            } else if (d->d_tag == DT_FINI_ARRAYSZ) {
                bytes = d->d_un.d_val;
            }
        }
    }
    auto* fini = reinterpret_cast<void (**)(void)>(array);
    for (size_t n = array != 0 ? bytes / sizeof(*fini) : 0; n > 0; --n) {
        fini[n - 1]();
    }
    return 1;
}

} // namespace

extern "C" [[noreturn]] void __wrap__exit(int status)
{
    dl_iterate_phdr(finish_library, nullptr);
    __gcov_dump();
    __real__exit(status);
}
