#include "shell/platform.h"
#include "shell/util.h"

#include <windows.h>
#include <bcrypt.h>
#include <psapi.h>
#include <shellapi.h>
#include <tlhelp32.h>

#include <time.h>

#include <algorithm>

namespace zq {

namespace {

std::atomic<bool>* g_stop_flag = nullptr;

BOOL WINAPI on_console_event(DWORD) {
    // Every event is treated alike: ask the run loop to stop, and say it was handled.
    if (g_stop_flag) g_stop_flag->store(true);
    return TRUE;
}

}  // namespace

std::wstring utf8_to_wide(const std::string& text) {
    if (text.empty()) return std::wstring();
    int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<std::size_t>(size > 0 ? size : 0), L'\0');
    if (size > 0) MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size);
    return out;
}

std::string wide_to_utf8(const std::wstring& text) {
    if (text.empty()) return std::string();
    int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    if (size > 0)
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size, nullptr, nullptr);
    return out;
}

std::vector<std::wstring> command_line_args(int, char**) {
    // The narrow argv of a Windows program is in the ANSI code page; the wide one is exact.
    std::vector<std::wstring> args;
    int count = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &count);
    if (!argv) return args;
    for (int i = 1; i < count; ++i) args.emplace_back(argv[i]);
    LocalFree(argv);
    return args;
}

namespace {

HANDLE create_new(const std::filesystem::path& path) {
    return CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

bool write_new_file(const std::filesystem::path& path, const std::string& text) {
    HANDLE file = create_new(path);
    if (file == INVALID_HANDLE_VALUE) return false;
    bool ok = true;
    std::size_t done = 0;
    while (ok && done < text.size()) {
        DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(text.size() - done, 1u << 30));
        DWORD written = 0;
        if (!WriteFile(file, text.data() + done, chunk, &written, nullptr) || written == 0) ok = false;
        done += written;
    }
    if (ok && !FlushFileBuffers(file)) ok = false;
    if (!CloseHandle(file)) ok = false;
    if (!ok) DeleteFileW(path.c_str());
    return ok;
}

FileLock::FileLock(const std::filesystem::path& path, double wait_seconds) {
    // Opening the link itself, were one planted here, follows nothing.
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    file_ = reinterpret_cast<std::intptr_t>(file);
    // A holder keeps the lock for one read and one write of a small file; a wait this long means
    // a process that hangs, and the caller is better told than left waiting with it.
    const double deadline = steady_seconds() + wait_seconds;
    for (;;) {
        OVERLAPPED first_byte = {};
        if (LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &first_byte)) break;
        if (steady_seconds() >= deadline) return;
        Sleep(2);
    }
    held_ = true;
}

FileLock::~FileLock() {
    if (file_ == -1) return;
    HANDLE file = reinterpret_cast<HANDLE>(file_);
    if (held_) {
        OVERLAPPED first_byte = {};
        UnlockFileEx(file, 0, 1, 0, &first_byte);
    }
    CloseHandle(file);
}

bool replace_file(const std::filesystem::path& from, const std::filesystem::path& to) {
    return MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

std::filesystem::path own_executable_path() {
    std::wstring buffer(32768, L'\0');
    DWORD size = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    buffer.resize(size);
    return std::filesystem::path(buffer);
}

void install_stop_handler(std::atomic<bool>* flag) {
    g_stop_flag = flag;
    SetConsoleCtrlHandler(on_console_event, TRUE);
}

void sleep_ms(int milliseconds) { Sleep(static_cast<DWORD>(milliseconds)); }

// Any program may go this far within its priority class: the thread then runs before the
// class's ordinary threads whenever both are ready.
void raise_thread_priority() { SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST); }

// The process heap already serves every thread from one pool, and gives large free blocks back
// to the system by itself.
void use_few_allocator_pools() {}

void release_free_memory() {}

std::optional<std::string> get_env(const std::string& name) {
    std::wstring wide_name = utf8_to_wide(name);
    DWORD size = GetEnvironmentVariableW(wide_name.c_str(), nullptr, 0);
    if (size == 0) {
        if (GetLastError() == ERROR_ENVVAR_NOT_FOUND) return std::nullopt;
        return std::string();
    }
    std::wstring value(size, L'\0');
    DWORD written = GetEnvironmentVariableW(wide_name.c_str(), value.data(), size);
    value.resize(written);
    return wide_to_utf8(value);
}

std::string computer_name() { return get_env("COMPUTERNAME").value_or(std::string()); }

std::tm local_time(std::time_t t) {
    std::tm out{};
    localtime_s(&out, &t);
    return out;
}

ProcessUsage process_usage() {
    ProcessUsage usage;
    // The snapshot lists every thread of the system; ours are those with our process id.
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot != INVALID_HANDLE_VALUE) {
        const DWORD self = GetCurrentProcessId();
        THREADENTRY32 entry = {};
        entry.dwSize = sizeof entry;
        for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
            usage.threads += entry.th32OwnerProcessID == self;
        CloseHandle(snapshot);
    }
    // The commit charge: the private bytes, also where the extended record's field stays 0 (Wine).
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof counters;
    if (GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) usage.memory_bytes = counters.PagefileUsage;
    return usage;
}

std::filesystem::path wide_path(const std::wstring& text) { return std::filesystem::path(text); }

std::filesystem::path utf8_path(const std::string& text) { return std::filesystem::path(utf8_to_wide(text)); }

// WideCharToMultiByte without flags replaces an unpaired surrogate instead of failing.
std::string path_text(const std::filesystem::path& path) { return printable(wide_to_utf8(path.native())); }

bool secure_random(void* out, std::size_t size) {
    return BCryptGenRandom(nullptr, static_cast<PUCHAR>(out), static_cast<ULONG>(size),
                           BCRYPT_USE_SYSTEM_PREFERRED_RNG) == 0;
}

// Windows raises no signal for a closed pipe; the write fails by itself.
void ignore_broken_pipe() {}

}  // namespace zq
