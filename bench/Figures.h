#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "support/Installation.h"

/// What a process holds, or several together.
struct Figures
{
    double milliseconds = 0;
    double privateKiB = 0;
    double pageFaults = 0;
    double threads = 0;
    double handles = 0;
    double dlls = 0;

    /// All that Windows tells of it; neither the time nor the page faults.
    void Add(DWORD processId);
};
inline constexpr std::pair<const char*, double Figures::*> kFigures[] = {
    {"milliseconds", &Figures::milliseconds},
    {"privateKiB", &Figures::privateKiB},
    {"pageFaults", &Figures::pageFaults},
    {"threads", &Figures::threads},
    {"handles", &Figures::handles},
    {"dlls", &Figures::dlls}};

/// What Wine commits for a thread, which Windows does not.
inline constexpr double kThreadKiB = 984;

[[nodiscard]] double Median(std::vector<double> values);
[[nodiscard]] Figures Median(const std::vector<Figures>& all);

/// Linux's count for the processes with this program: Wine has none.
[[nodiscard]] double PageFaultsOf(const std::string& program);

/// Image paths: of the host with a group, of BareService with options.
[[nodiscard]] std::wstring HostImage(const std::wstring& group);
[[nodiscard]] std::wstring BareImage(const std::wstring& options);

/// Waits until a service of ours says itself that it runs: asking the manager again and again would slow it
/// down. @throws std::runtime_error
void AwaitRunning(const std::wstring& name);

/// As an installed product has it: the host need not load the shell for it. @throws std::runtime_error
void SetCommonFiles();

/// TxBench1 and so on, of BenchSubsystem.dll.
[[nodiscard]] std::vector<TestSubsystem> BenchSubsystems(int count);

/// Starts services, each when the one before runs, looks at their processes and stops them.
/// @param images one for all services, or one for each.
/// @param program the name of the processes' program.
/// @throws std::runtime_error
[[nodiscard]] Figures MeasureGroup(
    const std::vector<std::wstring>& names,
    const std::vector<std::wstring>& images,
    const std::string& program);
