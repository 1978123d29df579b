#ifndef VELTA_MODULE_DETECT_USER_H
#define VELTA_MODULE_DETECT_USER_H

#pragma GCC visibility push(default)

// The module's four functions. The agent calls them on one thread, or at least one at a time; StartModule and
// StopModule in any order and any number of times. The module raises no exception of its own here; one of an
// agent service passes through.
extern "C" {

// Always 1.
int InitModule();

// Stops the module, then starts it with the policy, a JSON text: 1 when the text parsed, otherwise 0 with the
// module stopped. A null pointer is a text that does not parse.
int StartModule(const char* policy);

// Returns when no task of the module runs and no file event can start one. Harmless on a stopped module.
void StopModule();

// Does nothing: what the module owns is released when it is unloaded.
void DeinitModule();

}  // extern "C"

#pragma GCC visibility pop

#endif  // VELTA_MODULE_DETECT_USER_H
