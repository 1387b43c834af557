// Entry file of the shared library. Everything else comes from the core archive;
// on Windows the loader's entry point lives here.
#if defined(_WIN32)
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }
#endif
