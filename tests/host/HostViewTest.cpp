// A host compiled apart from the library, knowing only the public headers. It
// loads lib_videorepair with dlopen and calls the manager and the stubs through
// raw slot numbers of their tables, so that two swapped slots make it fail.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "IRemoteRepairManager.h"
#include "IVideoMetaDataParser.h"
#include "IVideoRepairManager.h"
#include "IVideoRepairObserver.h"
#include "HostObserver.h"
#include "VideoRepairExport.h"

namespace {

int failures = 0;
int passes = 0;

#define CHECK(cond)                                                        \
    do {                                                                   \
        if (cond) {                                                        \
            ++passes;                                                      \
        } else {                                                           \
            ++failures;                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
        }                                                                  \
    } while (0)

template <class Fn>
Fn Slot(void* object, int slot) {
    void** table = *static_cast<void***>(object);
    return reinterpret_cast<Fn>(table[slot]);
}

template <class Fn>
Fn Export(void* lib, const char* name) {
    void* symbol = dlsym(lib, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "missing export %s\n", name);
        std::exit(2);
    }
    return reinterpret_cast<Fn>(symbol);
}

std::string ReadAll(const std::string& path) {
    std::string text;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
        std::fclose(f);
    }
    return text;
}

void DriveManager(void* lib, const std::string& dir) {
    auto init = Export<InitKzVideoRepairLibFn>(lib, "InitKzVideoRepairLib");
    CHECK(init(nullptr) == -1);
    IVideoRepairManager* manager = nullptr;
    CHECK(init(&manager) == 0 && manager != nullptr);
    HostObserver observer;
    std::wstring wdir(dir.begin(), dir.end());
    std::wstring work = wdir + L"/work/a/b";

    CHECK(Slot<int32_t (*)(void*, uint32_t)>(manager, 10)(manager, 3) == -1);
    CHECK(Slot<int32_t (*)(void*, uint32_t)>(manager, 10)(manager, 2) == 0);
    CHECK(Slot<int32_t (*)(void*, void*)>(manager, 13)(manager, nullptr) == -1);
    CHECK(Slot<int32_t (*)(void*, IVideoRepairObserver*, const wchar_t*, const wchar_t*)>(manager, 0)(
              manager, nullptr, nullptr, nullptr) == -1);
    CHECK(Slot<int32_t (*)(void*, IVideoRepairObserver*, const wchar_t*, const wchar_t*)>(manager, 0)(
              manager, &observer, wdir.c_str(), work.c_str()) == 0);
    CHECK(access((dir + "/work/a/b").c_str(), F_OK) == 0);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*)>(
              manager, 11)(manager, nullptr, L"x", nullptr, nullptr) == 0);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*)>(manager, 1)(manager, L"clip.MP4") == -1);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*)>(manager, 2)(manager, L"clip.mov",
                                                                               L"s.mov") == -1);
    int option = 0;
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*, uint32_t, void*)>(manager, 9)(
              manager, L"a.avi", L"b.avi", 0, nullptr) == -1);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*, uint32_t, void*)>(manager, 9)(
              manager, L"a.ts", L"b.ts", 0, &option) == -1);
    wchar_t buffer[512] = {};
    CHECK(Slot<int32_t (*)(void*, wchar_t*, const wchar_t*)>(manager, 7)(manager, buffer, L"a.avi") == -1);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*)>(manager, 8)(manager, L"never.avi",
                                                                               L"out.avi") == -1);
    int calls = 0;
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*, std::function<void(int, int)>)>(
              manager, 12)(manager, nullptr, L"out.avi", [&](int, int) { ++calls; }) == -1);
    CHECK(calls == 0);

    Slot<void (*)(void*, uint32_t)>(manager, 3)(manager, 7);
    Slot<void (*)(void*, uint32_t)>(manager, 4)(manager, 7);
    Slot<void (*)(void*, uint32_t)>(manager, 5)(manager, 7);
    CHECK(observer.events == "paused,resumed,stopped,");

    std::string log = ReadAll(dir + "/KzVideoRepair.log");
    CHECK(log.find("[ERROR] ") != std::string::npos);
    CHECK(log.find("SaveAs failed, repair record not found: never.avi") != std::string::npos);
    CHECK(log.find("SaveAs failed, invalid parameter -1") != std::string::npos);
    Slot<void (*)(void*)>(manager, 6)(manager);
}

