#include <windows.h>

#include "support/host.h"

namespace testing_support {

bool running_under_wine() {
    // Wine's ntdll exports its version; Windows' does not.
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

bool posix_files() { return false; }

bool windows_build() { return true; }

bool take_file_handles(int) { return false; }
void give_back_file_handles() {}

std::filesystem::path find_program(const std::string& name) {
    wchar_t found[MAX_PATH] = {};
    std::wstring wide(name.begin(), name.end());
    if (SearchPathW(nullptr, wide.c_str(), L".exe", MAX_PATH, found, nullptr) == 0) return {};
    return std::filesystem::path(found);
}

std::vector<std::string> bash_as_another_user(std::string* why) {
    *why = "starting a program as another user needs a second account and its password on Windows";
    return {};
}

std::string run_as_another_user(const std::vector<std::string>&, const std::string&) { return {}; }

void set_env(const std::string& name, const std::string& value) {
    std::wstring n(name.begin(), name.end());
    std::wstring v(value.begin(), value.end());
    SetEnvironmentVariableW(n.c_str(), value.empty() ? nullptr : v.c_str());
}

}  // namespace testing_support
