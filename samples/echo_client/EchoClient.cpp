#include <windows.h>

#include <cstdio>
#include <string>

namespace
{

constexpr DWORD kTimeoutMs = 5000; // Until it is this client's turn.
constexpr DWORD kMaxReply = 4096;  // In characters.

/// Standard output gets UTF-8, whatever it is connected to.
void Print(const std::wstring& text)
{
    std::string utf8(text.size() * 3, '\0'); // A UTF-16 unit takes three bytes at most.
    const int size = ::WideCharToMultiByte(
        CP_UTF8,
        0,
        text.data(),
        static_cast<int>(text.size()),
        utf8.data(),
        static_cast<int>(utf8.size()),
        nullptr,
        nullptr);
    std::printf("%.*s\n", size, utf8.c_str());
}

} // namespace

/// EchoClient SERVICE TEXT: prints the answer of the hosted echo service.
int wmain(int argc, wchar_t** argv) // NOLINT(misc-use-internal-linkage): the runtime calls it
{
    if (argc != 3)
    {
        std::fputs("usage: EchoClient SERVICE TEXT\n", stderr);
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring pipe = L"\\\\.\\pipe\\TxEcho-" + std::wstring(argv[1]);
    std::wstring text = argv[2];
    std::wstring reply(kMaxReply, L'\0');
    DWORD size = 0;

    if (!::CallNamedPipeW(
            pipe.c_str(),
            text.data(),
            static_cast<DWORD>(text.size() * sizeof(wchar_t)),
            reply.data(),
            kMaxReply * sizeof(wchar_t),
            &size,
            kTimeoutMs))
    {
        const DWORD error = ::GetLastError();
        std::fprintf(stderr, "EchoClient: no answer (error %lu)\n", error);
        return static_cast<int>(error);
    }

    reply.resize(size / sizeof(wchar_t));
    Print(reply);
    return ERROR_SUCCESS;
}