void DriveStubs(void* lib) {
    auto createParser = Export<CreateMetaDataParserFn>(lib, "CreateMetaDataParser");
    IVideoMetaDataParser* parser = nullptr;
    CHECK(createParser(nullptr) == -1);
    CHECK(createParser(&parser) == 0 && parser != nullptr);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*)>(parser, 1)(parser, L"x.mkv") == -1);
    CHECK(Slot<double (*)(void*)>(parser, 12)(parser) == 0.0);
    CHECK(Slot<double (*)(void*)>(parser, 13)(parser) == 0.0);
    for (int slot = 14; slot <= 17; ++slot) CHECK(Slot<int32_t (*)(void*)>(parser, slot)(parser) == 0);
    CHECK(Slot<int32_t (*)(void*)>(parser, 18)(parser) == -1);
    CHECK(Slot<int32_t (*)(void*)>(parser, 19)(parser) == -1);
    for (int slot = 7; slot <= 11; ++slot) CHECK(*Slot<const wchar_t* (*)(void*)>(parser, slot)(parser) == 0);
    CHECK(*Slot<const wchar_t* (*)(void*)>(parser, 20)(parser) == 0);
    CHECK(std::strcmp(Slot<const char* (*)(void*)>(parser, 21)(parser), "{}") == 0);
    CHECK(Slot<void* (*)(void*, uint32_t)>(parser, 0)(parser, 1) == nullptr);  // deletes the parser

    auto createRemote = Export<CreateRemoteRepairManagerFn>(lib, "CreateRemoteRepairManager");
    auto deleteRemote = Export<DeleteRemoteRepairManagerFn>(lib, "DeleteRemoteRepairManager");
    IRemoteRepairManager* remote = nullptr;
    CHECK(createRemote(nullptr) == -1);
    CHECK(createRemote(&remote) == 0 && remote != nullptr);
    CHECK(Slot<bool (*)(void*)>(remote, 4)(remote) == false);
    CHECK(Slot<bool (*)(void*)>(remote, 5)(remote) == false);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*)>(remote, 6)(remote, L"a", L"b") == -1);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*)>(remote, 7)(remote, L"a") == -1);
    CHECK(*Slot<const wchar_t* (*)(void*)>(remote, 9)(remote) == 0);
    CHECK(Slot<int32_t (*)(void*, const wchar_t*, const wchar_t*)>(remote, 10)(remote, L"a", L"b") == -1);
    deleteRemote(nullptr);
    deleteRemote(remote);

    auto check = Export<CheckRemoteRepairableFn>(lib, "CheckRemoteRepairable");
    std::vector<unsigned char> records(3 * 196, 0xAB);
    CHECK(check(nullptr, 3) == -1);
    CHECK(check(reinterpret_cast<RemoteRepairItem*>(records.data()), 0) == -1);
    CHECK(records == std::vector<unsigned char>(3 * 196, 0xAB));
    CHECK(check(reinterpret_cast<RemoteRepairItem*>(records.data()), 3) == -1);
    for (size_t i = 0; i < records.size(); ++i) {
        bool zeroed = (i >= 192 && i < 196) || (i >= 388 && i < 392) || (i >= 584 && i < 588);
        if (records[i] != (zeroed ? 0 : 0xAB)) {
            CHECK(!"CheckRemoteRepairable touched a byte it must not");
            break;
        }
    }
    CHECK(Export<SetRemoteRepairLogPathFn>(lib, "SetRemoteRepairLogPath")(nullptr) == -1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: host_view_test LIBRARY\n");
        return 2;
    }
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
        return 2;
    }
    char pattern[] = "/tmp/vr_host_view_XXXXXX";
    std::string dir = mkdtemp(pattern);
    DriveManager(lib, dir);
    DriveStubs(lib);
    for (const char* name : {"/KzVideoRepair.log"}) unlink((dir + name).c_str());
    rmdir((dir + "/work/a/b").c_str());
    rmdir((dir + "/work/a").c_str());
    rmdir((dir + "/work").c_str());
    rmdir(dir.c_str());
    std::printf("%d passed, %d failed\n", passes, failures);
    return failures == 0 ? 0 : 1;
}
