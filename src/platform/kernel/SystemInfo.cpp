// The system's version and processor records, and the host window stand-in.
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>

namespace {

std::atomic<HWND> g_hHostMainWindow{nullptr};

std::mutex g_overrideMutex;
bool g_bOverride = false;
OSVERSIONINFOA g_version{};
SYSTEM_INFO g_info{};

WORD CpuFamily()
{
#if defined(__x86_64__) || defined(__i386__)
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("cpu family", 0) == 0) {
            size_t colon = line.find(':');
            if (colon != std::string::npos) return static_cast<WORD>(std::stoi(line.substr(colon + 1)));
        }
    }
#endif
    return 0;
}

} // namespace

BOOL GetVersionExA(OSVERSIONINFOA* p)
{
    if (p == nullptr || p->dwOSVersionInfoSize < sizeof(OSVERSIONINFOA)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    DWORD fail = 0;
    if (QXFaultCheck("GetVersionExA", &fail)) {
        SetLastError(fail);
        return FALSE;
    }
    {
        std::lock_guard<std::mutex> lock(g_overrideMutex);
        if (g_bOverride) {
            *p = g_version;
            p->dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
            return TRUE;
        }
    }
    std::memset(reinterpret_cast<char*>(p) + sizeof(DWORD), 0, sizeof(OSVERSIONINFOA) - sizeof(DWORD));
    p->dwPlatformId = VER_PLATFORM_WIN32_NT;
    utsname u{};
    if (uname(&u) == 0) {
        unsigned major = 0, minor = 0, build = 0;
        std::sscanf(u.release, "%u.%u.%u", &major, &minor, &build);
        p->dwMajorVersion = major;
        p->dwMinorVersion = minor;
        p->dwBuildNumber = build;
        std::snprintf(p->szCSDVersion, sizeof p->szCSDVersion, "%.60s", u.release);
    }
    return TRUE;
}

void GetSystemInfo(SYSTEM_INFO* p)
{
    if (p == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(g_overrideMutex);
        if (g_bOverride) {
            *p = g_info;
            return;
        }
    }
    std::memset(p, 0, sizeof *p);
    long page = sysconf(_SC_PAGESIZE);
    long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    p->dwPageSize = page > 0 ? static_cast<DWORD>(page) : 4096;
    p->dwAllocationGranularity = 65536;
    p->dwNumberOfProcessors = cpus > 0 ? static_cast<DWORD>(cpus) : 1;
    p->dwActiveProcessorMask = p->dwNumberOfProcessors >= 64 ? ~DWORD_PTR{0}
                                                             : (DWORD_PTR{1} << p->dwNumberOfProcessors) - 1;
    p->lpMinimumApplicationAddress = reinterpret_cast<LPVOID>(uintptr_t{0x10000});
    p->lpMaximumApplicationAddress = reinterpret_cast<LPVOID>(uintptr_t{0x7FFFFFFEFFFF});
#if defined(__x86_64__)
    p->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_AMD64;
    p->dwProcessorType = PROCESSOR_AMD_X8664;
#elif defined(__aarch64__)
    p->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_ARM64;
#elif defined(__i386__)
    p->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_INTEL;
    p->dwProcessorType = 586;
#else
    p->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_UNKNOWN;
#endif
    p->wProcessorLevel = CpuFamily();
}

void QXSetSystemInfoOverride(const OSVERSIONINFOA* pVersion, const SYSTEM_INFO* pInfo)
{
    std::lock_guard<std::mutex> lock(g_overrideMutex);
    g_bOverride = pVersion != nullptr && pInfo != nullptr;
    if (g_bOverride) {
        g_version = *pVersion;
        g_info = *pInfo;
    }
}

HWND QXGetHostMainWindow()
{
    DWORD fail = 0;
    if (QXFaultCheck("QXGetHostMainWindow", &fail)) return nullptr;
    HWND h = g_hHostMainWindow.load();
    return h != nullptr && IsWindow(h) ? h : nullptr;
}

void QXSetHostMainWindow(HWND hWnd)
{
    g_hHostMainWindow.store(hWnd);
}

void QXOfferHostMainWindow(HWND hWnd)
{
    HWND h = g_hHostMainWindow.load();
    while ((h == nullptr || !IsWindow(h)) && !g_hHostMainWindow.compare_exchange_weak(h, hWnd)) {
    }
}
