/* Coverage builds only: a process that ends with _exit (forked test
 * children, the simulator's scenario children) writes its counts first;
 * the dump covers every instrumented module of the process. */
extern "C" void __gcov_dump(void);
extern "C" [[noreturn]] void __real__exit(int status);

extern "C" [[noreturn]] void __wrap__exit(int status)
{
    __gcov_dump();
    __real__exit(status);
}
