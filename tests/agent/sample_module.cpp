// A module that logs how it is used. Two more are built from this source: one lacks an entry point, one calls
// a service that no agent has.

#include "host/logger.h"
#include "module/detect_user.h"

#ifdef VELTA_CALLS_A_MISSING_SERVICE
void UtilsServiceOfTomorrow();
#endif

namespace {

// Built when the module is loaded and destroyed when it is unloaded.
struct Presence {
  Presence() { WriteStartupLog("loaded"); }
  ~Presence() { WriteStartupLog("unloaded"); }
};

const Presence presence;

}  // namespace

int InitModule() {
  WriteStartupLog("init");
#ifdef VELTA_CALLS_A_MISSING_SERVICE
  UtilsServiceOfTomorrow();
#endif
  return 1;
}

int StartModule(const char* policy) {
  WriteStartupLog("start %s", policy);
  return policy[0] == '{' ? 1 : 0;
}

void StopModule() { WriteStartupLog("stop"); }

#ifndef VELTA_LACKS_AN_ENTRY_POINT
void DeinitModule() { WriteStartupLog("deinit"); }
#endif
