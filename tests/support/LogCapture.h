#pragma once

#include "support/FakeTrace.h"

using CLogCapture = CFakeTrace;
