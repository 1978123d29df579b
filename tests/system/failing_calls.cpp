// Preloaded into an agent, makes system calls fail as VELTA_FAIL says: rules, separated by blanks.
//
//   call[@text]=effect[#which]
//
//   call    a function of the C library, from the list at the end of this file; clock_gettime stands for the
//           wall clock alone
//   text    only where the path contains it, or the target of the descriptor's link in /proc: "inotify",
//           "eventfd", "/etc/passwd"
//   effect  the name of an error; a number: the most bytes that a read or write gets; STRANGER: a read gives
//           an event of a watch that nobody has first; FORWARD and BACK: the clock is set by an hour;
//           HANG: a write never comes back
//   which   3 the third of these calls, 3- that and all after it, -3 the first three, %3 every third; without
//           it all of them
//
// The first rule that a call matches counts it and decides. An example:
//
//   VELTA_FAIL=inotify_add_watch=ENOSPC#2 read=EINTR%2
//
// Built without sanitizers, and without anything that allocates: calls arrive before main, and from inside a
// sanitizer's own start.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

namespace {

struct Effect {
  int error = 0;  // 0: none
  std::size_t bytes = 0;
  bool stranger = false;
  bool hang = false;
  int jump = 0;  // to which side
};

struct Rule {
  char call[24];
  char text[64];
  Effect effect;
  unsigned first;
  unsigned last;
  unsigned every;
  std::atomic<unsigned> calls;
};

Rule rules[16];
unsigned ruleCount = 0;

[[noreturn]] void Refuse(const char* rule) {
  dprintf(STDERR_FILENO, "VELTA_FAIL: not a rule: %s\n", rule);
  _exit(126);
}

Effect EffectOf(const char* word, const char* rule) {
  struct Error {
    const char* name;
    int number;
  };
  static constexpr Error errors[] = {{"EAGAIN", EAGAIN}, {"EINTR", EINTR},   {"EIO", EIO},
                                     {"EMFILE", EMFILE}, {"ENFILE", ENFILE}, {"ENOMEM", ENOMEM},
                                     {"ENOSPC", ENOSPC}, {"ENOSYS", ENOSYS}, {"EPERM", EPERM}};
  Effect effect;
  effect.bytes = strtoul(word, nullptr, 10);
  effect.stranger = strcmp(word, "STRANGER") == 0;
  effect.hang = strcmp(word, "HANG") == 0;
  effect.jump = strcmp(word, "FORWARD") == 0 ? 1 : strcmp(word, "BACK") == 0 ? -1 : 0;
  for (const Error& error : errors) {
    effect.error = strcmp(word, error.name) == 0 ? error.number : effect.error;
  }
  if (effect.bytes == 0 && effect.error == 0 && !effect.stranger && !effect.hang && effect.jump == 0) {
    Refuse(rule);
  }
  return effect;
}

void ReadRule(const char* text) {
  if (ruleCount == std::size(rules)) {
    Refuse(text);
  }
  Rule& rule = rules[ruleCount];
  char word[16] = "";
  char which[16] = "";
  if (sscanf(text, "%23[a-z0-9_]@%63[^=]=%15[A-Z0-9]%15s", rule.call, rule.text, word, which) < 3) {
    rule.text[0] = '\0';
    if (sscanf(text, "%23[a-z0-9_]=%15[A-Z0-9]%15s", rule.call, word, which) < 2) {
      Refuse(text);
    }
  }
  rule.effect = EffectOf(word, text);
  rule.first = 1;
  rule.last = UINT_MAX;
  rule.every = 1;
  if (which[0] == '%') {
    rule.every = static_cast<unsigned>(atoi(which + 1));
  } else if (which[0] == '#' && which[1] == '-') {
    rule.last = static_cast<unsigned>(atoi(which + 2));
  } else if (which[0] == '#') {
    rule.first = static_cast<unsigned>(atoi(which + 1));
    rule.last = strchr(which, '-') != nullptr ? rule.last : rule.first;
  } else if (which[0] != '\0') {
    Refuse(text);
  }
  if (rule.every == 0 || rule.first == 0 || rule.last == 0) {
    Refuse(text);
  }
  ++ruleCount;
}

bool ReadRules() {
  char text[1024] = "";
  const char* const variable = getenv("VELTA_FAIL");
  if (variable == nullptr || strlen(variable) >= sizeof(text)) {
    Refuse(variable == nullptr ? "(nothing)" : variable);
  }
  strcpy(text, variable);
  char* rest = nullptr;
  for (const char* rule = strtok_r(text, " ", &rest); rule != nullptr; rule = strtok_r(nullptr, " ", &rest)) {
    ReadRule(rule);
  }
  return true;
}

[[maybe_unused]] const bool rulesRead = ReadRules();

// What is to happen to this call. About what it is, is asked only when a rule wants to know.
template <typename About>
Effect Next(const char* call, About about) {
  for (Rule* rule = rules; rule != rules + ruleCount; ++rule) {
    char room[PATH_MAX] = "";
    if (strcmp(rule->call, call) != 0 ||
        (rule->text[0] != '\0' && strstr(about(room), rule->text) == nullptr)) {
      continue;
    }
    const unsigned number = ++rule->calls;
    const bool meant = number >= rule->first && number <= rule->last && number % rule->every == 0;
    return meant ? rule->effect : Effect();
  }
  return Effect();
}

Effect NextOf(const char* call, const char* path = "") {
  return Next(call, [path](char* /*room*/) { return path; });
}

Effect NextOf(const char* call, int descriptor) {
  return Next(call, [descriptor](char* room) {
    char link[40];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", descriptor);
    const int before = errno;
    [[maybe_unused]] const ssize_t length = readlink(link, room, PATH_MAX - 1);  // no link: no text
    errno = before;
    return static_cast<const char*>(room);
  });
}

bool Fails(const Effect& effect) {
  if (effect.error != 0) {
    errno = effect.error;
  }
  return effect.error != 0;
}

std::size_t SizeUnder(const Effect& effect, std::size_t size) {
  return effect.bytes == 0 ? size : std::min(size, effect.bytes);
}

}  // namespace

