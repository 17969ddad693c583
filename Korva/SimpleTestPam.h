#pragma once
// A Pam for tests, with no descriptor: see models/Korva/SimpleTestPam.mox.

#include <Korva/SimpleTestPam.mox.h>

#include <time.h>

namespace Korva {

// The wait of one read: whole seconds, and the fraction rounded up to nanoseconds and
// capped below one second.
timespec rxPktDelayTimespec(double seconds);

}  // namespace Korva
