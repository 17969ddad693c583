#pragma once
// Runs the event loop until `condition` holds, for at most `timeoutSeconds` (virtual under
// Mox::VirtualTime) and at most `maxTurns` turns. The turn bound matters under virtual
// time: a clock that stays due without firing holds virtual time still, and the real-time
// bound of Mox::runUntil would then be as long as the virtual timeout.
#include <Mox/Activity.h>
#include <Mox/Time.h>

#include <functional>

inline bool runUntilBounded(const std::function<bool()>& condition, double timeoutSeconds,
                            int maxTurns = 100000) {
  const double limit = Mox::now() + timeoutSeconds;
  for (int turn = 0; turn < maxTurns && !condition(); ++turn) {
    if (Mox::now() >= limit) return false;
    Mox::runOnce(limit - Mox::now());
  }
  return condition();
}