// The function that would have been called.
#define VELTA_REAL(function) \
  static const auto real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

#define VELTA_OPEN(function)                                                    \
  int function(const char* path, int flags, ...) {                              \
    VELTA_REAL(function);                                                       \
    va_list arguments;                                                          \
    va_start(arguments, flags);                                                 \
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0; \
    va_end(arguments);                                                          \
    return Fails(NextOf("open", path)) ? -1 : real(path, flags, mode);          \
  }

extern "C" {

VELTA_OPEN(open)
VELTA_OPEN(open64)

int inotify_init1(int flags) noexcept {
  VELTA_REAL(inotify_init1);
  return Fails(NextOf("inotify_init1")) ? -1 : real(flags);
}

int inotify_add_watch(int descriptor, const char* path, std::uint32_t mask) noexcept {
  VELTA_REAL(inotify_add_watch);
  return Fails(NextOf("inotify_add_watch", path)) ? -1 : real(descriptor, path, mask);
}

int eventfd(unsigned count, int flags) noexcept {
  VELTA_REAL(eventfd);
  return Fails(NextOf("eventfd")) ? -1 : real(count, flags);
}

int statx(int folder, const char* path, int flags, unsigned mask, struct statx* answer) noexcept {
  VELTA_REAL(statx);
  return Fails(NextOf("statx", path)) ? -1 : real(folder, path, flags, mask, answer);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
  VELTA_REAL(poll);
  return Fails(NextOf("poll")) ? -1 : real(descriptors, count, timeout);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept {
  VELTA_REAL(pthread_create);
  const Effect effect = NextOf("pthread_create");
  return effect.error != 0 ? effect.error : real(thread, attributes, function, argument);
}

ssize_t read(int descriptor, void* data, std::size_t size) {
  VELTA_REAL(read);
  const Effect effect = NextOf("read", descriptor);
  if (Fails(effect)) {
    return -1;
  }
  constexpr std::size_t header = sizeof(inotify_event);
  if (!effect.stranger || size < header) {
    return real(descriptor, data, SizeUnder(effect, size));
  }
  const ssize_t got = real(descriptor, static_cast<char*>(data) + header, size - header);
  if (got < 0) {
    return got;
  }
  inotify_event stranger = inotify_event();
  stranger.wd = 1000000;
  stranger.mask = IN_CLOSE_WRITE;
  memcpy(data, &stranger, header);
  return got + static_cast<ssize_t>(header);
}

ssize_t write(int descriptor, const void* data, std::size_t size) {
  VELTA_REAL(write);
  const Effect effect = NextOf("write", descriptor);
  while (effect.hang) {
    pause();
  }
  return Fails(effect) ? -1 : real(descriptor, data, SizeUnder(effect, size));
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  VELTA_REAL(clock_gettime);
  const int result = real(clock, time);
  if (clock == CLOCK_REALTIME) {
    static std::atomic<int> jumps;
    jumps += NextOf("clock_gettime").jump;
    time->tv_sec += time_t{jumps} * 3600;
  }
  return result;
}

}  // extern "C"
