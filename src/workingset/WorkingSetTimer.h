#pragma once

/// What the trimming algorithm knows of its handler: a way to ask for the next timer run.
class IWorkingSetTimer
{
public:
    /// Arms the one timer; called on thread-pool threads.
    /// @return false when stop is requested or no timer could be armed.
    virtual bool scheduleWsTimer() noexcept = 0;

protected:
    ~IWorkingSetTimer() = default; // Nobody owns a handler through this.
};
