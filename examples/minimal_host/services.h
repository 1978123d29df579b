#ifndef MINIMAL_HOST_SERVICES_H
#define MINIMAL_HOST_SERVICES_H

// Where events, one a line, and the log go.
extern int eventDescriptor;
extern int logDescriptor;

// Runs the module's task now, and not only after its first delay. False when it has none: it, or the watch,
// was refused, and nothing is being watched.
bool LaunchTask();

// Writes the events that wait. The thread does so by itself; at the end of the program it may be too late for
// it.
void SendEvents();

#endif  // MINIMAL_HOST_SERVICES_H
