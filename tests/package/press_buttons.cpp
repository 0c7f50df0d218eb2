/// @file
/// Sits before an installer's windows: press_buttons TITLE BUTTON...
///
/// Waits for the dialogue whose title begins so, and presses its buttons (next, cancel) one after the other,
/// each as soon as it can be pressed. What each page says is printed.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string_view>

namespace
{

constexpr DWORD kPollMs = 50;
constexpr DWORD kPatienceMs = 60000;

struct Search
{
    std::wstring_view title;
    HWND window = nullptr;
};

BOOL CALLBACK Compare(HWND window, LPARAM context)
{
    auto& search = *reinterpret_cast<Search*>(context);
    wchar_t title[256];
    ::GetWindowTextW(window, title, ARRAYSIZE(title));
    if (::IsWindowVisible(window) && std::wstring_view(title).starts_with(search.title))
    {
        search.window = window;
    }
    return search.window == nullptr;
}

BOOL CALLBACK Print(HWND control, LPARAM)
{
    wchar_t text[512];
    if (::IsWindowVisible(control) && ::GetWindowTextW(control, text, ARRAYSIZE(text)) > 0)
    {
        std::printf("  [%ls]%s", text, ::IsWindowEnabled(control) ? "" : " (disabled)");
    }
    return TRUE;
}

/// @return the button once it can be pressed; null when that does not come to be
HWND WaitForButton(const wchar_t* title, int id)
{
    for (DWORD waited = 0; waited < kPatienceMs; waited += kPollMs)
    {
        ::Sleep(kPollMs);
        Search search{title};
        ::EnumWindows(&Compare, reinterpret_cast<LPARAM>(&search));
        const HWND button = search.window != nullptr ? ::GetDlgItem(search.window, id) : nullptr;
        if (button != nullptr && ::IsWindowVisible(button) && ::IsWindowEnabled(button))
        {
            return button;
        }
    }
    return nullptr;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    for (int index = 2; index < argc; ++index)
    {
        const HWND button =
            WaitForButton(argv[1], std::wcscmp(argv[index], L"cancel") == 0 ? IDCANCEL : IDOK);
        if (button == nullptr)
        {
            std::printf("no '%ls' can be pressed in '%ls'\n", argv[index], argv[1]);
            return 1;
        }
        ::EnumChildWindows(::GetParent(button), &Print, 0);
        std::printf("\n");
        ::PostMessageW(button, BM_CLICK, 0, 0);
        ::Sleep(500); // The next page has buttons of the same numbers.
    }
    return 0;
}
