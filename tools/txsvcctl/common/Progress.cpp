#include "txsvcctl/common/Progress.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include "base/Text.h"

namespace TxCtl
{

void RunWithProgress(IConsole& console, const std::wstring& what, const std::function<void()>& operation)
{
    using Milliseconds = std::chrono::milliseconds;
    std::mutex lock;
    std::condition_variable ended;
    bool isOver = false;
    std::exception_ptr error;
    std::jthread worker([&] {
        try
        {
            operation();
        }
        catch (...)
        {
            error = std::current_exception();
        }
        const std::lock_guard guard(lock);
        isOver = true;
        ended.notify_one();
    });
    const auto begin = std::chrono::steady_clock::now();
    std::unique_lock hold(lock);
    // What is over at once need not flicker.
    for (Milliseconds step(300); !ended.wait_for(hold, step, [&isOver] { return isOver; });
         step = Milliseconds(100))
    {
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - begin;
        console.Progress(what + Basalt::FormatText(L", %.1f s ...", waited.count()));
    }
    hold.unlock();
    worker.join();
    console.Progress({});
    if (error)
    {
        std::rethrow_exception(error);
    }
}

} // namespace TxCtl
