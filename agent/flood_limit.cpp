#include "agent/flood_limit.h"

bool FloodLimit::Take(Time now) {
  if (IsOver(now)) {
    began = now;
    taken = 0;
  }
  if (taken == most) {
    ++dropped;
    return false;
  }
  ++taken;
  return true;
}
