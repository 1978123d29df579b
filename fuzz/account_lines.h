#ifndef VELTA_FUZZ_ACCOUNT_LINES_H
#define VELTA_FUZZ_ACCOUNT_LINES_H

#include <random>
#include <string>

// Lines that resemble accounts: what an account consists of, put together in ways that readers differ about.
class AccountLines {
 public:
  explicit AccountLines(unsigned seed) : engine(seed) {}

  // The content with some lines added, removed, moved, repeated or changed.
  std::string Change(const std::string& content);

 private:
  // The same choices for the same seed on every machine, which standard distributions do not promise.
  unsigned Below(unsigned bound) { return static_cast<unsigned>(engine()) % bound; }
  bool OneIn(unsigned count) { return Below(count) == 0; }
  template <unsigned count>
  std::string OneOf(const std::string (&texts)[count]) {
    return texts[Below(count)];
  }

  std::string Field(unsigned place);
  std::string Line();
  void Distort(std::string& line);

  std::mt19937 engine;
};

#endif  // VELTA_FUZZ_ACCOUNT_LINES_H
