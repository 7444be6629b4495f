#include <windows.h>

#include <mutex>
#include <thread>

#include "shell/platform.h"
#include "support/process.h"

namespace testing_support {

std::filesystem::path cli_path() {
    // The build runs on Linux and the tests under Wine, which sees the Linux root as drive Z:.
    std::string path = SARNLINK_CLI_PATH;
    if (!path.empty() && path[0] == '/') path = "Z:" + path;
    for (char& c : path)
        if (c == '/') c = '\\';
    return std::filesystem::path(zq::utf8_to_wide(path));
}

struct Process::Impl {
    PROCESS_INFORMATION info{};
    HANDLE out_read = nullptr;
    HANDLE in_write = nullptr;
    mutable std::mutex output_lock;
    std::string output;
    std::thread reader;
    int exit_code = -1;
    bool reaped = false;
};

namespace {

std::wstring quote_arg(const std::wstring& arg) {
    if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) return arg;
    std::wstring out = L"\"";
    std::size_t backslashes = 0;
    for (wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
        } else if (c == L'"') {
            out.append(backslashes * 2 + 1, L'\\');
            out += c;
            backslashes = 0;
            continue;
        } else {
            backslashes = 0;
        }
        out += c;
    }
    out.append(backslashes, L'\\');
    return out + L"\"";
}

}  // namespace

Process::Process(const std::filesystem::path& program, const std::vector<std::string>& args,
                 const std::filesystem::path& working_dir, const std::map<std::string, std::string>& env)
    : impl_(std::make_unique<Impl>()) {
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE out_write = nullptr;
    if (!CreatePipe(&impl_->out_read, &out_write, &sa, 0)) return;
    SetHandleInformation(impl_->out_read, HANDLE_FLAG_INHERIT, 0);
    HANDLE in_read = nullptr;
    if (!CreatePipe(&in_read, &impl_->in_write, &sa, 0)) {
        CloseHandle(out_write);
        return;
    }
    SetHandleInformation(impl_->in_write, HANDLE_FLAG_INHERIT, 0);

    std::wstring command = quote_arg(program.wstring());
    for (const auto& a : args) command += L" " + quote_arg(zq::utf8_to_wide(a));

    std::map<std::wstring, std::wstring> environment;
    if (LPWCH block = GetEnvironmentStringsW()) {
        for (LPWCH p = block; *p; p += wcslen(p) + 1) {
            std::wstring entry = p;
            auto eq = entry.find(L'=', 1);
            if (eq != std::wstring::npos) environment[entry.substr(0, eq)] = entry.substr(eq + 1);
        }
        FreeEnvironmentStringsW(block);
    }
    for (const auto& [k, v] : env) environment[zq::utf8_to_wide(k)] = zq::utf8_to_wide(v);
    std::wstring env_block;
    for (const auto& [k, v] : environment) env_block += k + L"=" + v + L'\0';
    env_block += L'\0';

    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = in_read;
    si.hStdOutput = out_write;
    si.hStdError = out_write;
    std::wstring dir = working_dir.wstring();
    BOOL ok = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE,
                             CREATE_NEW_PROCESS_GROUP | CREATE_UNICODE_ENVIRONMENT, env_block.data(),
                             dir.empty() ? nullptr : dir.c_str(), &si, &impl_->info);
    CloseHandle(out_write);
    CloseHandle(in_read);
    if (!ok) {
        impl_->reaped = true;
        return;
    }
    impl_->reader = std::thread([impl = impl_.get()] {
        char buffer[4096];
        DWORD n = 0;
        while (ReadFile(impl->out_read, buffer, sizeof buffer, &n, nullptr) && n > 0) {
            std::lock_guard<std::mutex> guard(impl->output_lock);
            impl->output.append(buffer, n);
        }
    });
}

Process::~Process() {
    if (impl_->info.hProcess && !impl_->reaped) {
        TerminateProcess(impl_->info.hProcess, 1);
        wait(5.0);
    }
    if (impl_->reader.joinable()) impl_->reader.join();
    if (impl_->out_read) CloseHandle(impl_->out_read);
    if (impl_->in_write) CloseHandle(impl_->in_write);
    if (impl_->info.hProcess) CloseHandle(impl_->info.hProcess);
    if (impl_->info.hThread) CloseHandle(impl_->info.hThread);
}

std::string Process::output() const {
    // The console runtime writes text-mode line ends; tests compare against plain line feeds.
    std::lock_guard<std::mutex> guard(impl_->output_lock);
    std::string text;
    for (std::size_t i = 0; i < impl_->output.size(); ++i)
        if (!(impl_->output[i] == '\r' && i + 1 < impl_->output.size() && impl_->output[i + 1] == '\n'))
            text += impl_->output[i];
    return text;
}

long Process::id() const { return static_cast<long>(impl_->info.dwProcessId); }

void Process::send_input(const std::string& text) {
    DWORD written = 0;
    if (impl_->in_write) WriteFile(impl_->in_write, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

bool Process::running() const {
    return impl_->info.hProcess && !impl_->reaped && WaitForSingleObject(impl_->info.hProcess, 0) == WAIT_TIMEOUT;
}

void Process::interrupt() {
    if (impl_->info.hProcess && !impl_->reaped) GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, impl_->info.dwProcessId);
}

int Process::wait(double seconds) {
    if (!impl_->info.hProcess) return -1;
    if (!impl_->reaped) {
        DWORD result = WaitForSingleObject(impl_->info.hProcess, static_cast<DWORD>(seconds * 1000));
        if (result != WAIT_OBJECT_0) {
            TerminateProcess(impl_->info.hProcess, 1);
            WaitForSingleObject(impl_->info.hProcess, INFINITE);
            impl_->exit_code = -1;
        } else {
            DWORD code = 0;
            GetExitCodeProcess(impl_->info.hProcess, &code);
            impl_->exit_code = static_cast<int>(code);
        }
        impl_->reaped = true;
    }
    if (impl_->reader.joinable()) impl_->reader.join();
    return impl_->exit_code;
}

}  // namespace testing_support
