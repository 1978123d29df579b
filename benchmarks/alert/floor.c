// The least that a program has to do to tell of a root account: a wait for the folder's event, one reading of
// the file, one line to standard output. It remembers nothing, asks for no memory and never wakes without an
// event. What it leaves out (what was there before, other ways of change, files that are links, names that
// need escaping) is the difference between a measure and a product.
//
// Usage: velta_bench_floor [FOLDER [NAME]]; watches /etc and passwd without. Ends with 1 when it cannot
// watch.

#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

static char events[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
static char content[16384];

static size_t Append(char* text, size_t size, const char* part, size_t length) {
  memcpy(text + size, part, length);
  return size + length;
}

static void Tell(const char* name, size_t length) {
  static const char before[] = "{\"eventType\":\"unauthorized-root-user\",\"userName\":\"";
  static const char after[] = "\"}\n";
  char line[512];
  if (length > 256) {
    length = 256;
  }
  size_t size = Append(line, 0, before, sizeof(before) - 1);
  size = Append(line, size, name, length);
  size = Append(line, size, after, sizeof(after) - 1);
  if (write(STDOUT_FILENO, line, size) < 0) {
    _exit(1);
  }
}

// name:password:uid:...
static void Look(const char* line, const char* end) {
  const char* const name = memchr(line, ':', (size_t)(end - line));
  const char* const password = name == NULL ? NULL : memchr(name + 1, ':', (size_t)(end - name - 1));
  if (password == NULL || end - password < 3 || password[1] != '0' || password[2] != ':') {
    return;
  }
  const size_t length = (size_t)(name - line);
  if (length != 4 || memcmp(line, "root", 4) != 0) {
    Tell(line, length);
  }
}

static void Read(int folder, const char* file) {
  const int descriptor = openat(folder, file, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return;
  }
  size_t held = 0;  // of a line whose end is still to come
  for (;;) {
    const ssize_t size = read(descriptor, content + held, sizeof(content) - held);
    if (size <= 0) {
      break;
    }
    const char* const end = content + held + size;
    const char* line = content;
    for (const char* newline; (newline = memchr(line, '\n', (size_t)(end - line))) != NULL;
         line = newline + 1) {
      Look(line, newline);
    }
    held = (size_t)(end - line);
    if (held == sizeof(content)) {
      held = 0;  // no account has a line as long as that
    }
    memmove(content, line, held);
  }
  close(descriptor);
}

static int IsAbout(const char* file, ssize_t size) {
  for (ssize_t offset = 0; offset < size;) {
    const struct inotify_event* const event = (const struct inotify_event*)(events + offset);
    if (event->len > 0 && strcmp(event->name, file) == 0) {
      return 1;
    }
    offset += (ssize_t)sizeof(*event) + (ssize_t)event->len;
  }
  return 0;
}

int main(int argc, char** argv) {
  const char* const path = argc > 1 ? argv[1] : "/etc";
  const char* const file = argc > 2 ? argv[2] : "passwd";
  const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int watch = inotify_init1(IN_CLOEXEC);
  if (folder < 0 || watch < 0 || inotify_add_watch(watch, path, IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
    perror(path);
    return 1;
  }
  for (;;) {
    const ssize_t size = read(watch, events, sizeof(events));
    if (size < 0) {
      return 1;
    }
    if (IsAbout(file, size)) {
      Read(folder, file);
    }
  }
}
