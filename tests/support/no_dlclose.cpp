// Linked into the sanitizer build of the tests that draw: keeps every shared library loaded
// until the process ends. Mesa unloads its driver at exit, and LeakSanitizer then reports the
// driver's own allocations as coming from an unknown module, which no suppression can name.

extern "C" int dlclose(void *)
{
    return 0;
}
