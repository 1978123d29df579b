#include "benchmarks/reading/accounts.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <ios>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Every third account is a service's: its shell is too long for a string without memory of its own, as most
// shells of services are.
std::string Line(const std::string& name, std::size_t number) {
  const std::string id = std::to_string(1000 + number);
  const bool service = number % 3 == 0;
  return name + ":x:" + id + ":" + id + ":Account " + id + ":/home/" + name + ":" +
         (service ? "/usr/sbin/nologin" : "/bin/bash") + "\n";
}

std::string Name(std::size_t number) {
  const std::string digits = std::to_string(number);
  return "u" + std::string(7 - digits.size(), '0') + digits;
}

}  // namespace

std::string AccountFile(std::size_t accounts, Order order) {
  std::vector<std::size_t> numbers(accounts - 1);
  std::iota(numbers.begin(), numbers.end(), std::size_t{1});
  if (order == Order::Shuffled) {
    std::mt19937_64 random(20000101);
    // Not std::shuffle, which a library may do in its own way.
    for (std::size_t left = numbers.size(); left > 1; --left) {
      std::swap(numbers[left - 1], numbers[random() % left]);
    }
  }
  std::string text = "root:x:0:0:root:/root:/bin/bash\n";
  for (const std::size_t number : numbers) {
    text += Line(Name(number), number);
  }
  return text;
}

std::string RepeatedAccountFile(std::size_t accounts) {
  std::string text = "root:x:0:0:root:/root:/bin/bash\n";
  for (std::size_t number = 1; number < accounts; ++number) {
    text += Line(Name(1), number);
  }
  return text;
}

void WriteAccountFile(const std::string& text) {
  std::ofstream file(VELTA_PASSWD_FILE, std::ios::binary | std::ios::trunc);
  file << text << std::flush;
  if (!file) {
    throw std::runtime_error("cannot write " VELTA_PASSWD_FILE);
  }
}
