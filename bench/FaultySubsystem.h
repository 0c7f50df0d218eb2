#pragma once

#include <windows.h>

/// @file
/// What fault_matrix and its services agree on.

/// {7E57D11A-5B3C-4C1E-9A60-0000000001NN}: the service that does something wrong, and its neighbours.
inline constexpr wchar_t kFaultyClsid[] = L"{7E57D11A-5B3C-4C1E-9A60-000000000101}";
inline constexpr wchar_t kNeighbourClsid[] = L"{7E57D11A-5B3C-4C1E-9A60-000000000102}";

/// Value of the record key: "PHASE KIND", which fault happens when.
inline constexpr wchar_t kFaultRecord[] = L"Fault";

/// Events of a neighbour, each with the service's name behind it: it is asked, it answers.
inline constexpr wchar_t kAskEvent[] = L"Local\\TxProveAsk-";
inline constexpr wchar_t kAnswerEvent[] = L"Local\\TxProveAnswer-";
