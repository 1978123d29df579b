#ifndef VELTA_TESTS_SYSTEM_LOAD_RECORDER_H
#define VELTA_TESTS_SYSTEM_LOAD_RECORDER_H

#include <vector>

// While one exists, notes every object whose destruction is put off to an unload or to the end of the
// process: that is, every global with a destructor, at the moment at which it has been built.
//
// It sees them because this executable stands in front of the C library with a __cxa_atexit of its own, which
// passes everything on.
//
// Thread use: one at a time, on the thread that loads.
class LoadRecorder {
 public:
  LoadRecorder();
  ~LoadRecorder();
  LoadRecorder(const LoadRecorder&) = delete;
  LoadRecorder& operator=(const LoadRecorder&) = delete;

  // In the order in which they were built.
  std::vector<const void*> Objects() const;
};

#endif  // VELTA_TESTS_SYSTEM_LOAD_RECORDER_H
